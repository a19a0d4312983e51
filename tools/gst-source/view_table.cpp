#include "view_table.h"

#include <algorithm>
#include <initializer_list>

#include "format.h"

namespace tool {

TableView::TableView(int terminal, bool colors, const LogCapture &log, bool log_kept_elsewhere, int input)
    : m_screen(terminal), m_keyboard(input), m_colors(colors), m_log(log), m_logKeptElsewhere(log_kept_elsewhere) {}

bool TableView::Show(const RunSample &run) {
    return Draw(run);
}

void TableView::Finish(const RunSample &run) {
    Draw(run);
    std::string text = "\n";
    for (const SourceSample &source : run.sources) {
        text += FormatSummary(source) + "\n";
    }
    m_screen.Write(text);
}

bool TableView::Draw(const RunSample &run) {
    const Window room = m_screen.Room();
    // Counted before the lines are fetched: one that comes in between is counted next time.
    const uint64_t total = m_log.LineCount();
    const uint64_t left_out = total - std::min(total, m_log.NotedCount());
    m_control.keys = m_keyboard.Descriptor() >= 0;
    const Table table =
        MakeTable(run, {m_log.LastLines(LogCapture::kKept), total, m_logKeptElsewhere, left_out}, room, m_colors, m_control);
    m_control.first = table.first;
    m_page = std::max<size_t>(1, table.shown);
    m_total = run.sources.size();
    return m_screen.Draw(table.lines);
}

View::Asked TableView::OnInput() {
    Asked asked = Asked::kNothing;
    for (const KeyPress &press : m_keyboard.Read()) {
        asked = std::max(asked, OnKey(press));
    }
    return asked;
}

View::Asked TableView::OnKey(const KeyPress &press) {
    size_t &first = m_control.first;
    const size_t last = m_total > m_page ? m_total - m_page : 0;
    const auto back = [&first](size_t rows) { first -= std::min(first, rows); };
    const auto forth = [&first, last](size_t rows) { first = std::min(last, first + rows); };
    switch (press.key) {
        case Key::kUp:
            back(1);
            return Asked::kRedraw;
        case Key::kDown:
            forth(1);
            return Asked::kRedraw;
        case Key::kPageUp:
            back(m_page);
            return Asked::kRedraw;
        case Key::kPageDown:
            forth(m_page);
            return Asked::kRedraw;
        case Key::kHome:
            first = 0;
            return Asked::kRedraw;
        case Key::kEnd:
            first = last;
            return Asked::kRedraw;
        case Key::kLetter:
            break;
    }
    switch (press.letter) {
        case 'k':
            back(1);
            return Asked::kRedraw;
        case 'j':
            forth(1);
            return Asked::kRedraw;
        case 's':
            m_control.sort = m_control.sort == SortBy::kRebuilds ? SortBy::kGiven
                                                                 : static_cast<SortBy>(static_cast<int>(m_control.sort) + 1);
            first = 0;
            return Asked::kRedraw;
        case 'r':
            m_control.reversed = !m_control.reversed;
            first = 0;
            return Asked::kRedraw;
        case '?':
            m_control.help = !m_control.help;
            return Asked::kRedraw;
        case 'q':
        case 'Q':
            return Asked::kQuit;
        default:
            return Asked::kNothing;
    }
}

}  // namespace tool

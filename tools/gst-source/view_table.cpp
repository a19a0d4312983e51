#include "view_table.h"

#include "format.h"

namespace tool {

TableView::TableView(int terminal, bool colors, const LogCapture &log, bool log_kept_elsewhere)
    : m_screen(terminal), m_colors(colors), m_log(log), m_logKeptElsewhere(log_kept_elsewhere) {}

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
    return m_screen.Draw(
        TableLines(run, {m_log.LastLines(LogCapture::kKept), m_log.LineCount(), m_logKeptElsewhere}, room, m_colors));
}

}  // namespace tool

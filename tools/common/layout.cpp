#include "layout.h"

#include <algorithm>

#include "text.h"

namespace tool {
namespace {

constexpr size_t kGap = 2;

}  // namespace

Layout::Layout(const std::vector<ColumnStyle> &styles, const std::vector<Row> &rows, size_t columns, size_t indent,
               const std::vector<size_t> &hidden)
    : m_styles(styles), m_indent(indent) {
    for (size_t column = 0; column < styles.size(); ++column) {
        size_t width = std::max(styles[column].width, styles[column].title.size());
        for (const Row &row : rows) {
            width = std::max(width, Columns(row[column]));
        }
        const bool shown = std::find(hidden.begin(), hidden.end(), column) == hidden.end();
        m_widths.push_back(shown ? width : 0);
    }
    Fit(columns);
}

void Layout::Fit(size_t columns) {
    while (Width() > columns) {
        size_t victim = 0;
        for (size_t column = 1; column < m_widths.size(); ++column) {
            if (m_widths[column] > 0 && (victim == 0 || m_styles[column].keep < m_styles[victim].keep)) {
                victim = column;
            }
        }
        if (victim == 0) {
            return;
        }
        m_widths[victim] = 0;
    }
}

size_t Layout::Width() const {
    size_t width = m_indent;
    size_t gap = 0;
    for (const size_t column : m_widths) {
        width += column > 0 ? column + gap : 0;
        gap = kGap;
    }
    return width;
}

std::string Layout::Titles() const {
    Row titles;
    std::transform(m_styles.begin(), m_styles.end(), std::back_inserter(titles),
                   [](const ColumnStyle &style) { return std::string(style.title); });
    return Line(titles);
}

std::string Layout::Line(const Row &row, const Decorate &decorate) const {
    std::string line(m_indent, ' ');
    size_t gap = 0;
    for (size_t column = 0; column < m_widths.size(); ++column) {
        if (m_widths[column] == 0) {
            continue;
        }
        const std::string pad(m_widths[column] - std::min(m_widths[column], Columns(row[column])), ' ');
        const std::string cell = m_styles[column].right ? pad + row[column] : row[column] + pad;
        line += std::string(gap, ' ') + (decorate ? decorate(column, cell) : cell);
        gap = kGap;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

}  // namespace tool

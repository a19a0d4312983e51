// Columns made to measure for a window.
#pragma once

#include <cstddef>
#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

struct ColumnStyle {
    std::string_view title;
    bool right;
    size_t width;  // enough for usual values, so that the table does not move with every one
    int keep;      // columns with the lowest number leave first when the window is narrow
};

using Row = std::vector<std::string>;

// Columns that are there and how wide, so that a row is not wider
// than the window. The first column never leaves.
class Layout {
  public:
    static constexpr size_t kAnyWidth = std::numeric_limits<size_t>::max();

    // Every row has a cell for each style; `hidden` columns are left out
    // in any case. `styles` must outlive the layout.
    Layout(const std::vector<ColumnStyle> &styles, const std::vector<Row> &rows, size_t columns, size_t indent,
           const std::vector<size_t> &hidden = {});

    std::string Titles() const;
    // Without blanks at the end. `decorate` may put what takes no columns around a cell and its blanks.
    using Decorate = std::function<std::string(size_t column, const std::string &cell)>;
    std::string Line(const Row &row, const Decorate &decorate = {}) const;

    // Of the widest line that it can make.
    size_t Width() const;

  private:
    void Fit(size_t columns);

    const std::vector<ColumnStyle> &m_styles;
    const size_t m_indent;
    std::vector<size_t> m_widths;  // 0: left out
};

}  // namespace tool

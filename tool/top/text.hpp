// Text for a screen of fixed columns: measured, cut, filled up, drawn as bars, set into columns.
#ifndef ZEVOBW_TOOL_TOP_TEXT_HPP
#define ZEVOBW_TOOL_TOP_TEXT_HPP

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "output.hpp"

namespace tool {

// Printable text with one set of colors. Colors that the terminal lacks are left out.
struct TopSpan {
    std::string text;
    std::vector<Color> colors;
};
using TopLine = std::vector<TopSpan>;

// The text in exactly so many columns, cut or filled up with blanks. A character without width
// stays with the one before it. A character that the locale cannot show becomes '?'.
std::string Fit(std::string_view text, std::size_t columns, bool right = false);

// The same, but a text that is too long shows its end, after two dots.
std::string FitEnd(std::string_view text, std::size_t columns);

// Past speeds as bars, the latest at the right. A full bar is fullBps, or the highest speed if
// larger.
std::string HistoryGraph(const std::deque<std::uint64_t> &speeds, std::uint64_t fullBps,
                         std::size_t columns, bool utf8);

// A part in ten-thousandths as a bar; more than the whole is a full bar.
std::string PartBar(std::uint64_t part, std::size_t columns, bool utf8);

// "42%".
std::string Percent(std::uint64_t tenThousandths);

struct GridColumn {
    const char *title;
    bool right;
    int rank; // on a narrow screen the highest rank is left out first
    std::vector<Color> colors;
    bool endCounts = false; // a cell that is too long shows its end
};

// Rows under a headline, as wide as the screen. The last column takes what the others leave.
class Grid {
public:
    explicit Grid(std::vector<GridColumn> columns) : columns_(std::move(columns)) {}
    // Printable cells, one for each column. look replaces the colors of the columns.
    void AddRow(std::vector<std::string> cells, std::vector<Color> look = {});
    // The headline first, the title of the marked column inverse.
    std::vector<TopLine> Lines(std::size_t columns, std::string_view marked = {}) const;

private:
    struct Row {
        std::vector<std::string> cells;
        std::vector<Color> look;
    };
    std::vector<std::size_t> Widths(std::size_t columns) const;

    std::vector<GridColumn> columns_;
    std::vector<Row> rows_;
};

} // namespace tool

#endif // ZEVOBW_TOOL_TOP_TEXT_HPP

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

// A run of printable text in one look. Colors that the terminal lacks are left out when drawn.
struct TopSpan {
    std::string text;
    std::vector<Color> colors;
};
using TopLine = std::vector<TopSpan>;

// The text in exactly so many columns, cut or filled up with blanks. What has no width of its own
// goes with the character before it; what the locale cannot show becomes '?'.
std::string Fit(std::string_view text, std::size_t columns, bool right = false);

// The same, but of what is too long the end is shown, behind two dots.
std::string FitEnd(std::string_view text, std::size_t columns);

// Past speeds as bars, the latest at the right; full is a speed of fullBps, or the highest of them.
std::string HistoryGraph(const std::deque<std::uint64_t> &speeds, std::uint64_t fullBps,
                         std::size_t columns, bool utf8);

// A part in ten-thousandths as a bar; more than the whole is a full bar.
std::string PartBar(std::uint64_t part, std::size_t columns, bool utf8);

// "42%".
std::string Percent(std::uint64_t tenThousandths);

struct GridColumn {
    const char *title;
    bool right;
    int rank; // the highest are left out first where the screen is narrow
    std::vector<Color> colors;
    bool endCounts = false; // of what is too long the end is shown
};

// Rows under a headline, as wide as the screen. The last column takes what the others leave.
class Grid {
public:
    explicit Grid(std::vector<GridColumn> columns) : columns_(std::move(columns)) {}
    // Printable cells, one for each column. A look of its own stands for those of the columns.
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

// Text for a screen of fixed columns.
#include "top/text.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include "model/rate.hpp"

namespace tool {

namespace {

constexpr std::size_t kLeastLast = 8; // the least width of the last column
constexpr std::size_t kGap = 1;
constexpr std::size_t kLeftOut = 0; // the width of a column that is left out

// The steps of a bar of one column, the lowest first.
constexpr std::array kBlocks = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array kSigns = {"_", ".", "-", ":", "=", "+", "*", "#"};

} // namespace

std::string Fit(std::string_view text, std::size_t columns, bool right)
{
    std::string fitting;
    std::size_t used = 0;
    while (!text.empty()) {
        const Glyph glyph = FirstGlyph(text);
        if (used + glyph.Columns() > columns) break;
        fitting += glyph.width < 0 ? "?" : glyph.bytes;
        used += glyph.Columns();
        text.remove_prefix(glyph.bytes.size());
    }
    const std::string blanks(columns - used, ' ');
    return right ? blanks + fitting : fitting + blanks;
}

std::string FitEnd(std::string_view text, std::size_t columns)
{
    constexpr std::string_view kDots = "..";
    std::size_t width = Width(text);
    if (width <= columns || columns <= kDots.size()) return Fit(text, columns);
    while (width > columns - kDots.size()) {
        const Glyph first = FirstGlyph(text);
        width -= first.Columns();
        text.remove_prefix(first.bytes.size());
    }
    return Fit(std::string(kDots) + std::string(text), columns);
}

std::string HistoryGraph(const std::deque<std::uint64_t> &speeds, std::uint64_t fullBps,
                         std::size_t columns, bool utf8)
{
    const std::size_t shown = std::min(columns, speeds.size());
    for (const std::uint64_t speed : speeds)
        fullBps = std::max(fullBps, speed);
    std::string graph(columns - shown, ' ');
    for (auto speed = speeds.end() - static_cast<std::ptrdiff_t>(shown); speed != speeds.end();
         ++speed) {
        const double part =
            fullBps == 0 ? 0 : static_cast<double>(*speed) / static_cast<double>(fullBps);
        const auto step = static_cast<std::size_t>(std::lround(part * (kBlocks.size() - 1)));
        graph += utf8 ? kBlocks[step] : kSigns[step];
    }
    return graph;
}

std::string PartBar(std::uint64_t part, std::size_t columns, bool utf8)
{
    const std::size_t full = std::min<std::uint64_t>(part, kWhole) * columns / kWhole;
    std::string bar;
    for (std::size_t i = 0; i < columns; ++i)
        bar += i < full ? (utf8 ? "█" : "#") : (utf8 ? "·" : ".");
    return bar;
}

std::string Percent(std::uint64_t tenThousandths)
{
    constexpr std::uint64_t kMax = 999;
    const std::uint64_t percent = tenThousandths / 100 + (tenThousandths % 100 + 50) / 100;
    return percent > kMax ? ">999%" : std::to_string(percent) + "%";
}

void Grid::AddRow(std::vector<std::string> cells, std::vector<Color> look)
{
    rows_.push_back({std::move(cells), std::move(look)});
}

std::vector<std::size_t> Grid::Widths(std::size_t columns) const
{
    std::vector<std::size_t> widths;
    std::size_t sum = kLeastLast;
    for (std::size_t i = 0; i + 1 < columns_.size(); ++i) {
        std::size_t width = Width(columns_[i].title);
        for (const Row &row : rows_)
            width = std::max(width, Width(row.cells[i]));
        widths.push_back(width);
        sum += width + kGap;
    }
    while (sum > columns) {
        std::size_t out = columns_.size();
        for (std::size_t i = 0; i < widths.size(); ++i)
            if (widths[i] != kLeftOut &&
                (out == columns_.size() || columns_[i].rank > columns_[out].rank))
                out = i;
        if (out == columns_.size()) break;
        sum -= widths[out] + kGap;
        widths[out] = kLeftOut;
    }
    widths.push_back(columns - std::min(columns, sum - kLeastLast));
    return widths;
}

std::vector<TopLine> Grid::Lines(std::size_t columns, std::string_view marked) const
{
    const std::vector<std::size_t> widths = Widths(columns);
    std::vector<TopLine> lines(rows_.size() + 1);
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        if (widths[i] == kLeftOut) continue;
        const GridColumn &column = columns_[i];
        const bool isLast = i + 1 == columns_.size();
        const std::vector<Color> look = !marked.empty() && marked == column.title
                                            ? std::vector{Color::kBold, Color::kInverse}
                                            : std::vector{Color::kBold};
        lines[0].push_back({Fit(column.title, widths[i], column.right), look});
        for (std::size_t row = 0; row < rows_.size(); ++row) {
            const std::string &cell = rows_[row].cells[i];
            const std::vector<Color> &own = rows_[row].look;
            lines[row + 1].push_back(
                {column.endCounts ? FitEnd(cell, widths[i]) : Fit(cell, widths[i], column.right),
                 own.empty() ? column.colors : own});
        }
        if (isLast) break;
        for (std::size_t line = 0; line < lines.size(); ++line)
            lines[line].push_back(
                {std::string(kGap, ' '), line == 0 ? std::vector<Color>{} : rows_[line - 1].look});
    }
    return lines;
}

} // namespace tool

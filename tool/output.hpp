// What the commands print: tables for people, JSON for programs, and stored text made harmless.
#ifndef ZEVOBW_TOOL_OUTPUT_HPP
#define ZEVOBW_TOOL_OUTPUT_HPP

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace tool {

// Keys stay in the order in which the commands set them.
using Json = nlohmann::ordered_json;

// How this run prints. The options of the command line write it before the command runs.
struct Style {
    bool json = false;
    bool numeric = false;  // ids instead of names of users and groups
    bool noLegend = false; // no headlines, no explanations: for scripts
    bool noColor = false;
};
Style &OutputStyle();

// Standard output is a terminal that shows colors, and nobody has asked to do without: --no-color,
// NO_COLOR, TERM=dumb.
bool UsesColor();

enum class Color {
    kBold,
    kDim,
    kRed,
    kGreen,
    kYellow,
    kBlue,
    kMagenta,
    kCyan,
    kInverse,
    kOnGreen,
    kOnYellow
};

// The text in that color where colors are used, else as it is. The text must be printable already.
std::string Paint(Color color, const std::string &text);

// Standard output is a terminal that can be drawn on, rather than one that only scrolls (TERM=dumb).
bool ControlsTerminal();

// Text from a file, from a user or from another process, fit for a terminal: valid UTF-8 stays;
// control characters (C1 and direction marks too) and bytes that are no UTF-8 become \xHH, one
// backslash per byte. Never holds a line end.
std::string Printable(std::string_view text);

bool IsUtf8(std::string_view text);

// Printable text for a terminal that shows ASCII alone: a '?' for every byte of other characters.
std::string AsciiOnly(std::string text);

// Columns that a printable text takes on a terminal.
std::size_t Width(std::string_view text);

// The words of a text in lines of at most so many columns; a longer word has a line of its own.
std::vector<std::string> Wrapped(std::string_view text, std::size_t columns);

// Columns of text under a headline, left-aligned but for those named; the last is never padded.
// Cells pass through Printable(). Without legend the headline is left out, and so are the titles
// above groups of rows.
class Table {
public:
    explicit Table(std::vector<std::string> headline) : rows_{std::move(headline)} {}
    void AlignRight(std::size_t column) { right_.push_back(column); }
    void AddRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
    void AddTitle(std::string title) { rows_.push_back({std::move(title)}); }
    void Print() const;
    // What Print() prints, line by line.
    std::vector<std::string> Lines() const;

private:
    using Row = std::vector<std::string>;
    bool IsTitle(const Row &row) const { return row.size() < rows_.front().size(); }
    std::string Line(const Row &row, const std::vector<std::size_t> &widths) const;

    std::vector<Row> rows_;
    std::vector<std::size_t> right_;
};

// Standard output, whole lines.
void PrintText(const std::string &lines); // with their ends
void PrintLine(const std::string &line);
void PrintJson(const Json &json);

// A line for programs: byte for byte, but made harmless where it goes to a terminal.
void PrintExactLine(const std::string &line);

// A rate or a speed of which 0 is unlimited: null for that.
Json LimitJson(std::uint64_t limit);

// What convert() makes of each record.
template <typename Records, typename Convert>
Json JsonArray(const Records &records, Convert convert)
{
    Json json = Json::array();
    for (const auto &record : records)
        json.push_back(convert(record));
    return json;
}

// On one line, as PrintJson() escapes it.
std::string JsonText(const Json &json);

// A line to standard error, for what should be known beside the result.
void PrintNote(const std::string &note);

// The first of many such lines, each behind the prefix, and how many more there are.
void PrintNotes(const std::string &prefix, const std::vector<std::string> &notes);

// What a function of the library writes to a stream; empty when it refuses (by another result than 0).
using StreamPrinter = std::function<int(FILE *)>;
std::string Written(const StreamPrinter &print);

// Throws Failure when standard output could not take everything that was printed (it is closed, or
// its disk is full).
void FlushOutput();

} // namespace tool

#endif // ZEVOBW_TOOL_OUTPUT_HPP

// Output: tables for people, JSON for programs. Stored text is made harmless first.
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

// How this run prints. The command line's options set it before the command runs.
struct Style {
    bool json = false;
    bool numeric = false;  // ids instead of names of users and groups
    bool noLegend = false; // no headlines, no explanations: for scripts
    bool noColor = false;
};
Style &OutputStyle();

// Whether standard output is a terminal that shows colors. --no-color, NO_COLOR and TERM=dumb turn
// colors off.
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

// The text in that color if colors are used. The text must be printable already.
std::string Paint(Color color, const std::string &text);

// Whether standard output is a terminal with a movable cursor (not TERM=dumb).
bool ControlsTerminal();

// Makes foreign text (from a file, a user or another process) fit for a terminal. Valid UTF-8
// stays. Control characters (C1 and direction marks too) and bytes that are no UTF-8 become \xHH.
// The result holds no line end.
std::string Printable(std::string_view text);

bool IsUtf8(std::string_view text);

// For a terminal that shows only ASCII: puts a '?' for every byte of other characters.
std::string AsciiOnly(std::string text);

// The first character of a text, or its first byte if that is no UTF-8.
struct Glyph {
    std::string_view bytes;
    int width; // -1: the locale cannot show it
    std::size_t Columns() const { return width < 0 ? 1 : static_cast<std::size_t>(width); }
};
Glyph FirstGlyph(std::string_view text);

// Columns that a printable text takes on a terminal.
std::size_t Width(std::string_view text);

// The words of a text in lines of at most so many columns; a longer word has a line of its own.
std::vector<std::string> Wrapped(std::string_view text, std::size_t columns);

// Columns of text under a headline. They are aligned left, except those named; the last one is not
// padded. Cells pass through Printable(). --no-legend leaves out the headline and the titles above
// groups of rows.
class Table {
public:
    explicit Table(std::vector<std::string> headline, std::vector<std::size_t> right = {})
        : rows_{std::move(headline)}, right_(std::move(right))
    {
    }
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
    std::vector<std::size_t> right_; // the columns aligned right
};

// Standard output, whole lines.
void PrintText(const std::string &lines); // with their ends
void PrintLine(const std::string &line);
void PrintJson(const Json &json);

// A line for programs, byte for byte; on a terminal it is made printable.
void PrintExactLine(const std::string &line);

// "1 transfer", "2 transfers", "2 processes".
std::string Counted(std::size_t count, const char *what);

// The texts in one, with the separator between them.
std::string Joined(const std::vector<std::string> &texts, const std::string &separator);

// A rate or a speed; null for 0, which means unlimited.
Json LimitJson(std::uint64_t limit);

// An array of what convert() makes of each record.
template <typename Records, typename Convert>
Json JsonArray(const Records &records, Convert convert)
{
    Json json = Json::array();
    for (const auto &record : records)
        json.push_back(convert(record));
    return json;
}

// The same text as PrintJson(), on one line.
std::string JsonText(const Json &json);

// Prints a line to standard error, for what is not part of the result.
void PrintNote(const std::string &note);

// Prints the first 20 notes, each after the prefix, and how many more there are.
void PrintNotes(const std::string &prefix, const std::vector<std::string> &notes);

enum class Answer { kYes, kNo, kNobodyThere };

// Prints the question to standard error and reads the answer from standard input. If that is no
// terminal, nobody is there. Every answer but "y" and "yes" means no.
Answer Ask(const std::string &question);

// What a function of the library writes to a stream; empty when it refuses (by another result than
// 0).
using StreamPrinter = std::function<int(FILE *)>;
std::string Written(const StreamPrinter &print);

// Throws Failure if standard output did not take everything (it is closed, or its disk is full).
void FlushOutput();

} // namespace tool

#endif // ZEVOBW_TOOL_OUTPUT_HPP

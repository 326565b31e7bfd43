// Printing. Stored text, file names above all, comes from other people. None of it reaches a
// terminal before Printable() has seen it.
#include "output.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <iostream>
#include <memory>
#include <new>

#include <stdio_ext.h>
#include <unistd.h>

#include "failure.hpp"

namespace tool {

namespace {

constexpr std::string_view kGap = "  ";

struct Character {
    char32_t code = 0;
    std::size_t length = 0; // bytes; 0 when the text does not begin with valid UTF-8
};

unsigned ByteAt(std::string_view text, std::size_t index)
{
    return static_cast<unsigned char>(text[index]);
}

Character FirstCharacter(std::string_view text)
{
    const unsigned first = ByteAt(text, 0);
    if (first < 0x80) return {first, 1};
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) return {};
    char32_t code = first & (0xFFU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((ByteAt(text, i) & 0xC0U) != 0x80) return {};
        code = (code << 6) | (ByteAt(text, i) & 0x3FU);
    }
    constexpr std::array<char32_t, 5> kLeast = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < kLeast[length] || code > 0x10FFFF || surrogate) return {};
    return {code, length};
}

// Moves the cursor, ends the line, or changes the direction of the text.
bool IsHarmful(char32_t code)
{
    const auto within = [code](char32_t from, char32_t to) { return code >= from && code <= to; };
    return code < 0x20 || within(0x7F, 0x9F) || within(0x200E, 0x200F) || within(0x2028, 0x202E) ||
           within(0x2066, 0x2069) || code == 0x061C || code == 0xFEFF;
}

void AppendEscaped(std::string &out, std::string_view bytes)
{
    for (const char byte : bytes) {
        std::array<char, 5> escaped{};
        std::snprintf(escaped.data(), escaped.size(), "\\x%02X", static_cast<unsigned char>(byte));
        out += escaped.data();
    }
}

// Escapes to ASCII, so that no control character reaches a terminal. Bytes that are no UTF-8 become
// U+FFFD and throw no exception.
std::string Dump(const Json &json, int indent)
{
    return json.dump(indent, ' ', true, Json::error_handler_t::replace);
}

} // namespace

Style &OutputStyle()
{
    static Style style;
    return style;
}

bool ControlsTerminal()
{
    const char *const terminal = std::getenv("TERM");
    const bool able = terminal != nullptr && std::string_view(terminal) != "dumb";
    return able && ::isatty(STDOUT_FILENO) == 1;
}

bool UsesColor()
{
    const char *const noColor = std::getenv("NO_COLOR");
    const bool refused = OutputStyle().noColor || (noColor != nullptr && *noColor != '\0');
    return !refused && ControlsTerminal();
}

std::string Paint(Color color, const std::string &text)
{
    static constexpr std::array kCodes = {"1",  "2",  "31", "32",    "33",   "34",
                                          "35", "36", "7",  "30;42", "30;43"};
    if (!UsesColor()) return text;
    return std::string("\033[") + kCodes[static_cast<std::size_t>(color)] + "m" + text + "\033[0m";
}

Glyph FirstGlyph(std::string_view text)
{
    const Character character = FirstCharacter(text);
    if (character.length == 0) return {text.substr(0, 1), -1};
    return {text.substr(0, character.length), ::wcwidth(static_cast<wchar_t>(character.code))};
}

std::size_t Width(std::string_view text)
{
    std::size_t columns = 0;
    while (!text.empty()) {
        const Glyph glyph = FirstGlyph(text);
        columns += glyph.Columns();
        text.remove_prefix(glyph.bytes.size());
    }
    return columns;
}

std::string Printable(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const Character character = FirstCharacter(text);
        const std::size_t length = std::max<std::size_t>(character.length, 1);
        if (character.length == 0 || IsHarmful(character.code))
            AppendEscaped(out, text.substr(0, length));
        else
            out += text.substr(0, length);
        text.remove_prefix(length);
    }
    return out;
}

bool IsUtf8(std::string_view text)
{
    while (!text.empty()) {
        const std::size_t length = FirstCharacter(text).length;
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string AsciiOnly(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c >= 0x80; }, '?');
    return text;
}

std::vector<std::string> Wrapped(std::string_view text, std::size_t columns)
{
    std::vector<std::string> lines(1);
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(word.size() + 1, text.size()));
        if (word.empty()) continue;
        std::string &line = lines.back();
        if (line.empty())
            line = word;
        else if (Width(line) + 1 + Width(word) <= columns)
            line.append(" ").append(word);
        else
            lines.emplace_back(word);
    }
    return lines;
}

void Table::Print() const
{
    for (const std::string &line : Lines())
        PrintLine(line);
}

std::string Table::Line(const Row &row, const std::vector<std::size_t> &widths) const
{
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
        const std::string blanks(widths[i] - Width(row[i]), ' ');
        const bool right = std::find(right_.begin(), right_.end(), i) != right_.end();
        if (right) line += blanks;
        line += row[i];
        if (i + 1 == row.size()) break;
        if (!right) line += blanks;
        line += kGap;
    }
    return line;
}

std::vector<std::string> Table::Lines() const
{
    std::vector<Row> rows = rows_;
    std::vector<std::size_t> widths(rows_.front().size(), 0);
    const auto isTitle = [this](const Row &row) { return IsTitle(row); };
    if (OutputStyle().noLegend) {
        rows.erase(rows.begin());
        std::erase_if(rows, isTitle);
    }
    for (Row &row : rows) {
        std::transform(row.begin(), row.end(), row.begin(), Printable);
        for (std::size_t i = 0; i < row.size() && !isTitle(row); ++i)
            widths[i] = std::max(widths[i], Width(row[i]));
    }
    std::vector<std::string> lines;
    lines.reserve(rows.size());
    for (const Row &row : rows)
        lines.push_back(isTitle(row) ? Paint(Color::kBold, row.front()) : Line(row, widths));
    return lines;
}

void PrintText(const std::string &lines)
{
    // The stream remembers a failure; FlushOutput() reports it.
    static_cast<void>(std::fwrite(lines.data(), 1, lines.size(), stdout));
}

void PrintLine(const std::string &line)
{
    PrintText(line + "\n");
}

void PrintExactLine(const std::string &line)
{
    PrintLine(::isatty(STDOUT_FILENO) == 1 ? Printable(line) : line);
}

void PrintJson(const Json &json)
{
    PrintLine(Dump(json, 2));
}

Json LimitJson(std::uint64_t limit)
{
    return limit == 0 ? Json(nullptr) : Json(limit);
}

std::string JsonText(const Json &json)
{
    return Dump(json, -1);
}

std::string Counted(std::size_t count, const char *what)
{
    const bool hisses = std::string_view(what).ends_with('s');
    return std::to_string(count) + " " + what + (count == 1 ? "" : hisses ? "es" : "s");
}

std::string Joined(const std::vector<std::string> &texts, const std::string &separator)
{
    std::string joined;
    for (const std::string &text : texts)
        joined += (&text == &texts.front() ? "" : separator) + text;
    return joined;
}

void PrintNote(const std::string &note)
{
    // Print the result before the note about it. FlushOutput() reports a failure.
    static_cast<void>(std::fflush(stdout));
    const std::string line = Printable(note) + "\n";
    static_cast<void>(
        std::fwrite(line.data(), 1, line.size(), stderr)); // no other place to report to
}

void PrintNotes(const std::string &prefix, const std::vector<std::string> &notes)
{
    constexpr std::size_t kMaxNotes = 20;
    for (std::size_t i = 0; i < std::min(notes.size(), kMaxNotes); ++i)
        PrintNote(prefix + notes[i]);
    if (notes.size() > kMaxNotes)
        PrintNote(prefix + "and " + std::to_string(notes.size() - kMaxNotes) + " more");
}

Answer Ask(const std::string &question)
{
    if (::isatty(STDIN_FILENO) != 1) return Answer::kNobodyThere;
    static_cast<void>(std::fflush(stdout));
    std::fputs((Printable(question) + " [y/N] ").c_str(), stderr);
    std::string line;
    std::getline(std::cin, line);
    return line == "y" || line == "Y" || line == "yes" ? Answer::kYes : Answer::kNo;
}

std::string Written(const StreamPrinter &print)
{
    char *text = nullptr;
    std::size_t size = 0;
    FILE *const stream = ::open_memstream(&text, &size);
    if (stream == nullptr) throw std::bad_alloc();
    const bool isPrinted = print(stream) == 0;
    const bool isWhole = std::fclose(stream) == 0;
    const std::unique_ptr<char, decltype(&std::free)> guard(text, &std::free);
    if (!isWhole) throw std::bad_alloc();
    return isPrinted ? std::string(text, size) : std::string();
}

void FlushOutput()
{
    errno = 0;
    const bool failed = std::fflush(stdout) != 0 || std::ferror(stdout) != 0;
    if (!failed) return;
    const std::string reason = errno != 0 ? std::string(": ") + std::strerror(errno) : "";
    std::clearerr(stdout); // report it once; the rest of the buffer would fail again
    ::__fpurge(stdout);
    throw Failure(kFailed,
                  "cannot write to standard output" + reason +
                      "; what was printed is incomplete, what was to be changed is changed; "
                      "make room, or send it somewhere else");
}

} // namespace tool

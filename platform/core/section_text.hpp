// The text of section files: the one reader that says what a line is, and the one writer that puts
// texts so that this reader gives them back equal. Works on memory; opens nothing.
#ifndef SECTION_TEXT_HPP
#define SECTION_TEXT_HPP

#include <string_view>

#include "base/bytes.hpp"
#include "sz_hash.hpp"

namespace zevo {

// A name, key or value as it stands in a line, without its quotes.
struct Word {
    std::string_view raw;
    bool hasEscapes = false;
};

bool IsWord(const Word &word, std::string_view text) noexcept;

// Appends what the word means; false without memory.
bool AppendMeaning(Bytes &out, const Word &word) noexcept;

enum class LineKind {
    kHeader,
    kPair,
    kComment,
    kBlank,
    kJunk, // nobody's: passed over by readers, kept by writers
};

struct Line {
    LineKind kind = LineKind::kJunk;
    std::string_view whole; // with its "\n", which the last line of a file may lack
    Word name;              // of a header, or the key of a pair
    Word value;             // of a pair
};

// What the first line of the text is.
Line ReadLine(std::string_view text) noexcept;

// Whether the line, which begins with a bracket, is the header of that section.
bool IsHeaderOf(std::string_view text, std::string_view name) noexcept;

// Puts the pairs among the lines of one section into the hash; false without memory.
bool TakePairs(std::string_view lines, VLIB_SZ_HASH &hash) noexcept;

// Walks over the lines of a file that was read whole.
class Reader {
public:
    explicit Reader(std::string_view text) noexcept : text_(text) {}

    // The next line; false at the end.
    bool Next(Line &line) noexcept;
    // The next header, without a look at the lines before it; false at the end.
    bool NextHeader(Line &line) noexcept;
    // The same with those lines.
    bool NextHeader(Line &line, std::string_view &before) noexcept;

private:
    std::string_view text_;
    size_t at_ = 0;
};

// The writer: false without memory.
bool EndLine(Bytes &out) noexcept; // ends a last line that is not ended
bool WriteHeader(Bytes &out, std::string_view name) noexcept;
bool WritePairs(Bytes &out, const VLIB_SZ_HASH &hash) noexcept;

} // namespace zevo

#endif // SECTION_TEXT_HPP

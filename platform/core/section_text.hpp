// The text of section files: one reader, which says what a line is, and one writer, whose texts this
// reader gives back equal. Both work in memory and open no file.
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

// Whether the word stands for that text.
bool IsWord(const Word &word, std::string_view text) noexcept;

// Appends what the word stands for.
Fault AppendMeaning(Bytes &out, const Word &word) noexcept;

enum class LineKind {
    kHeader,
    kPair,
    kComment,
    kOther, // blank, or none of these: readers pass over it, writers keep it
};

struct Line {
    LineKind kind = LineKind::kOther;
    std::string_view whole; // with its "\n", which the last line of a file may lack
    Word name;              // of a header, or the key of a pair
    Word value;             // of a pair
};

// Reads the first line of the text.
Line ReadLine(std::string_view text) noexcept;

// Puts all pairs among the lines into the hash.
Fault TakePairs(std::string_view lines, VLIB_SZ_HASH &hash) noexcept;

// Walks over the lines of a text.
class Reader {
public:
    explicit Reader(std::string_view text) noexcept : text_(text) {}

    // The next line; false at the end.
    bool Next(Line &line) noexcept;
    // The next header, and in before all lines that were passed over; false at the end.
    bool NextHeader(Line &line, std::string_view &before) noexcept;

private:
    std::string_view text_;
    size_t at_ = 0;
};

// The writer.
Fault WriteHeader(Bytes &out, std::string_view name) noexcept;
Fault WritePairs(Bytes &out, const VLIB_SZ_HASH &hash) noexcept;

} // namespace zevo

#endif // SECTION_TEXT_HPP

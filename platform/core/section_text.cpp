// The text of section files. The first byte of a line decides what it may be: ';' and '#' begin a
// comment, '[' begins a header, any other byte a pair. A word that begins with a quote ends at the
// next unescaped quote; any other is taken as it stands, less the blanks around it. The writer quotes
// exactly the texts that would not come back equal, and those that a terminal or an editor would
// mangle.
#include "section_text.hpp"

#include <algorithm>

namespace zevo {
namespace {

bool IsBlank(char byte) noexcept
{
    return byte == ' ' || byte == '\t' || byte == '\r'; // "\r": files that were edited elsewhere
}

std::string_view TrimFront(std::string_view text) noexcept
{
    while (!text.empty() && IsBlank(text.front()))
        text.remove_prefix(1);
    return text;
}

std::string_view Trim(std::string_view text) noexcept
{
    text = TrimFront(text);
    while (!text.empty() && IsBlank(text.back()))
        text.remove_suffix(1);
    return text;
}

int HexDigit(char digit) noexcept
{
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

// Takes an escape off the front, whose backslash has been taken already. Returns the byte that it
// stands for, or 0 when it is malformed: no text holds a NUL.
char TakeEscape(std::string_view &rest) noexcept
{
    if (rest.empty()) return 0;
    const char letter = rest.front();
    rest.remove_prefix(1);
    switch (letter) {
    case '\\':
    case '"':
        return letter;
    case 'n':
        return '\n';
    case 'r':
        return '\r';
    case 't':
        return '\t';
    case 'x':
        break;
    default:
        return 0;
    }
    if (rest.size() < 2) return 0;
    const int high = HexDigit(rest[0]);
    const int low = HexDigit(rest[1]);
    rest.remove_prefix(2);
    return high < 0 || low < 0 ? '\0' : static_cast<char>(high * 16 + low);
}

char TakeByte(std::string_view &rest) noexcept
{
    const char first = rest.front();
    rest.remove_prefix(1);
    return first == '\\' ? TakeEscape(rest) : first;
}

// Takes a quoted word off the front; false when it is malformed.
bool TakeQuoted(std::string_view &text, Word &word) noexcept
{
    const std::string_view inside = text.substr(1);
    std::string_view rest = inside;
    while (!rest.empty() && rest.front() != '"') {
        if (rest.front() == '\\') word.hasEscapes = true;
        if (TakeByte(rest) == 0) return false;
    }
    if (rest.empty()) return false;
    word.raw = inside.substr(0, inside.size() - rest.size());
    text = rest.substr(1);
    return true;
}

// Takes a word and the end mark behind it off the front; false when they do not stand there.
bool TakeWord(std::string_view &text, char endMark, Word &word) noexcept
{
    std::string_view rest = TrimFront(text);
    if (!rest.empty() && rest.front() == '"') {
        if (!TakeQuoted(rest, word)) return false;
        rest = TrimFront(rest);
        if (rest.empty() || rest.front() != endMark) return false;
        text = rest.substr(1);
        return true;
    }
    const size_t end = rest.find(endMark);
    if (end == rest.npos) return false;
    word.raw = Trim(rest.substr(0, end));
    text = rest.substr(end + 1);
    return !word.raw.empty();
}

// Whether a byte that needs no escape is written as one.
bool HasNeedlessEscape(const Word &word) noexcept
{
    if (!word.hasEscapes) return false;
    for (std::string_view rest = word.raw; !rest.empty();) {
        const bool isByNumber = rest.starts_with("\\x");
        const char byte = TakeByte(rest);
        if (isByNumber && byte >= ' ' && byte <= '~') return true;
    }
    return false;
}

// A section's name has one spelling, but for the quotes, so that a search for its bytes finds every
// header that may be its own. A name with an escape that our writer never writes stands for itself,
// backslashes included.
bool ReadHeader(std::string_view text, Line &line) noexcept
{
    text.remove_prefix(1);
    if (!TakeWord(text, ']', line.name) || !Trim(text).empty()) return false;
    if (HasNeedlessEscape(line.name)) line.name.hasEscapes = false;
    return true;
}

// Whether a text has neither a quote nor anything to trim where a word begins and ends.
bool HasPlainEnds(std::string_view text) noexcept
{
    return static_cast<unsigned char>(text.front()) > ' ' && text.front() != '"' &&
           static_cast<unsigned char>(text.back()) > ' ';
}

bool ReadPair(std::string_view text, Line &line) noexcept
{
    // Most pairs need no closer look: this saves 7 % of a listing of ten transfers.
    const size_t equal = text.find('=');
    if (equal == text.npos || equal == 0) return false;
    const std::string_view key = text.substr(0, equal);
    const std::string_view value = text.substr(equal + 1);
    if (HasPlainEnds(key) && (value.empty() || HasPlainEnds(value))) {
        line.name.raw = key;
        line.value.raw = value;
        return true;
    }
    if (!TakeWord(text, '=', line.name)) return false;
    text = Trim(text);
    if (text.empty() || text.front() != '"') {
        line.value.raw = text;
        return true;
    }
    return TakeQuoted(text, line.value) && text.empty();
}

LineKind Classify(std::string_view text, Line &line) noexcept
{
    if (text.empty()) return LineKind::kOther;
    if (text.front() == ';' || text.front() == '#') return LineKind::kComment;
    if (text.find('\0') != text.npos) return LineKind::kOther;
    if (text.front() == '[') return ReadHeader(text, line) ? LineKind::kHeader : LineKind::kOther;
    return ReadPair(text, line) ? LineKind::kPair : LineKind::kOther;
}

bool Within(std::string_view text, size_t at, unsigned low, unsigned high) noexcept
{
    if (at >= text.size()) return false;
    const unsigned byte = static_cast<unsigned char>(text[at]);
    return low <= byte && byte <= high;
}

// The length in bytes of the character at the front. 0 for a control character, be it of ASCII or
// above, and for a byte that is no UTF-8.
size_t ReadableLength(std::string_view text) noexcept
{
    const unsigned first = static_cast<unsigned char>(text.front());
    if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
    if (first >= 0xC2 && first <= 0xDF)
        return Within(text, 1, first == 0xC2 ? 0xA0 : 0x80, 0xBF) ? 2 : 0;
    if (first >= 0xE0 && first <= 0xEF) {
        const bool fits = Within(text, 1, first == 0xE0 ? 0xA0 : 0x80, first == 0xED ? 0x9F : 0xBF);
        return fits && Within(text, 2, 0x80, 0xBF) ? 3 : 0;
    }
    if (first >= 0xF0 && first <= 0xF4) {
        const bool fits = Within(text, 1, first == 0xF0 ? 0x90 : 0x80, first == 0xF4 ? 0x8F : 0xBF);
        return fits && Within(text, 2, 0x80, 0xBF) && Within(text, 3, 0x80, 0xBF) ? 4 : 0;
    }
    return 0;
}

bool IsReadable(std::string_view text) noexcept
{
    while (!text.empty()) {
        const size_t cb = ReadableLength(text);
        if (cb == 0) return false;
        text.remove_prefix(cb);
    }
    return true;
}

// Whether a text may stand without quotes: a reader would stop at endMark, and take one of notFirst
// at the front for something else.
bool IsPlain(std::string_view text, char endMark, std::string_view notFirst) noexcept
{
    return !text.empty() && text.front() != ' ' && text.back() != ' ' &&
           notFirst.find(text.front()) == notFirst.npos && text.find(endMark) == text.npos &&
           IsReadable(text);
}

// The writers below write to memory that is large enough and return where they stopped. A byte takes
// at most four, and a word two quotes.
constexpr size_t kMaxEscapeBytes = 4;
constexpr size_t kQuotes = 2;

char *WriteEscape(char byte, char *pTo) noexcept
{
    constexpr std::string_view kBytes = "\n\r\t\"\\";
    constexpr char kLetters[] = "nrt\"\\";
    constexpr char kDigits[] = "0123456789ABCDEF";
    const size_t known = kBytes.find(byte);
    *pTo++ = '\\';
    if (known != kBytes.npos) {
        *pTo++ = kLetters[known];
        return pTo;
    }
    const unsigned value = static_cast<unsigned char>(byte);
    *pTo++ = 'x';
    *pTo++ = kDigits[value >> 4];
    *pTo++ = kDigits[value & 15];
    return pTo;
}

char *WriteWord(std::string_view text, bool isPlain, char *pTo) noexcept
{
    if (isPlain) return pTo + text.copy(pTo, text.size());
    *pTo++ = '"';
    while (!text.empty()) {
        const char first = text.front();
        const size_t cb = first == '"' || first == '\\' ? 0 : ReadableLength(text);
        pTo = cb == 0 ? WriteEscape(first, pTo) : pTo + text.copy(pTo, cb);
        text.remove_prefix(cb == 0 ? 1 : cb);
    }
    *pTo++ = '"';
    return pTo;
}

// Writes the bytes that a quoted text stands for and returns their number, which is never larger than
// the text's own: pTo may be where the text begins.
size_t Decode(std::string_view quoted, char *pTo) noexcept
{
    char *pNext = pTo;
    while (!quoted.empty())
        *pNext++ = TakeByte(quoted);
    return static_cast<size_t>(pNext - pTo);
}

char *Changeable(std::string_view text) noexcept
{
    return const_cast<char *>(text.data());
}

// Gives a word of a text that may be changed its meaning and a NUL behind it, where it stands.
std::string_view DecodeInPlace(const Word &word) noexcept
{
    char *const pText = Changeable(word.raw);
    const size_t cb = word.hasEscapes ? Decode(word.raw, pText) : word.raw.size();
    pText[cb] = '\0';
    return {pText, cb};
}

// Takes the first line of a text that may be changed, if it begins as the hash expects and its value
// needs no closer look. Returns its length, or 0.
size_t TakeExpected(std::string_view text, VLIB_SZ_HASH &hash, Fault &fault) noexcept
{
    const std::string_view expected = hash.ExpectedLine();
    if (expected.empty() || !text.starts_with(expected)) return 0;
    const size_t end = std::min(text.find('\n', expected.size()), text.size());
    const std::string_view value = text.substr(expected.size(), end - expected.size());
    if (!value.empty() && !HasPlainEnds(value)) return 0;
    char *const szKey = Changeable(text);
    char *const szValue = szKey + expected.size();
    szValue[-1] = '\0';
    szValue[value.size()] = '\0';
    fault = hash.SetExpected({szKey, expected.size() - 1}, szValue, value.size());
    return end + 1;
}

} // namespace

bool IsWord(const Word &word, std::string_view text) noexcept
{
    if (!word.hasEscapes) return word.raw == text;
    std::string_view rest = word.raw;
    while (!rest.empty() && !text.empty()) {
        if (TakeByte(rest) != text.front()) return false;
        text.remove_prefix(1);
    }
    return rest.empty() && text.empty();
}

Fault AppendMeaning(Bytes &out, const Word &word) noexcept
{
    if (!word.hasEscapes) return out.Append(word.raw);
    if (const Fault fault = out.Reserve(word.raw.size())) return fault;
    out.Grow(Decode(word.raw, out.end()));
    return kNoFault;
}

Line ReadLine(std::string_view text) noexcept
{
    const size_t end = text.find('\n');
    Line line;
    line.whole = text.substr(0, end == text.npos ? end : end + 1);
    line.kind = Classify(text.substr(0, end), line);
    return line;
}

bool Reader::Next(Line &line) noexcept
{
    if (at_ == text_.size()) return false;
    line = ReadLine(text_.substr(at_));
    at_ += line.whole.size();
    return true;
}

// Searches for brackets, which are rarer than lines, and then looks whether they begin one.
bool Reader::NextHeader(Line &line, std::string_view &before) noexcept
{
    const size_t from = at_;
    for (size_t bracket; (bracket = text_.find('[', at_)) != text_.npos;) {
        const bool beginsLine = bracket == 0 || text_[bracket - 1] == '\n';
        line = ReadLine(text_.substr(bracket)); // to its end: a stranger's line may be all brackets
        at_ = bracket + line.whole.size();
        if (!beginsLine || line.kind != LineKind::kHeader) continue;
        before = text_.substr(from, bracket - from);
        return true;
    }
    at_ = text_.size();
    before = text_.substr(from);
    return false;
}

// The hash gets one copy of all lines. Each key and value stays where it stands in that copy, and the
// NUL behind it takes the place of the byte that ended it.
Fault TakePairs(std::string_view lines, VLIB_SZ_HASH &hash) noexcept
{
    char *const pLines = hash.Allocate(lines.size() + 1); // the last line may lack its end
    if (pLines == nullptr) return kNoMemory;
    lines.copy(pLines, lines.size());
    const std::string_view text(pLines, lines.size());
    const bool hasNul = text.find('\0') != text.npos; // no pair stands in such a line
    Fault fault;
    for (size_t at = 0; at < text.size() && !fault;) {
        const size_t cbExpected = hasNul ? 0 : TakeExpected(text.substr(at), hash, fault);
        at += cbExpected;
        if (cbExpected != 0) continue;
        const Line line = ReadLine(text.substr(at));
        at += line.whole.size();
        if (line.kind != LineKind::kPair) continue;
        const std::string_view key = DecodeInPlace(line.name);
        const std::string_view value = DecodeInPlace(line.value);
        fault = hash.SetAllocated(key, Changeable(value), value.size());
    }
    return fault;
}

Fault WriteHeader(Bytes &out, std::string_view name) noexcept
{
    constexpr size_t kMarks = 3; // the brackets and the end of the line
    if (const Fault fault = out.Reserve(name.size() * kMaxEscapeBytes + kQuotes + kMarks))
        return fault;
    char *pEnd = out.end();
    *pEnd++ = '[';
    pEnd = WriteWord(name, IsPlain(name, ']', "\""), pEnd);
    *pEnd++ = ']';
    *pEnd++ = '\n';
    out.Grow(static_cast<size_t>(pEnd - out.end()));
    return kNoFault;
}

Fault WritePairs(Bytes &out, const VLIB_SZ_HASH &hash) noexcept
{
    constexpr size_t kMarks = 2; // '=' and the end of the line
    for (const Pair &pair : hash.pairs()) {
        const std::string_view key = pair.key;
        const std::string_view value = pair.szValue;
        const size_t cbMax = (key.size() + value.size()) * kMaxEscapeBytes + 2 * kQuotes + kMarks;
        if (const Fault fault = out.Reserve(cbMax)) return fault;
        char *pEnd = WriteWord(key, IsPlain(key, '=', "\"[;#"), out.end());
        *pEnd++ = '=';
        pEnd = WriteWord(value, value.empty() || IsPlain(value, '\0', "\""), pEnd);
        *pEnd++ = '\n';
        out.Grow(static_cast<size_t>(pEnd - out.end()));
    }
    return kNoFault;
}

} // namespace zevo

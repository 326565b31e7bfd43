// The text of section files. A line is read by the first byte that decides: ';' or '#' a comment,
// '[' a header or junk, anything else a pair, a blank line or junk. A text that begins with a quote
// ends at the next unescaped one; any other is taken as it stands, less the blanks around it. The
// writer follows from that: it quotes exactly the texts that would not come back equal, and those a
// terminal or an editor would mangle.
#include "section_text.hpp"

#include <algorithm>
#include <array>
#include <cstring>

namespace zevo {
namespace {

constexpr std::string_view kBlanks = " \t\r"; // "\r": files that were edited elsewhere

std::string_view TrimFront(std::string_view text) noexcept
{
    const size_t first = text.find_first_not_of(kBlanks);
    return first == text.npos ? std::string_view() : text.substr(first);
}

std::string_view Trim(std::string_view text) noexcept
{
    const std::string_view rest = TrimFront(text);
    return rest.substr(0, rest.find_last_not_of(kBlanks) + 1);
}

int HexDigit(char digit) noexcept
{
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

// The byte that an escape stands for, taken off the front behind its backslash; 0 for no escape:
// texts hold no NUL.
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

// Whether a byte that needs none is written as an escape.
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

// A section's name has one spelling, but for the quotes: who looks for one need look only where the
// name's bytes stand. A name with an escape that none of ours has is another's and means itself.
bool ReadHeader(std::string_view text, Line &line) noexcept
{
    text.remove_prefix(1);
    if (!TakeWord(text, ']', line.name) || !Trim(text).empty()) return false;
    if (HasNeedlessEscape(line.name)) line.name.hasEscapes = false;
    return true;
}

bool ReadPair(std::string_view text, Line &line) noexcept
{
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
    if (Trim(text).empty()) return LineKind::kBlank;
    if (text.front() == ';' || text.front() == '#') return LineKind::kComment;
    if (text.find('\0') != text.npos) return LineKind::kJunk;
    if (text.front() == '[') return ReadHeader(text, line) ? LineKind::kHeader : LineKind::kJunk;
    return ReadPair(text, line) ? LineKind::kPair : LineKind::kJunk;
}

bool Within(std::string_view text, size_t at, unsigned low, unsigned high) noexcept
{
    if (at >= text.size()) return false;
    const unsigned byte = static_cast<unsigned char>(text[at]);
    return low <= byte && byte <= high;
}

// The length of the character at the front when it is fit to be seen, else 0: control characters,
// those above ASCII included, and bytes that are no UTF-8.
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

// Copies eight characters. false when one of them is beyond ASCII, for control, or the mark.
inline bool CopyEight(const char *pFrom, char mark, char *pTo) noexcept
{
    constexpr uint64_t kEach = 0x0101010101010101;
    uint64_t bytes;
    std::memcpy(&bytes, pFrom, sizeof(bytes));
    std::memcpy(pTo, &bytes, sizeof(bytes));
    const uint64_t unlike = bytes ^ kEach * static_cast<unsigned char>(mark);
    const uint64_t odd = bytes | (bytes + kEach) | (bytes - kEach * ' ') | (unlike - kEach);
    return (odd & kEach * 0x80) == 0;
}

// Copies a text of which nothing is beyond printable ASCII, nor the mark. Most are like that; false
// for any other, which is looked at by the rules.
inline bool CopySimple(std::string_view text, char mark, char *pTo) noexcept
{
    constexpr size_t kStep = 8;
    if (text.size() < kStep) {
        for (const char byte : text) {
            if (byte < ' ' || byte > '~' || byte == mark) return false;
            *pTo++ = byte;
        }
        return true;
    }
    for (size_t i = 0; i + kStep < text.size(); i += kStep)
        if (!CopyEight(text.data() + i, mark, pTo + i)) return false;
    const size_t last = text.size() - kStep;
    return CopyEight(text.data() + last, mark, pTo + last);
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

// What a text must not begin with that stands without quotes.
constexpr std::string_view kNotFirstOfKey = "\"[;#";
constexpr std::string_view kNotFirstOfValue = "\"";

bool HasPlainEnds(std::string_view text, std::string_view notFirst) noexcept
{
    if (text.empty() || text.front() == ' ' || text.back() == ' ') return false;
    for (const char first : notFirst)
        if (text.front() == first) return false;
    return true;
}

// Whether a text may stand without quotes: endMark would end it.
bool IsPlain(std::string_view text, char endMark, std::string_view notFirst) noexcept
{
    return HasPlainEnds(text, notFirst) && text.find(endMark) == text.npos && IsReadable(text);
}

bool WriteEscape(Bytes &out, char byte) noexcept
{
    switch (byte) {
    case '\n':
        return !out.Append("\\n");
    case '\r':
        return !out.Append("\\r");
    case '\t':
        return !out.Append("\\t");
    case '"':
        return !out.Append("\\\"");
    case '\\':
        return !out.Append("\\\\");
    default:
        break;
    }
    constexpr char kDigits[] = "0123456789ABCDEF";
    const unsigned value = static_cast<unsigned char>(byte);
    const char escape[] = {'\\', 'x', kDigits[value >> 4], kDigits[value & 15]};
    return !out.Append({escape, sizeof(escape)});
}

bool WriteQuoted(Bytes &out, std::string_view text) noexcept
{
    if (out.Append("\"")) return false;
    while (!text.empty()) {
        const char first = text.front();
        const size_t cb = first == '"' || first == '\\' ? 0 : ReadableLength(text);
        const bool written = cb == 0 ? WriteEscape(out, first) : !out.Append(text.substr(0, cb));
        if (!written) return false;
        text.remove_prefix(cb == 0 ? 1 : cb);
    }
    return !out.Append("\"");
}

bool WriteWord(Bytes &out, std::string_view text, bool isPlain) noexcept
{
    return isPlain ? !out.Append(text) : WriteQuoted(out, text);
}

bool WritePair(Bytes &out, std::string_view key, std::string_view value) noexcept
{
    const size_t cbSimple = key.size() + value.size() + 2;
    if (out.Reserve(cbSimple)) return false;
    char *const pKey = out.end();
    char *const pValue = pKey + key.size() + 1;
    if (HasPlainEnds(key, kNotFirstOfKey) && CopySimple(key, '=', pKey) &&
        (value.empty() ||
         (HasPlainEnds(value, kNotFirstOfValue) && CopySimple(value, '\0', pValue)))) {
        pValue[-1] = '=';
        pValue[value.size()] = '\n';
        out.Grow(cbSimple);
        return true;
    }
    const bool plainValue = value.empty() || IsPlain(value, '\0', kNotFirstOfValue);
    return WriteWord(out, key, IsPlain(key, '=', kNotFirstOfKey)) && !out.Append("=") &&
           WriteWord(out, value, plainValue) && !out.Append("\n");
}

// Whether a byte at the end of a word is one that neither is trimmed nor begins a quoted text.
constexpr bool IsInner(char byte) noexcept
{
    return static_cast<unsigned char>(byte) > ' ' && byte != '"';
}

// Whether the value behind a key is neither quoted nor has blanks at its ends.
bool HasPlainValue(const char *pLine, size_t cbKey, size_t cbLine) noexcept
{
    const char *const pValue = pLine + cbKey + 1;
    return pValue == pLine + cbLine ||
           (IsInner(*pValue) && static_cast<unsigned char>(pLine[cbLine - 1]) > ' ');
}

// Takes key and value where they stand, each ended by a NUL, from a line that needs no second look.
// false: nothing has been touched.
bool TakePlainPair(char *pLine, size_t cbLine, std::string_view &key,
                   std::string_view &value) noexcept
{
    const char *const pEqual = static_cast<const char *>(std::memchr(pLine, '=', cbLine));
    if (pEqual == nullptr || pEqual == pLine) return false;
    const char first = *pLine;
    if (!IsInner(first) || first == '[' || first == ';' || first == '#' ||
        static_cast<unsigned char>(pEqual[-1]) <= ' ')
        return false;
    const auto cbKey = static_cast<size_t>(pEqual - pLine);
    if (!HasPlainValue(pLine, cbKey, cbLine)) return false;
    pLine[cbKey] = pLine[cbLine] = '\0';
    key = {pLine, cbKey};
    value = {pLine + cbKey + 1, cbLine - cbKey - 1};
    return true;
}

// By byte: whether it continues a header's plain name.
constexpr std::array<bool, 256> kContinuesName = [] {
    std::array<bool, 256> continues = {};
    for (size_t byte = 0; byte < continues.size(); ++byte)
        continues[byte] = IsInner(static_cast<char>(byte)) && byte != ']';
    return continues;
}();

// A header at the front that has nothing but a plain name, as most do; any other is looked at by the
// rules.
bool TakePlainHeader(std::string_view text, Line &line) noexcept
{
    constexpr size_t kMostName = 64;
    const size_t most = text.size() < kMostName ? text.size() : kMostName;
    size_t i = 1;
    while (i < most && kContinuesName[static_cast<unsigned char>(text[i])])
        ++i;
    if (i == 1 || i + 1 >= most || text[i] != ']' || text[i + 1] != '\n') return false;
    line.kind = LineKind::kHeader;
    line.whole = text.substr(0, i + 2);
    line.name.raw = text.substr(1, i - 1);
    return true;
}

// Writes the bytes that a quoted text stands for, which are no more than its own: pTo may be where it
// begins. Returns how many.
size_t Decode(std::string_view quoted, char *pTo) noexcept
{
    char *pNext = pTo;
    while (!quoted.empty())
        *pNext++ = TakeByte(quoted);
    return static_cast<size_t>(pNext - pTo);
}

// Any line, by the rules, with key and value where they stand; false without memory.
bool TakePair(char *pLine, size_t cbLine, VLIB_SZ_HASH &hash) noexcept
{
    const Line line = ReadLine({pLine, cbLine});
    if (line.kind != LineKind::kPair) return true;
    const auto settle = [pLine, cbLine](const Word &word, size_t &cb) {
        cb = word.raw.size();
        char *const pText =
            pLine + (cb == 0 ? cbLine : static_cast<size_t>(word.raw.data() - pLine));
        if (word.hasEscapes) cb = Decode(word.raw, pText);
        pText[cb] = '\0';
        return pText;
    };
    size_t cbKey = 0;
    size_t cbValue = 0;
    const char *const szKey = settle(line.name, cbKey);
    char *const szValue = settle(line.value, cbValue);
    return hash.Adopt({szKey, cbKey}, szValue, cbValue);
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

bool AppendMeaning(Bytes &out, const Word &word) noexcept
{
    if (!word.hasEscapes) return !out.Append(word.raw);
    if (out.Reserve(word.raw.size())) return false;
    out.Grow(Decode(word.raw, out.end()));
    return true;
}

Line ReadLine(std::string_view text) noexcept
{
    Line plain;
    if (!text.empty() && text.front() == '[' && TakePlainHeader(text, plain)) return plain;
    const size_t end = text.find('\n');
    Line line;
    line.whole = text.substr(0, end == text.npos ? end : end + 1);
    line.kind = Classify(text.substr(0, end), line);
    return line;
}

bool IsHeaderOf(std::string_view text, std::string_view name) noexcept
{
    // Without a quote the name stands as it is: most others differ within their first bytes.
    const bool isBare = text.size() > 1 && IsInner(text[1]);
    if (isBare && text.compare(1, name.size(), name) != 0) return false;
    Line line;
    if (TakePlainHeader(text, line)) return line.name.raw.size() == name.size() && isBare;
    line = ReadLine(text);
    return line.kind == LineKind::kHeader && IsWord(line.name, name);
}

bool Reader::Next(Line &line) noexcept
{
    if (at_ == text_.size()) return false;
    line = ReadLine(text_.substr(at_));
    at_ += line.whole.size();
    return true;
}

// Brackets are rarer than lines: look for them, and then whether they begin one.
bool Reader::NextHeader(Line &line) noexcept
{
    for (;;) {
        const size_t bracket = text_.find('[', at_);
        if (bracket == text_.npos) {
            at_ = text_.size();
            return false;
        }
        at_ = bracket + 1;
        if (bracket != 0 && text_[bracket - 1] != '\n') {
            const size_t end = text_.find('\n', at_); // a stranger's line may be all brackets
            at_ = end == text_.npos ? text_.size() : end + 1;
            continue;
        }
        line = ReadLine(text_.substr(bracket));
        if (line.kind != LineKind::kHeader) continue;
        at_ = bracket + line.whole.size();
        return true;
    }
}

bool Reader::NextHeader(Line &line, std::string_view &before) noexcept
{
    const size_t from = at_;
    const bool isThere = NextHeader(line);
    before = text_.substr(from, at_ - from - (isThere ? line.whole.size() : 0));
    return isThere;
}

// Copies the lines once and takes the texts from the copy. Sections that are read one after the other
// mostly have the same keys in the same order: as long as a section follows the last one's shape, its
// keys need neither be looked for nor compared with each other.
bool TakePairs(std::string_view lines, VLIB_SZ_HASH &hash) noexcept
{
    char *const pLines = hash.Room(lines.size() + Shape::kKeyBytes); // to look beyond the last line
    if (pLines == nullptr) return false;
    lines.copy(pLines, lines.size());
    std::memset(pLines + lines.size(), 0, Shape::kKeyBytes);
    const bool isPlain = lines.find('\0') == lines.npos;
    const bool isFirst = hash.pairs().empty();
    bool isAlike = isPlain && isFirst;
    const Shape::Key *pNext = hash.shape().begin();
    for (size_t at = 0; at < lines.size();) {
        char *const pLine = pLines + at;
        const size_t cbLine = std::min(lines.find('\n', at), lines.size()) - at;
        at += cbLine + 1;
        if (cbLine == 0) continue;
        isAlike = isAlike && pNext != hash.shape().end() && pNext->Begins(pLine, cbLine) &&
                  HasPlainValue(pLine, pNext->cb, cbLine);
        if (isAlike) {
            const size_t cbKey = (pNext++)->cb;
            pLine[cbKey] = pLine[cbLine] = '\0';
            if (!hash.AdoptAlike(pNext[-1], pLine, pLine + cbKey + 1, cbLine - cbKey - 1))
                return false;
            continue;
        }
        std::string_view key;
        std::string_view value;
        if (isPlain && TakePlainPair(pLine, cbLine, key, value)) {
            if (!hash.Adopt(key, pLine + key.size() + 1, value.size())) return false;
        } else if (!TakePair(pLine, cbLine, hash)) {
            return false;
        }
    }
    if (isFirst && !isAlike) hash.NoteShape();
    return true;
}

bool EndLine(Bytes &out) noexcept
{
    return out.size() == 0 || out.view().back() == '\n' || !out.Append("\n");
}

bool WriteHeader(Bytes &out, std::string_view name) noexcept
{
    constexpr size_t kBrackets = 3; // and the end of the line
    if (out.Reserve(name.size() + kBrackets)) return false;
    char *const pName = out.end() + 1;
    if (HasPlainEnds(name, kNotFirstOfValue) && CopySimple(name, ']', pName)) {
        pName[-1] = '[';
        pName[name.size()] = ']';
        pName[name.size() + 1] = '\n';
        out.Grow(name.size() + kBrackets);
        return true;
    }
    return !out.Append("[") && WriteWord(out, name, IsPlain(name, ']', kNotFirstOfValue)) &&
           !out.Append("]\n");
}

bool WritePairs(Bytes &out, const VLIB_SZ_HASH &hash) noexcept
{
    return std::all_of(hash.pairs().begin(), hash.pairs().end(),
                       [&out](const Pair &pair) { return WritePair(out, pair.key, pair.szValue); });
}

} // namespace zevo

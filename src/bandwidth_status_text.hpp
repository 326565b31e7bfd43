// The text of a status section, and the walk over a status file's lines.
#ifndef BANDWIDTH_STATUS_TEXT_HPP
#define BANDWIDTH_STATUS_TEXT_HPP

#include "zevocore.h"
#include "zevocore_file.hpp"
#include "zevocore_scan.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string_view>

namespace bandwidth {

inline bool IsHeader(std::string_view line) noexcept
{
    return ::VLIBCIFileIsSection(line.data(), static_cast<int>(line.size())) != 0;
}

inline bool IsHeaderOf(std::string_view line, const char *szSection) noexcept
{
    return ::VLIBCIFileMatchSection(line.data(), static_cast<int>(line.size()), szSection) == 1;
}

inline bool IsComment(std::string_view line) noexcept
{
    return line.front() == ';' || line.front() == '#';
}

// Walks over the lines of a text, each with its "\n", which the last one may lack. What is a header is
// for the platform to say; of its form only this is known, that plain names stand there as they are.
class Lines {
public:
    explicit Lines(std::string_view text) noexcept : text_(text) {}

    // false at the end.
    bool Next(std::string_view &line) noexcept
    {
        const size_t begin = at_;
        at_ = std::min(text_.find('\n', begin), text_.size() - 1) + 1;
        line = {text_.data() + begin, at_ - begin};
        return at_ != begin;
    }

    // Passes over all lines before the next header of a section, which are most of a file. false at
    // the end.
    bool NextHeaderOf(const char *szSection, std::string_view &line) noexcept
    {
        if (StandsAsItIs(szSection)) return NextLineWith(szSection, line);
        while (Next(line))
            if (IsHeaderOf(line, szSection)) return true;
        return false;
    }

private:
    // Whether the name is in its header byte by byte. Those of transfers are: digits and a hyphen.
    static bool StandsAsItIs(std::string_view name) noexcept
    {
        for (const char byte : name)
            if (byte < ' ' || byte > '~' || byte == '"' || byte == '\\') return false;
        return !name.empty();
    }
    // Only lines that hold the name can be its header: none but those is asked about.
    bool NextLineWith(const char *szSection, std::string_view &line) noexcept
    {
        std::string_view rest = text_.substr(at_);
        bool isThere = false;
        while (!isThere && !rest.empty()) {
            const size_t found = zevo::FindWord(rest, szSection);
            if (found == rest.npos) {
                rest = {};
                break;
            }
            const size_t begin = rest.rfind('\n', found) + 1; // 0 on the first line
            const size_t end = rest.find('\n', found);
            const size_t behind = end == rest.npos ? rest.size() : end + 1;
            line = rest.substr(begin, behind - begin);
            rest.remove_prefix(behind);
            isThere = IsHeaderOf(line, szSection);
        }
        *this = Lines(rest);
        return isThere;
    }

    std::string_view text_;
    size_t at_ = 0;
};

// The text of a section, header and pairs, as the platform spells it.
class SectionText {
public:
    // 0, or the kCompose... result that says why not.
    int Compose(const char *szSection, const VLIB_SZ_HASH *pHash) noexcept
    {
        cookie_io_functions_t sink = {};
        sink.write = &SectionText::Take;
        FILE *const pStream = ::fopencookie(this, "w", sink);
        if (pStream == nullptr) return zevo::kComposeFailed;
        char buffer[kUsualBytes]; // one that libc would have to allocate otherwise
        (void)std::setvbuf(pStream, buffer, _IOFBF, sizeof(buffer));
        const bool written = ::VLIBCFileHash2File(pStream, szSection, pHash, 0) >= 0;
        const bool kept = std::fclose(pStream) == 0 && isWhole_;
        if (!written && isWhole_) return zevo::kComposeRefused;
        return kept ? 0 : zevo::kComposeFailed;
    }
    // Ends a line that somebody before us has left open; false without memory.
    bool StartLine() noexcept { return text_.Append("\n"); }
    std::string_view view() const noexcept { return text_.view(); }

private:
    static constexpr size_t kUsualBytes = 512;

    static ssize_t Take(void *pText, const char *pBytes, size_t cb) noexcept
    {
        auto &text = *static_cast<SectionText *>(pText);
        if (text.text_.Append({pBytes, cb})) return static_cast<ssize_t>(cb);
        text.isWhole_ = false;
        errno = ENOMEM;
        return 0;
    }

    zevo::Bytes text_;
    bool isWhole_ = true; // false without memory
};

} // namespace bandwidth

#endif // BANDWIDTH_STATUS_TEXT_HPP

// The text of a status section, and the walk over a status file's lines.
#ifndef INTERNAL_STATUS_TEXT_HPP
#define INTERNAL_STATUS_TEXT_HPP

#include "base/bytes.hpp"
#include "base/scan.hpp"
#include "zevocore.h"

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

// Walks over the lines of a text, each with its "\n", which the last one may lack. Only the platform
// says which line is a header.
class Lines {
public:
    explicit Lines(std::string_view text) noexcept : text_(text) {}

    // false at the end.
    bool Next(std::string_view &line) noexcept
    {
        const size_t end = text_.find('\n', at_);
        return PassTo(end, line);
    }

    // Passes over the lines before the next header. false at the end.
    bool NextHeader(std::string_view &line) noexcept
    {
        while (NextWith("[", line))
            if (IsHeader(line)) return true;
        return false;
    }
    // Passes over the lines before the next header of a section. false at the end.
    bool NextHeaderOf(const char *szSection, std::string_view &line) noexcept
    {
        const bool isPlain = IsPlain(szSection);
        for (bool isThere = true; isThere;) {
            isThere = isPlain ? NextWith(szSection, line) : Next(line);
            if (isThere && IsHeaderOf(line, szSection)) return true;
        }
        return false;
    }

private:
    // Gives the line from here to its "\n" at end, or to the end of the text, and passes over it.
    bool PassTo(size_t end, std::string_view &line) noexcept
    {
        const size_t begin = at_;
        at_ = end == text_.npos ? text_.size() : end + 1;
        line = text_.substr(begin, at_ - begin);
        return !line.empty();
    }
    // The next line that holds the word.
    bool NextWith(std::string_view word, std::string_view &line) noexcept
    {
        const size_t found = zevo::FindWord(text_.substr(at_), word);
        if (found == text_.npos) return false;
        const size_t end = text_.find('\n', at_ + found);
        const size_t newline = text_.rfind('\n', at_ + found);
        at_ = std::max(at_, newline == text_.npos ? 0 : newline + 1);
        return PassTo(end, line);
    }
    // Whether the platform writes the name into its header as it is: then only lines that hold it
    // need to be asked about. The names of transfers are digits and a hyphen.
    static bool IsPlain(std::string_view name) noexcept
    {
        return !name.empty() && std::all_of(name.begin(), name.end(), [](char byte) {
            return byte >= ' ' && byte <= '~' && byte != '"' && byte != '\\';
        });
    }

    std::string_view text_;
    size_t at_ = 0;
};

// The text of a section, header and pairs, as the platform spells it.
class SectionText {
public:
    // kRecorded when the platform refuses the section.
    zevo::Fault Compose(const char *szSection, const VLIB_SZ_HASH *pHash) noexcept
    {
        cookie_io_functions_t sink = {};
        sink.write = &SectionText::OnWrite;
        FILE *const pStream = ::fopencookie(this, "w", sink);
        if (pStream == nullptr) return zevo::kNoMemory;
        char buffer[kUsualBytes]; // else libc allocates one
        (void)std::setvbuf(pStream, buffer, _IOFBF, sizeof(buffer));
        const bool isWritten = ::VLIBCFileHash2File(pStream, szSection, pHash, 0) >= 0;
        const bool isClosed = std::fclose(pStream) == 0;
        if (fault_) return fault_;
        return !isWritten ? zevo::kRecorded : isClosed ? zevo::kNoFault : zevo::kNoMemory;
    }
    // Ends a line that another writer has left open.
    zevo::Fault StartLine() noexcept { return text_.Append("\n"); }
    std::string_view view() const noexcept { return text_.view(); }

private:
    static constexpr size_t kUsualBytes = 512;

    static ssize_t OnWrite(void *pText, const char *pBytes, size_t cb) noexcept
    {
        auto &text = *static_cast<SectionText *>(pText);
        text.fault_ = text.text_.Append(std::string_view(pBytes, cb));
        if (!text.fault_) return static_cast<ssize_t>(cb);
        errno = ENOMEM;
        return 0;
    }

    zevo::Bytes text_;
    zevo::Fault fault_;
};

} // namespace bandwidth

#endif // INTERNAL_STATUS_TEXT_HPP

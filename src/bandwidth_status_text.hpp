// The text of a status section, and the walk over a status file's lines.
#ifndef BANDWIDTH_STATUS_TEXT_HPP
#define BANDWIDTH_STATUS_TEXT_HPP

#include "zevocore.h"
#include "zevocore_file.hpp"
#include "zevocore_scan.hpp"

#include <cstdio>
#include <cstdlib>
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

// Walks over the lines of a text, each with its "\n", which the last one may lack.
class Lines {
public:
    explicit Lines(std::string_view text) noexcept : text_(text), ends_(text) {}

    // false at the end.
    bool Next(std::string_view &line) noexcept
    {
        if (at_ >= text_.size()) return false;
        const size_t end = ends_.Next();
        line = {text_.data() + at_, end - at_ + (end < text_.size() ? 1 : 0)};
        at_ = end + 1;
        return true;
    }

    // Passes over all lines before the next header of a section, which are most of a file: what it
    // needs is kept out of memory. false at the end.
    bool NextHeaderOf(const char *szSection, std::string_view &line) noexcept
    {
        Lines here = *this;
        bool isThere = false;
        for (std::string_view next; !isThere && here.Next(next); line = next)
            isThere = IsHeaderOf(next, szSection);
        *this = here;
        return isThere;
    }

private:
    std::string_view text_;
    zevo::LineEnds ends_;
    size_t at_ = 0;
};

// The text of a section, header and pairs, as the platform spells it.
class SectionText {
public:
    // 0, or the kCompose... result that says why not.
    int Compose(const char *szSection, const VLIB_SZ_HASH *pHash) noexcept
    {
        char *pText = nullptr;
        size_t cbText = 0;
        FILE *const pStream = ::open_memstream(&pText, &cbText);
        if (pStream == nullptr) return zevo::kComposeFailed;
        const bool written = ::VLIBCFileHash2File(pStream, szSection, pHash, 0) >= 0;
        // Without memory for the last of it the stream closes well, and leaves no text.
        const bool kept =
            std::fclose(pStream) == 0 && pText != nullptr && text_.Append({pText, cbText});
        std::free(pText);
        if (!written) return zevo::kComposeRefused;
        return kept ? 0 : zevo::kComposeFailed;
    }
    // Ends a line that somebody before us has left open; false without memory.
    bool StartLine() noexcept { return text_.Append("\n"); }
    std::string_view view() const noexcept { return text_.view(); }

private:
    zevo::Bytes text_;
};

} // namespace bandwidth

#endif // BANDWIDTH_STATUS_TEXT_HPP

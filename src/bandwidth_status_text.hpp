// The text of a status section, and the walk over a status file's lines.
#ifndef BANDWIDTH_STATUS_TEXT_HPP
#define BANDWIDTH_STATUS_TEXT_HPP

#include "zevocore.h"
#include "zevocore_file.hpp"

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace bandwidth {

// Cuts the next line off a text, its "\n" included.
inline std::string_view CutLine(std::string_view &text) noexcept
{
    const size_t cbLine = text.find('\n');
    const std::string_view line = text.substr(0, cbLine == text.npos ? cbLine : cbLine + 1);
    text.remove_prefix(line.size());
    return line;
}

enum class Line { kHeader, kOurHeader, kOther };

inline Line Recognise(std::string_view line, const char *szSection) noexcept
{
    const int cbLine = static_cast<int>(line.size());
    if (::VLIBCIFileIsSection(line.data(), cbLine) == 0) return Line::kOther;
    return ::VLIBCIFileMatchSection(line.data(), cbLine, szSection) == 1 ? Line::kOurHeader
                                                                         : Line::kHeader;
}

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

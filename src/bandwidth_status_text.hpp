// The text of a status section, and the walk over a status file's lines.
#ifndef BANDWIDTH_STATUS_TEXT_HPP
#define BANDWIDTH_STATUS_TEXT_HPP

#include "zevocore.h"
#include "zevocore_file.hpp"

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

// Appends a section, header and pairs, as the platform spells it; false without memory.
bool AppendSection(zevo::Bytes &out, const char *szSection, const VLIB_SZ_HASH *pHash) noexcept;

} // namespace bandwidth

#endif // BANDWIDTH_STATUS_TEXT_HPP

// Writing a log line. Names of protocols, sections and files come from files that strangers write: what
// could end a line early, or move a terminal's cursor, is written as an escape.

#include "internal/frame.hpp"

#include <cstdarg>

namespace bandwidth {

namespace {

constexpr size_t kMaxLineBytes = 1024; // with the NUL

bool IsPrintable(char byte) noexcept
{
    return byte >= ' ' && byte <= '~';
}

// Escapes the text into the line, which is cut where it is full. The format's own "\n" stays.
void Escape(const char *szText, bool endsLine, char (&szLine)[kMaxLineBytes]) noexcept
{
    constexpr size_t kEscapeBytes = 4;
    size_t at = 0;
    for (; *szText != '\0' && at + kEscapeBytes < kMaxLineBytes; ++szText) {
        if (IsPrintable(*szText) || (endsLine && szText[0] == '\n' && szText[1] == '\0'))
            szLine[at++] = *szText;
        else
            at += static_cast<size_t>(std::snprintf(szLine + at, kMaxLineBytes - at, "\\x%02X",
                                                    static_cast<unsigned char>(*szText)));
    }
    szLine[at] = '\0';
}

} // namespace

void LogLine(Site site, const char *szFormat, ...) noexcept
{
    char szText[kMaxLineBytes];
    const int cbPlace = std::snprintf(szText, sizeof(szText), "%s:%d ", site.szFile, site.line);
    va_list args;
    va_start(args, szFormat);
    (void)std::vsnprintf(szText + cbPlace, sizeof(szText) - static_cast<size_t>(cbPlace), szFormat,
                         args);
    va_end(args);
    char szLine[kMaxLineBytes];
    Escape(szText, std::string_view(szFormat).ends_with('\n'), szLine);
    WriteLog(LOG_ERR, "%s", szLine);
}

} // namespace bandwidth

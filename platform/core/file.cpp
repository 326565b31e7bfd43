// Small operations on one file: whether it exists, making it, and reading a process id from it.
#include <charconv>

#include "base/regular_file.hpp"
#include "platform/internal/frame.hpp"
#include "section_listing.hpp"

namespace zevo {
namespace {

constexpr off_t kMaxPidFileBytes = 48; // an id and some blanks

bool IsBlank(char byte) noexcept
{
    return byte == ' ' || byte == '\t' || byte == '\r' || byte == '\n';
}

// The one process id in a text, 0 when it is anything else.
pid_t PidOf(std::string_view text) noexcept
{
    while (!text.empty() && IsBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && IsBlank(text.back()))
        text.remove_suffix(1);
    pid_t pid = 0;
    const auto [pEnd, error] = std::from_chars(text.data(), text.data() + text.size(), pid);
    const bool isNumber = error == std::errc() && pEnd == text.data() + text.size();
    return isNumber && pid > 1 ? pid : 0;
}

// Whether that error of lstat() means that nothing stands at the path.
bool IsAbsence(int error) noexcept
{
    return error == ENOENT || error == ENOTDIR || error == ENAMETOOLONG || error == ELOOP;
}

} // namespace
} // namespace zevo

using namespace zevo;

int VLIBCFileExist(const char *szPath) noexcept
{
    // Asked more often than anything else, so it is a single system call. It does not look whether the
    // parent directory is a link: opening the file does. If the call fails for want of something, the
    // file counts as there, and opening it tells the reason; a caller takes an absent file for an
    // empty one.
    Listing::End();
    struct stat found = {};
    return szPath != nullptr && (::lstat(szPath, &found) == 0 || !IsAbsence(errno)) ? 1 : 0;
}

int VLIBCFileTouch(const char *szPath) noexcept
{
    if (szPath == nullptr) return ZEVO_FAIL(kBadArgument);
    const CancelScope cancel;
    const Place place(szPath);
    if (const Fault fault = place.fault()) return ZEVO_FAIL(fault);
    if (OpenAt(place.dir(), place.name(), O_WRONLY | O_CREAT | O_EXCL, 0666)) return 0;
    return errno == EEXIST ? 0 : ZEVO_FAIL(kCannotOpen);
}

pid_t VLIBCReadPidFile(const char *szPath) noexcept
{
    if (szPath == nullptr) return 0;
    const CancelScope cancel;
    const Place place(szPath);
    if (place.fault()) return 0;
    const RegularFile file(place, O_RDONLY);
    if (file.fault() || file.stat().st_size > kMaxPidFileBytes) return 0;
    Bytes text;
    return file.ReadWhole(text) ? 0 : PidOf(text.view());
}

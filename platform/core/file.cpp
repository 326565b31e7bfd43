// Small operations on one file: is it there, make it, and the process id that one holds.
#include <climits>

#include "base/regular_file.hpp"
#include "base/write_file.hpp"
#include "platform/internal/frame.hpp"
#include "section_listing.hpp"

namespace zevo {
namespace {

constexpr size_t kPidFileBytes = 48; // an id and some blanks; what is longer is no pid file

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
    int64_t pid = 0;
    for (const char digit : text) {
        if (digit < '0' || digit > '9') return 0;
        pid = pid * 10 + (digit - '0');
        if (pid > INT_MAX) return 0;
    }
    return pid > 1 ? static_cast<pid_t>(pid) : 0;
}

// Whether looking at a path failed because nothing can stand there.
bool IsAbsence(int error) noexcept
{
    return error == ENOENT || error == ENOTDIR || error == ENAMETOOLONG || error == ELOOP;
}

} // namespace
} // namespace zevo

using namespace zevo;

int VLIBCFileExist(const char *szPath) noexcept
{
    // The most frequent question of all, hence one call: a parent directory that is a link is
    // refused by whoever opens the file next. Where it has no answer the file counts as there:
    // whoever opens it next finds out, while one that is not there has nothing to say to anybody.
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
    if (file.fault()) return 0;
    char text[kPidFileBytes];
    size_t size = 0;
    for (ssize_t cb = 1; cb != 0; size += static_cast<size_t>(cb)) { // half an id is another one
        cb = RetryInterrupted([&] {
            return ::pread(file.get(), text + size, sizeof(text) - size, static_cast<off_t>(size));
        });
        if (cb < 0) return 0;
    }
    return size == sizeof(text) ? 0 : PidOf({text, size});
}

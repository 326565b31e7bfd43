#include "descriptor.hpp"

#include <cstring>
#include <string_view>

namespace zevo {

Fd::Fd(int fd) noexcept : fd_(fd)
{
    if (fd_ < 0 || fd_ > STDERR_FILENO) return;
    fd_ = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const KeepErrno keep;
    ::close(fd);
}

Fd OpenAt(int dirFd, const char *szName, int flags, mode_t mode) noexcept
{
    constexpr int kAlways = O_CLOEXEC | O_NOFOLLOW | O_NOCTTY;
    return Fd(RetryInterrupted([&] { return ::openat(dirFd, szName, flags | kAlways, mode); }));
}

Place::Place(const char *szPath) noexcept
{
    const char *const szSlash = std::strrchr(szPath, '/');
    szName_ = szSlash == nullptr ? szPath : szSlash + 1;
    std::string_view parent = ".";
    if (szSlash != nullptr) {
        size_t cbParent = szSlash == szPath ? 1 : static_cast<size_t>(szSlash - szPath);
        while (cbParent > 1 && szPath[cbParent - 1] == '/')
            --cbParent; // the kernel follows a link that has a slash behind it
        parent = {szPath, cbParent};
    }
    char szParent[kPathBytes];
    if (parent.size() >= sizeof(szParent)) {
        errno = ENAMETOOLONG;
        return;
    }
    parent.copy(szParent, parent.size());
    szParent[parent.size()] = '\0';
    dir_ = OpenAt(AT_FDCWD, szParent, O_PATH | O_DIRECTORY);
}

namespace {

bool FindsSame(const Place &place, const struct stat &opened, struct stat &now) noexcept
{
    return ::fstatat(place.dir(), place.name(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
           now.st_dev == opened.st_dev && now.st_ino == opened.st_ino;
}

} // namespace

bool Place::LeadsTo(const struct stat &opened) const noexcept
{
    struct stat now = {};
    return FindsSame(*this, opened, now);
}

// The kernel follows the path first and reads the count afterwards. When somebody takes this name away
// in between, a count of 1 means a name elsewhere. So 1 is believed only when a second look finds the
// file here, too.
nlink_t Place::CountNames(const struct stat &opened) const noexcept
{
    struct stat now = {};
    for (const bool isSecond : {false, true}) {
        if (!FindsSame(*this, opened, now)) return 0;
        if (now.st_nlink != 1 || isSecond) break;
    }
    return now.st_nlink;
}

} // namespace zevo

// Making directories. Each component of the path is opened relative to the one before, so that nobody
// can exchange a part of the path behind our back. A link among the parents is followed: the
// administrator has set it. A link at the last component is no directory.
#include <climits>
#include <cstring>

#include "base/descriptor.hpp"
#include "platform/internal/frame.hpp"
#include "zevosdk.h"

using namespace zevo;

namespace {

constexpr mode_t kUsualMode = 0755;

// The components of a path, one after the other.
class Components {
public:
    explicit Components(const char *szPath) noexcept : szRest_(szPath) { SkipSlashes(); }

    bool AtEnd() const noexcept { return *szRest_ == '\0'; }

    // Takes the next one; false if it is too long to be a name.
    bool Take(char (&szName)[NAME_MAX + 1]) noexcept
    {
        const size_t cb = std::strcspn(szRest_, "/");
        if (cb > NAME_MAX) {
            errno = ENAMETOOLONG;
            return false;
        }
        std::memcpy(szName, szRest_, cb);
        szName[cb] = '\0';
        szRest_ += cb;
        SkipSlashes();
        return true;
    }

private:
    void SkipSlashes() noexcept { szRest_ += std::strspn(szRest_, "/"); }

    const char *szRest_;
};

Fd OpenDirectory(int dirFd, const char *szName, int flags) noexcept
{
    constexpr int kFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    return Fd(RetryInterrupted([&] { return ::openat(dirFd, szName, kFlags | flags); }));
}

// Opens a directory; makes it first where nothing stands, and notes that in made.
Fd Enter(int dirFd, const char *szName, int flags, mode_t mode, bool &made) noexcept
{
    Fd dir = OpenDirectory(dirFd, szName, flags);
    if (dir || errno != ENOENT) return dir;
    made = ::mkdirat(dirFd, szName, mode) == 0;
    if (!made && errno != EEXIST) return dir; // EEXIST: another process was faster
    // All users pass through the parents, whatever the host's creation mask is.
    if (made && mode == kUsualMode && ::fchmodat(dirFd, szName, mode, 0) < 0) return dir;
    return OpenDirectory(dirFd, szName, flags);
}

bool SetOwner(const Fd &dir, uid_t owner, gid_t group) noexcept
{
    if (owner == uid_t(-1) && group == gid_t(-1)) return true;
    return ::fchownat(dir.get(), "", owner, group, AT_EMPTY_PATH) == 0;
}

// Makes the last component, and takes it away again if it cannot be given its owner.
bool MakeLast(int dirFd, const char *szName, uid_t owner, gid_t group, mode_t mode) noexcept
{
    bool made = false;
    const Fd dir = Enter(dirFd, szName, O_NOFOLLOW, mode, made);
    if (!dir) return false;
    if (!made || SetOwner(dir, owner, group)) return true;
    const KeepErrno keep;
    ::unlinkat(dirFd, szName, AT_REMOVEDIR);
    return false;
}

bool MakeAll(const char *szPath, uid_t owner, gid_t group, mode_t mode) noexcept
{
    Fd dir = OpenDirectory(AT_FDCWD, *szPath == '/' ? "/" : ".", 0);
    Components rest(szPath);
    char szName[NAME_MAX + 1];
    while (dir && !rest.AtEnd()) {
        if (!rest.Take(szName)) return false;
        if (rest.AtEnd()) return MakeLast(dir.get(), szName, owner, group, mode);
        bool made = false;
        dir = Enter(dir.get(), szName, 0, kUsualMode, made);
    }
    return static_cast<bool>(dir);
}

} // namespace

int ZEVOFSMkdirP(const char *szPath, int, int, uid_t owner, gid_t group, int mode) noexcept
{
    if (szPath == nullptr || *szPath == '\0') return ZEVO_FAIL(kBadArgument);
    const CancelScope cancel;
    const mode_t wanted = mode == -1 ? kUsualMode : static_cast<mode_t>(mode);
    return MakeAll(szPath, owner, group, wanted) ? 0 : ZEVO_FAIL(kCannotOpen);
}

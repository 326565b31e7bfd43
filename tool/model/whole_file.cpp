// Files that others read at any moment.
#include "model/whole_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/write_file.hpp"

#include "failure.hpp"

namespace tool {

namespace {

constexpr mode_t kNewFileMode = 0644;

} // namespace

void WriteWholeFile(const std::string &path, const std::string &text)
{
    const auto fail = [&path](const std::string &why) {
        const bool forbidden = errno == EACCES || errno == EPERM || errno == EROFS;
        throw Failure(forbidden ? kNotPermitted : kFailed,
                      "cannot write " + path + ": " + why + "; nothing was written");
    };
    const zevo::Place place(path.c_str());
    if (place.fault()) fail(std::strerror(errno));
    struct stat old {};
    const bool exists = ::fstatat(place.dir(), place.name(), &old, AT_SYMLINK_NOFOLLOW) == 0;
    errno = 0;
    if (exists && !S_ISREG(old.st_mode))
        fail("it is no regular file; to write elsewhere redirect standard output");
    zevo::TempFile temp(place);
    const mode_t mode = exists ? old.st_mode & zevo::kPermissionBits : kNewFileMode;
    if (temp.fault() || temp.Write(text) || temp.SetMode(mode) || temp.Sync() || temp.Replace())
        fail(std::strerror(errno));
}

} // namespace tool

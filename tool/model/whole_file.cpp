#include "model/whole_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/regular_file.hpp"
#include "failure.hpp"

namespace tool {

void WriteWholeFile(const std::string &path, const std::string &text)
{
    constexpr mode_t kNewFileMode = 0644;
    const auto fail = [&path](const std::string &why) {
        throw Failure(StatusOf(errno),
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

FileBackup::FileBackup(const std::string &path) : path_(path), place_(path_.c_str())
{
    if (place_.fault() && errno == ENOENT) return;
    const auto fail = [this] {
        const int error = errno;
        throw Failure(StatusOf(error),
                      "no copy of " + path_ + " can be made, to be put back in case: " +
                          std::strerror(error) + "; nothing was changed" +
                          (error == EACCES ? ". Run this command as an administrator (root)" : ""));
    };
    if (place_.fault()) fail();
    const zevo::RegularFile file(place_, O_RDONLY);
    if (file.fault() && errno == ENOENT) return;
    zevo::Bytes text;
    if (file.fault() || file.ReadWhole(text)) fail();
    copy_ = std::make_unique<zevo::TempFile>(place_);
    if (copy_->fault() || copy_->Write(text.view())) fail();
    copy_->TrySetOwner(file.stat().st_uid, file.stat().st_gid);
    if (copy_->SetMode(file.stat().st_mode & zevo::kPermissionBits) || copy_->Sync()) fail();
}

bool FileBackup::PutBack()
{
    if (copy_) return !copy_->Replace();
    return ::unlink(path_.c_str()) == 0 || errno == ENOENT;
}

} // namespace tool

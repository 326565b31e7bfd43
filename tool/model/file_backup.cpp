#include "model/file_backup.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "failure.hpp"

namespace tool {

FileBackup::FileBackup(const std::string &path) : path_(path), place_(path_.c_str())
{
    if (place_.fault() && errno == ENOENT) return;
    const auto fail = [this] {
        const int error = errno;
        const bool isRefused = error == EACCES || error == EPERM || error == EROFS;
        throw Failure(isRefused ? kNotPermitted : kFailed,
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

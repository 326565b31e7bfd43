// Writing: to an open file, to a temporary file that takes a name when it is whole, and a new empty
// file of a given mode. The host's creation mask is neither read nor changed: the mode is set by
// descriptor, before the file has its name.
#ifndef BASE_WRITE_FILE_HPP
#define BASE_WRITE_FILE_HPP

#include <climits>

#include "bytes.hpp"
#include "descriptor.hpp"

namespace zevo {

constexpr mode_t kPermissionBits = 0777; // never set-id or sticky bits

// Writes the whole text.
Fault WriteAll(int fd, std::string_view text) noexcept;

// Appends the text to a file opened with O_APPEND, in one write, so that the appends of several
// processes stand beside each other; a short write is a failure.
Fault AppendOnce(int fd, std::string_view text) noexcept;

// Waits until the file's data are on the disk.
Fault Sync(int fd) noexcept;

// A new file beside the place, readable by its owner alone, named after it with a dot and six random
// letters. It is removed unless it takes the place's name.
class TempFile {
public:
    explicit TempFile(const Place &place) noexcept;
    ~TempFile();
    TempFile(const TempFile &) = delete;
    TempFile &operator=(const TempFile &) = delete;

    Fault fault() const noexcept { return fd_ ? kNoFault : kCannotOpen; }
    const char *name() const noexcept { return szName_; }
    Fault Write(std::string_view text) noexcept;
    Fault Write(Pieces &text) noexcept; // uses the pieces up
    Fault Sync() noexcept { return zevo::Sync(fd_.get()); }
    Fault SetMode(mode_t mode) noexcept;
    // Gives the file to another owner, or only to the group; keeps what the kernel refuses.
    void TrySetOwner(uid_t uid, gid_t gid) noexcept;
    // Starts writing the data to the disk and does not wait.
    void StartSync() noexcept;
    // Takes the place's name, from the file that has it if there is one.
    Fault Replace() noexcept;
    // Takes the place's name; leaves a file that has it (kCannotRename with EEXIST).
    Fault TakeFreeName() noexcept;

private:
    void Make(uint64_t number) noexcept;
    void Remove() noexcept;

    const Place &place_;
    char szName_[NAME_MAX + 1];
    int nNames_ = 0; // tried in vain
    Fd fd_;
    bool hasName_ = false; // that of the place: nothing is left to remove
};

// Makes an empty file of exactly that mode unless something stands there.
Fault MakeFile(const char *szPath, mode_t mode) noexcept;

// Gives a file or directory another name in its directory unless that is taken (EEXIST).
Fault RenameUnlessTaken(int dirFd, const char *szFrom, const char *szTo) noexcept;

// A number for the name of a temporary file. O_EXCL protects the name; the number only has to vary.
uint64_t RandomNumber() noexcept;

} // namespace zevo

#endif // BASE_WRITE_FILE_HPP

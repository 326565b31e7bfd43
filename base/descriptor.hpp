// Descriptors, and files named by their open parent directory. No link is followed at the last two
// components of a path: the directory may be one that strangers write.
#ifndef BASE_DESCRIPTOR_HPP
#define BASE_DESCRIPTOR_HPP

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fault.hpp"
#include "host.hpp"

namespace zevo {

constexpr size_t kPathBytes = 4096; // with the NUL
// A larger file is neither read nor written: it would hold 23 000 transfers, or as many rules.
constexpr size_t kMaxFileBytes = size_t{8} << 20;

// A descriptor of ours: closed on exec, and above 2. In a host that has closed its standard streams
// other code would read and write our file as one of them.
class Fd {
public:
    Fd() noexcept = default;
    explicit Fd(int fd) noexcept;
    Fd(Fd &&other) noexcept : fd_(other.Detach()) {}
    Fd &operator=(Fd &&other) noexcept
    {
        const int fd = other.Detach(); // first, so that an object can be moved to itself
        Close();
        fd_ = fd;
        return *this;
    }
    ~Fd() { Close(); }

    explicit operator bool() const noexcept { return fd_ >= 0; }
    int get() const noexcept { return fd_; }
    // Hands the descriptor over: the caller closes it.
    int Detach() noexcept
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    void Close() noexcept
    {
        const KeepErrno keep;
        if (fd_ >= 0) ::close(fd_); // never retried: the number is free, whatever close() says
        fd_ = -1;
    }

    int fd_ = -1;
};

// Opens a name in a directory (AT_FDCWD: a path) without following a link. Empty, with errno, on
// failure.
Fd OpenAt(int dirFd, const char *szName, int flags, mode_t mode = 0) noexcept;

// A file's name in its open parent directory. The path must outlive the place.
class Place {
public:
    explicit Place(const char *szPath) noexcept;

    // kCannotOpen where there is no such directory.
    Fault fault() const noexcept { return dir_ ? kNoFault : kCannotOpen; }
    int dir() const noexcept { return dir_.get(); }
    const char *name() const noexcept { return szName_; }

    // Whether the place still leads to the file that was opened there. True only if that file has
    // been open all the while: the inode number of a closed file is given to another one.
    bool LeadsTo(const struct stat &opened) const noexcept;
    // How many names the open file has; 0 where the place does not lead to it.
    nlink_t CountNames(const struct stat &opened) const noexcept;

private:
    Fd dir_;
    const char *szName_;
};

} // namespace zevo

#endif // BASE_DESCRIPTOR_HPP

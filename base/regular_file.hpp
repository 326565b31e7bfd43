// Reading a file that a stranger may have planted: a regular file of bounded size, opened without
// following a link and without waiting.
#ifndef BASE_REGULAR_FILE_HPP
#define BASE_REGULAR_FILE_HPP

#include "bytes.hpp"
#include "descriptor.hpp"

namespace zevo {

class RegularFile {
public:
    // flags: O_RDONLY or O_RDWR, with O_APPEND or without; never creates or truncates a file.
    RegularFile(const Place &place, int flags) noexcept;

    // kCannotOpen, also for what is no regular file or too large, or kCannotStat.
    Fault fault() const noexcept { return fault_; }
    int get() const noexcept { return fd_.get(); }
    const struct stat &stat() const noexcept { return stat_; } // as of the opening

    // Appends the whole file to the bytes, up to where it ends by now.
    Fault ReadWhole(Bytes &bytes) const noexcept;

    // Whether the file still has its names and its size, the cbKnown bytes that were read: replacing
    // it takes a name away, appending makes it longer. Does not see that the file was moved away; a
    // look at the path would, and costs more.
    bool IsUnchanged(size_t cbKnown) const noexcept;

private:
    Fault Check() noexcept;

    Fd fd_;
    struct stat stat_ = {};
    Fault fault_;
};

} // namespace zevo

#endif // BASE_REGULAR_FILE_HPP

#include "regular_file.hpp"

namespace zevo {

// O_NONBLOCK: neither a FIFO without a writer nor somebody's lease may hold the host up.
RegularFile::RegularFile(const Place &place, int flags) noexcept
    : fd_(OpenAt(place.dir(), place.name(), flags | O_NONBLOCK)), fault_(Check())
{
    if (fault_) fd_ = Fd();
}

Fault RegularFile::Check() noexcept
{
    if (!fd_) return kCannotOpen;
    if (::fstat(fd_.get(), &stat_) < 0) return kCannotStat;
    if (S_ISREG(stat_.st_mode) && stat_.st_size <= static_cast<off_t>(kMaxFileBytes))
        return kNoFault;
    errno = S_ISDIR(stat_.st_mode) ? EISDIR : S_ISREG(stat_.st_mode) ? EFBIG : EINVAL;
    return kCannotOpen;
}

Fault RegularFile::ReadWhole(Bytes &bytes) const noexcept
{
    const size_t begin = bytes.size();
    const size_t cbExpected = static_cast<size_t>(stat_.st_size);
    for (size_t cbFile = 0; cbFile <= kMaxFileBytes; cbFile = bytes.size() - begin) {
        // One byte more than expected: when it stays free the end has been reached.
        const size_t cbMissing = cbFile < cbExpected ? cbExpected - cbFile : 0;
        if (const Fault fault = bytes.Reserve(cbMissing + 1)) return fault;
        const ssize_t cbRead = RetryInterrupted([&] {
            return ::pread(fd_.get(), bytes.end(), bytes.freeBytes(), static_cast<off_t>(cbFile));
        });
        if (cbRead < 0) return kCannotRead;
        bytes.Grow(static_cast<size_t>(cbRead));
        if (cbRead == 0 || (bytes.freeBytes() > 0 && bytes.size() - begin >= cbExpected))
            return kNoFault;
    }
    errno = EFBIG; // it has grown since it was opened
    return kCannotOpen;
}

bool RegularFile::IsUnchanged(size_t cbKnown) const noexcept
{
    struct stat now = {};
    return ::fstat(fd_.get(), &now) == 0 && now.st_nlink != 0 && now.st_nlink >= stat_.st_nlink &&
           now.st_size == static_cast<off_t>(cbKnown);
}

} // namespace zevo

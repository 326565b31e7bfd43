#include "write_file.hpp"

#include <algorithm>
#include <cstdio>
#include <ctime>

#include <sys/random.h>

namespace zevo {

namespace {

constexpr int kMaxNames = 100; // tried for one temporary file

// Writes all pieces. Their addresses and lengths count down and are of no use afterwards.
Fault WritePieces(int fd, struct iovec *pPiece, size_t count) noexcept
{
    if (count == 0) return kNoFault;
    const FileSizeScope limit;
    while (count > 0) {
        const int nNow = static_cast<int>(std::min(count, size_t{IOV_MAX}));
        const ssize_t cb = RetryInterrupted([&] {
            return nNow == 1 ? ::write(fd, pPiece->iov_base, pPiece->iov_len)
                             : ::writev(fd, pPiece, nNow);
        });
        if (cb <= 0) return kCannotWrite;
        size_t cbWritten = static_cast<size_t>(cb);
        for (; count > 0 && cbWritten >= pPiece->iov_len; ++pPiece, --count)
            cbWritten -= pPiece->iov_len;
        if (cbWritten == 0) continue;
        pPiece->iov_base = static_cast<char *>(pPiece->iov_base) + cbWritten;
        pPiece->iov_len -= cbWritten;
    }
    return kNoFault;
}

Fault CheckSize(size_t cb) noexcept
{
    if (cb <= kMaxFileBytes) return kNoFault;
    errno = EFBIG; // nobody could read it again
    return kCannotWrite;
}

} // namespace

uint64_t RandomNumber() noexcept
{
    uint64_t number = 0;
    if (::getrandom(&number, sizeof(number), GRND_NONBLOCK) == sizeof(number)) return number;
    struct timespec now = {}; // the kernel has no randomness yet, early after start-up
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return (static_cast<uint64_t>(now.tv_nsec) << 20) ^ static_cast<uint64_t>(::getpid());
}

Fault WriteAll(int fd, std::string_view text) noexcept
{
    struct iovec piece = {const_cast<char *>(text.data()), text.size()};
    return WritePieces(fd, &piece, text.empty() ? 0 : 1);
}

Fault AppendOnce(int fd, std::string_view text) noexcept
{
    const FileSizeScope limit;
    const ssize_t cb = RetryInterrupted([&] { return ::write(fd, text.data(), text.size()); });
    return cb == static_cast<ssize_t>(text.size()) ? kNoFault : kCannotWrite;
}

Fault Sync(int fd) noexcept
{
    return RetryInterrupted([&] { return ::fsync(fd); }) == 0 ? kNoFault : kCannotWrite;
}

TempFile::TempFile(const Place &place) noexcept : place_(place)
{
    do
        Make(RandomNumber());
    while (!fd_ && errno == EEXIST && ++nNames_ < kMaxNames);
}

TempFile::~TempFile()
{
    if (fd_ && !hasName_) Remove();
}

void TempFile::Make(uint64_t number) noexcept
{
    constexpr char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    constexpr uint64_t kCount = sizeof(kLetters) - 1;
    constexpr int kLettersUsed = 6;
    char letters[kLettersUsed + 1] = {};
    for (int i = 0; i < kLettersUsed; ++i, number /= kCount)
        letters[i] = kLetters[number % kCount];
    // A name that leaves no room for the dot and the letters loses its end.
    constexpr int kMaxKept = NAME_MAX - 1 - kLettersUsed;
    (void)std::snprintf(szName_, sizeof(szName_), "%.*s.%s", kMaxKept, place_.name(), letters);
    const int fd = RetryInterrupted([&] {
        return ::openat(place_.dir(), szName_,
                        O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0600);
    });
    fd_ = Fd(fd);
    if (fd >= 0 && !fd_) Remove(); // it was made, but there is no descriptor above 2 for it
}

void TempFile::Remove() noexcept
{
    const KeepErrno keep;
    ::unlinkat(place_.dir(), szName_, 0);
}

Fault TempFile::Write(std::string_view text) noexcept
{
    const Fault fault = CheckSize(text.size());
    return fault ? fault : WriteAll(fd_.get(), text);
}

Fault TempFile::Write(Pieces &text) noexcept
{
    const Fault fault = CheckSize(text.size());
    return fault ? fault : WritePieces(fd_.get(), text.begin(), text.count());
}

Fault TempFile::SetMode(mode_t mode) noexcept
{
    return ::fchmod(fd_.get(), mode) == 0 ? kNoFault : kCannotWrite;
}

void TempFile::TrySetOwner(uid_t uid, gid_t gid) noexcept
{
    const KeepErrno keep;
    if (::fchown(fd_.get(), uid, gid) < 0 && ::fchown(fd_.get(), uid_t(-1), gid) < 0) return;
}

void TempFile::StartSync() noexcept
{
    const KeepErrno keep;
    (void)::sync_file_range(fd_.get(), 0, 0, SYNC_FILE_RANGE_WRITE); // only a hint
}

Fault TempFile::Replace() noexcept
{
    hasName_ = ::renameat(place_.dir(), szName_, place_.dir(), place_.name()) == 0;
    return hasName_ ? kNoFault : kCannotRename;
}

Fault TempFile::TakeFreeName() noexcept
{
    const Fault fault = RenameUnlessTaken(place_.dir(), szName_, place_.name());
    hasName_ = !fault;
    return fault;
}

Fault RenameUnlessTaken(int dirFd, const char *szFrom, const char *szTo) noexcept
{
    if (::renameat2(dirFd, szFrom, dirFd, szTo, RENAME_NOREPLACE) == 0) return kNoFault;
    // Some file systems, such as those of other machines, cannot do this but can link files.
    if (errno != EINVAL || ::linkat(dirFd, szFrom, dirFd, szTo, 0) < 0) return kCannotRename;
    const KeepErrno keep;
    ::unlinkat(dirFd, szFrom, 0);
    return kNoFault;
}

Fault MakeFile(const char *szPath, mode_t mode) noexcept
{
    const Place place(szPath);
    if (place.fault()) return place.fault();
    TempFile file(place);
    if (file.fault()) return file.fault();
    if (const Fault fault = file.SetMode(mode)) return fault;
    const Fault fault = file.TakeFreeName();
    return fault && errno != EEXIST ? fault : kNoFault;
}

} // namespace zevo

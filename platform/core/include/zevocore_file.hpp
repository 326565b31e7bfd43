// Careful access to files in places where strangers may write: header-only, so that a caller of
// another platform library compiles it in. No link is followed at a path's last two components,
// nothing blocks on a FIFO or a lease, only regular files of bounded size are read, and a file is
// replaced whole or not at all. Nothing here throws, logs or touches the error slot; guards keep
// errno.
#ifndef ZEVOCORE_FILE_HPP
#define ZEVOCORE_FILE_HPP

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <pthread.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace zevo {

enum FileError : unsigned {
    kFileNoMemory = 0x0200,
    kFileOpen = 0x0900,
    kFileRead = 0x0A00,
    kFileWrite = 0x0B00,
    kFileStat = 0x2700,
    kFileRename = 0x2800,
};

constexpr mode_t kPermissionBits = 0777;            // never set-id or sticky bits
constexpr size_t kMostFileBytes = size_t{64} << 20; // what stands above is nobody's honest file
constexpr int kMostRewriteRetries = 5;              // then the last rename wins
constexpr size_t kPathBytes = 4096;

// How long one call waits for others that are replacing the same file, in all; who takes longer has
// died, or has to start over.
constexpr useconds_t kMostWaitUs = 25'000;
constexpr useconds_t kFirstWaitUs = 100; // each wait is twice as long as the last
constexpr useconds_t kLongestWaitUs = 1'600;

class KeepErrno {
public:
    KeepErrno() noexcept : saved_(errno) {}
    ~KeepErrno() { errno = saved_; }
    KeepErrno(const KeepErrno &) = delete;
    KeepErrno &operator=(const KeepErrno &) = delete;

private:
    int saved_;
};

// Holds off cancellation of the calling thread: unwinding through us would end the host process.
class CancelScope {
public:
    CancelScope() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &saved_); }
    ~CancelScope() { ::pthread_setcancelstate(saved_, nullptr); }
    CancelScope(const CancelScope &) = delete;
    CancelScope &operator=(const CancelScope &) = delete;

private:
    int saved_ = 0;
};

template <class Call> auto RetryInterrupted(Call call) noexcept
{
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR) return result;
    }
}

// A descriptor of ours: closed on exec, and never 0 to 2, which a host may have closed.
class Fd {
public:
    Fd() noexcept = default;
    explicit Fd(int fd) noexcept : fd_(fd)
    {
        if (fd_ < 0 || fd_ > STDERR_FILENO) return;
        fd_ = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        const KeepErrno keep;
        ::close(fd);
    }
    Fd(Fd &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Fd &operator=(Fd &&other) noexcept
    {
        if (this != &other) {
            Close();
            fd_ = other.fd_;
            other.fd_ = -1;
        }
        return *this;
    }
    ~Fd() { Close(); }

    explicit operator bool() const noexcept { return fd_ >= 0; }
    int get() const noexcept { return fd_; }
    // Hands the descriptor over to somebody else who closes it.
    int Release() noexcept
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    void Close() noexcept
    {
        const KeepErrno keep;
        if (fd_ >= 0) ::close(fd_); // never retried: the number is free, whatever close says
        fd_ = -1;
    }

    int fd_ = -1;
};

inline int OpenFd(int dirFd, const char *szName, int flags, mode_t mode) noexcept
{
    return RetryInterrupted(
        [&] { return ::openat(dirFd, szName, flags | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, mode); });
}

inline Fd OpenAt(int dirFd, const char *szName, int flags, mode_t mode = 0) noexcept
{
    return Fd(OpenFd(dirFd, szName, flags, mode));
}

// A file's name in its open parent directory; false when there is no such directory (errno tells).
// The path must outlive the place.
class Place {
public:
    explicit Place(const char *szPath) noexcept
    {
        char szParent[kPathBytes];
        const char *const szSlash = std::strrchr(szPath, '/');
        szName_ = szSlash == nullptr ? szPath : szSlash + 1;
        std::string_view parent = ".";
        if (szSlash != nullptr) {
            size_t cbParent = szSlash == szPath ? 1 : static_cast<size_t>(szSlash - szPath);
            while (cbParent > 1 && szPath[cbParent - 1] == '/')
                --cbParent; // with a slash at its end a link would be followed
            parent = {szPath, cbParent};
        }
        if (parent.size() >= sizeof(szParent)) {
            errno = ENAMETOOLONG;
            return;
        }
        parent.copy(szParent, parent.size());
        szParent[parent.size()] = '\0';
        dir_ = OpenAt(AT_FDCWD, szParent, O_PATH | O_DIRECTORY);
    }

    explicit operator bool() const noexcept { return static_cast<bool>(dir_); }
    int dir() const noexcept { return dir_.get(); }
    const char *name() const noexcept { return szName_; }

private:
    Fd dir_;
    const char *szName_;
};

// Bytes in one growing block; false results mean that memory ran out.
class Bytes {
public:
    Bytes() noexcept = default;
    ~Bytes() { std::free(data_); }
    Bytes(Bytes &&other) noexcept
        : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)),
          capacity_(std::exchange(other.capacity_, 0))
    {
    }
    Bytes &operator=(Bytes &&other) noexcept
    {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        std::swap(capacity_, other.capacity_);
        return *this;
    }

    std::string_view view() const noexcept { return {data_ == nullptr ? "" : data_, size_}; }
    char *begin() noexcept { return data_; }
    size_t size() const noexcept { return size_; }
    char *end() noexcept { return data_ + size_; }
    size_t room() const noexcept { return capacity_ - size_; }
    void Clear() noexcept { size_ = 0; }
    void Grow(size_t cb) noexcept { size_ += cb; }

    bool Reserve(size_t cbMore) noexcept
    {
        if (room() >= cbMore) return true;
        constexpr size_t kFirst = 1000; // what allocators hand out quickly
        size_t cbWanted = capacity_ == 0 ? kFirst : capacity_ * 2;
        if (cbWanted < size_ + cbMore) cbWanted = size_ + cbMore;
        char *const pLarger = static_cast<char *>(std::realloc(data_, cbWanted));
        if (pLarger == nullptr) return false;
        data_ = pLarger;
        capacity_ = cbWanted;
        return true;
    }
    bool Append(std::string_view text) noexcept
    {
        if (text.empty()) return true;
        if (!Reserve(text.size())) return false;
        std::memcpy(end(), text.data(), text.size());
        size_ += text.size();
        return true;
    }

private:
    char *data_ = nullptr;
    size_t size_ = 0;
    size_t capacity_ = 0;
};

// A text made of others that stay where they are until it has been written: what a rewrite keeps of an old
// text is most of it, and need not be copied. false results mean that memory ran out.
class Pieces {
public:
    bool Append(std::string_view text) noexcept
    {
        if (text.empty()) return true;
        size_ += text.size();
        if (text.data() == pEnd_) { // as lines do that follow each other
            begin()[count_ - 1].iov_len += text.size();
        } else {
            if (count_ >= kFew && !MakeRoom()) return false;
            begin()[count_++] = {const_cast<char *>(text.data()), text.size()};
        }
        pEnd_ = text.data() + text.size();
        return true;
    }
    void Clear() noexcept
    {
        many_.Clear();
        count_ = size_ = 0;
        pEnd_ = nullptr;
    }
    size_t size() const noexcept { return size_; }
    struct iovec *begin() noexcept
    {
        return many_.size() == 0 ? few_ : reinterpret_cast<struct iovec *>(many_.begin());
    }
    size_t count() const noexcept { return count_; }

private:
    static constexpr size_t kFew = 4; // what is kept, what is new, what is kept, and one more

    bool MakeRoom() noexcept
    {
        const std::string_view few = {reinterpret_cast<const char *>(few_), sizeof(few_)};
        if (many_.size() == 0 && !many_.Append(few)) return false;
        if (!many_.Reserve(sizeof(struct iovec))) return false;
        many_.Grow(sizeof(struct iovec));
        return true;
    }

    struct iovec few_[kFew];
    Bytes many_; // all of them, once they are more
    size_t count_ = 0;
    size_t size_ = 0;
    const char *pEnd_ = nullptr;
};

// An open regular file. false: code() says why.
class RegularFile {
public:
    // flags: O_RDONLY, O_RDWR, O_APPEND; an existing file is never created anew or cut.
    RegularFile(const Place &place, int flags) noexcept
    {
        // O_NONBLOCK: neither a FIFO without a peer nor somebody's lease may hold the host up.
        fd_ = OpenAt(place.dir(), place.name(), flags | O_NONBLOCK);
        if (!fd_) return;
        if (::fstat(fd_.get(), &stat_) < 0) {
            Refuse(kFileStat);
        } else if (!S_ISREG(stat_.st_mode) || stat_.st_size > static_cast<off_t>(kMostFileBytes)) {
            Refuse(kFileOpen);
            errno = S_ISDIR(stat_.st_mode) ? EISDIR : S_ISREG(stat_.st_mode) ? EFBIG : EINVAL;
        }
    }

    explicit operator bool() const noexcept { return static_cast<bool>(fd_); }
    unsigned code() const noexcept { return code_; }
    int get() const noexcept { return fd_.get(); }
    // Whether nobody has replaced the file, which takes a name from it, nor appended to the cbKnown
    // bytes that were read. A look at the path would also see a file that was moved away, and costs
    // more.
    bool IsUnchanged(size_t cbKnown) const noexcept
    {
        struct stat now = {};
        return ::fstat(fd_.get(), &now) == 0 && now.st_nlink != 0 &&
               now.st_nlink >= stat_.st_nlink && now.st_size == static_cast<off_t>(cbKnown);
    }
    // Hands the descriptor over; the file is closed for this object.
    Fd Release() noexcept { return std::move(fd_); }
    const struct stat &stat() const noexcept { return stat_; }

    // Reads the file from its start, as long as it was when it was opened; 0, or the error code.
    unsigned ReadWhole(Bytes &bytes) const noexcept { return ReadWhole(bytes, stat_.st_size); }

    // The same for a file that may have grown since.
    unsigned ReadWhole(Bytes &bytes, off_t cbFile) const noexcept
    {
        if (cbFile > static_cast<off_t>(kMostFileBytes)) return kFileOpen;
        const size_t cbExpected = static_cast<size_t>(cbFile);
        if (!bytes.Reserve(cbExpected + 1)) return kFileNoMemory; // + 1: some buffer, always
        while (bytes.size() < cbExpected) {
            const ssize_t cbRead = RetryInterrupted([&] {
                return ::pread(fd_.get(), bytes.end(), bytes.room(),
                               static_cast<off_t>(bytes.size()));
            });
            if (cbRead < 0) return kFileRead;
            if (cbRead == 0) break; // somebody has cut it
            bytes.Grow(static_cast<size_t>(cbRead));
        }
        return 0;
    }

private:
    void Refuse(unsigned code) noexcept
    {
        code_ = code;
        fd_ = Fd();
    }

    Fd fd_;
    struct stat stat_ = {};
    unsigned code_ = kFileOpen;
};

// Whether both are the same file, if one of them has been open all the while: inode numbers are given
// anew once a file is closed.
inline bool IsSameFile(const struct stat &a, const struct stat &b) noexcept
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Whether the path still names the open file; what it names is told in now.
inline bool NamesSameFile(const Place &place, const struct stat &opened, struct stat &now) noexcept
{
    return ::fstatat(place.dir(), place.name(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
           IsSameFile(now, opened);
}

// How many names the open file has, 0 where the path is none of them. The kernel follows a path first
// and counts then: a link to a file that lies anywhere may have been taken away between the two. So a
// single name is believed only when a second look finds the path leading there, too.
inline nlink_t CountNames(const Place &place, const struct stat &opened) noexcept
{
    struct stat now = {};
    for (const bool isSecond : {false, true}) {
        if (!NamesSameFile(place, opened, now)) return 0;
        if (now.st_nlink != 1 || isSecond) break;
    }
    return now.st_nlink;
}

// While it lives a write beyond the file-size limit fails with EFBIG instead of ending the process
// by SIGXFSZ. Most processes have no such limit: then nothing is changed.
class FileSizeScope {
public:
    FileSizeScope() noexcept
    {
        struct rlimit limit = {};
        if (::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur == RLIM_INFINITY) return;
        ::sigemptyset(&signal_);
        ::sigaddset(&signal_, SIGXFSZ);
        sigset_t pending;
        ::sigpending(&pending);
        if (::sigismember(&pending, SIGXFSZ) != 0) return; // blocked by the host, and its own
        blocked_ = ::pthread_sigmask(SIG_BLOCK, &signal_, &saved_) == 0;
    }
    ~FileSizeScope()
    {
        if (!blocked_) return;
        const KeepErrno keep;
        const struct timespec kAtOnce = {};
        RetryInterrupted([&] { return ::sigtimedwait(&signal_, nullptr, &kAtOnce); });
        ::pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
    }
    FileSizeScope(const FileSizeScope &) = delete;
    FileSizeScope &operator=(const FileSizeScope &) = delete;

private:
    sigset_t signal_;
    sigset_t saved_;
    bool blocked_ = false;
};

// Writes the pieces, whose addresses and lengths it uses up.
inline bool WriteAll(int fd, struct iovec *pPiece, size_t count) noexcept
{
    if (count == 0) return true;
    const FileSizeScope limit;
    while (count > 0) {
        const int most = static_cast<int>(count < IOV_MAX ? count : IOV_MAX);
        const ssize_t cb = RetryInterrupted([&] {
            return most == 1 ? ::write(fd, pPiece->iov_base, pPiece->iov_len)
                             : ::writev(fd, pPiece, most);
        });
        if (cb <= 0) return false;
        size_t cbWritten = static_cast<size_t>(cb);
        for (; count > 0 && cbWritten >= pPiece->iov_len; ++pPiece, --count)
            cbWritten -= pPiece->iov_len;
        if (cbWritten == 0) continue;
        pPiece->iov_base = static_cast<char *>(pPiece->iov_base) + cbWritten;
        pPiece->iov_len -= cbWritten;
    }
    return true;
}

inline bool WriteAll(int fd, std::string_view text) noexcept
{
    struct iovec piece = {const_cast<char *>(text.data()), text.size()};
    return WriteAll(fd, &piece, text.empty() ? 0 : 1);
}

// One write at the end of a file opened with O_APPEND; a short one is a failure.
inline bool AppendOnce(int fd, std::string_view text) noexcept
{
    const FileSizeScope limit;
    return RetryInterrupted([&] { return ::write(fd, text.data(), text.size()); }) ==
           static_cast<ssize_t>(text.size());
}

// What a temporary file beside the place is called: after it, with a dot and six letters.
class TempName {
public:
    // None, with ENAMETOOLONG, where the place's own name is too long.
    TempName(const Place &place, uint64_t number) noexcept : cbPlace_(std::strlen(place.name()))
    {
        constexpr std::string_view kLetters =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
        constexpr size_t kCount = 6;
        if (cbPlace_ + 1 + kCount >= sizeof(szName_)) {
            szName_[0] = '\0';
            errno = ENAMETOOLONG;
            return;
        }
        std::memcpy(szName_, place.name(), cbPlace_);
        char *pNext = szName_ + cbPlace_;
        *pNext++ = '.';
        for (size_t i = 0; i < kCount; ++i, number /= kLetters.size())
            *pNext++ = kLetters[number % kLetters.size()];
        *pNext = '\0';
    }

    // The one that belongs to an open file whose place is to be taken, in the state in which it was
    // read: inode numbers return, on many file systems at once.
    TempName(const Place &place, const struct stat &replaced) noexcept
        : TempName(place, NumberOf(replaced))
    {
    }

    explicit operator bool() const noexcept { return szName_[0] != '\0'; }
    const char *get() const noexcept { return szName_; }
    const char *suffix() const noexcept { return szName_ + cbPlace_; }

private:
    static uint64_t NumberOf(const struct stat &status) noexcept
    {
        constexpr uint64_t kSpread = 0x9E3779B97F4A7C15; // the golden ratio's
        const uint64_t changed = static_cast<uint64_t>(status.st_ctim.tv_sec) * 1'000'000'000 +
                                 static_cast<uint64_t>(status.st_ctim.tv_nsec);
        return ((status.st_ino * kSpread) ^ changed) * kSpread >> 16;
    }

    char szName_[256];
    size_t cbPlace_;
};

// A new file under such a name; gone unless renamed.
class TempFile {
public:
    // Under a name that nobody can guess.
    explicit TempFile(const Place &place) noexcept
        : TempFile(place, TempName(place, RandomNumber()))
    {
        constexpr int kMostNames = 100;
        for (int tries = 1; tries < kMostNames && !fd_ && errno == EEXIST; ++tries) {
            name_ = TempName(place_, RandomNumber());
            Make();
        }
    }
    // Under the name that belongs to the file whose place it is to take, an open one: only one rewrite
    // of it can have that. false with EEXIST: another has.
    TempFile(const Place &place, const struct stat &replaced) noexcept
        : TempFile(place, TempName(place, replaced))
    {
    }
    ~TempFile()
    {
        if (fd_ && !renamed_ && HasName()) Unlink();
    }
    TempFile(const TempFile &) = delete;
    TempFile &operator=(const TempFile &) = delete;

    explicit operator bool() const noexcept { return static_cast<bool>(fd_); }
    // As the name stands behind that of the place.
    const char *suffix() const noexcept { return name_.suffix(); }
    const TempName &name() const noexcept { return name_; }
    bool Write(std::string_view text) noexcept
    {
        return IsReadable(text.size()) && WriteAll(fd_.get(), text);
    }
    // Uses the pieces up.
    bool Write(Pieces &text) noexcept
    {
        return IsReadable(text.size()) && WriteAll(fd_.get(), text.begin(), text.count());
    }
    bool Sync() noexcept
    {
        return RetryInterrupted([&] { return ::fsync(fd_.get()); }) == 0;
    }
    bool SetMode(mode_t mode) noexcept { return ::fchmod(fd_.get(), mode) == 0; }
    // An ordinary user may not give files away: then it stays his.
    void TryOwner(uid_t uid, gid_t gid) noexcept
    {
        const KeepErrno keep;
        if (::fchown(fd_.get(), uid, gid) < 0 && ::fchown(fd_.get(), uid_t(-1), gid) < 0) return;
    }
    // Puts the data, not yet the name, on its way to the disk; where that cannot be said it is left to
    // the file system.
    void SendOff() noexcept
    {
        const KeepErrno keep;
        (void)::sync_file_range(fd_.get(), 0, 0, SYNC_FILE_RANGE_WRITE);
    }
    // Whether its name is still its own. Who takes very long may lose it to somebody who clears away
    // what the dead have left, and then to another rewrite.
    bool HasName() const noexcept
    {
        constexpr int64_t kLongSeconds = 1;
        struct timespec now = {};
        struct stat ours = {};
        ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
        if (now.tv_sec - made_.tv_sec <= kLongSeconds) return true;
        return ::fstat(fd_.get(), &ours) == 0 && ours.st_nlink != 0;
    }
    bool RenameOver() noexcept
    {
        renamed_ = ::renameat(place_.dir(), name_.get(), place_.dir(), place_.name()) == 0;
        return renamed_;
    }

private:
    TempFile(const Place &place, const TempName &name) noexcept : place_(place), name_(name)
    {
        Make();
    }
    static uint64_t RandomNumber() noexcept
    {
        uint64_t number = 0;
        if (::getrandom(&number, sizeof(number), GRND_NONBLOCK) == sizeof(number)) return number;
        // Early after start-up there is none. O_EXCL protects the name; it only has to vary.
        struct timespec now = {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        return (static_cast<uint64_t>(now.tv_nsec) << 20) ^ static_cast<uint64_t>(::getpid());
    }
    void Make() noexcept
    {
        if (!name_) return;
        ::clock_gettime(CLOCK_MONOTONIC_COARSE, &made_);
        const int fd = OpenFd(place_.dir(), name_.get(), O_WRONLY | O_CREAT | O_EXCL, 0600);
        fd_ = Fd(fd);
        if (fd >= 0 && !fd_) Unlink(); // made, but no descriptor above 2 was left for it
    }
    void Unlink() noexcept
    {
        const KeepErrno keep;
        ::unlinkat(place_.dir(), name_.get(), 0);
    }
    static bool IsReadable(size_t cb) noexcept
    {
        if (cb <= kMostFileBytes) return true;
        errno = EFBIG; // nobody could read it again
        return false;
    }

    const Place &place_;
    TempName name_;
    struct timespec made_ = {};
    Fd fd_;
    bool renamed_ = false;
};

// Waits for whoever has the name under which a file is to be replaced. Nobody is waited for long: he
// may have died, or a stranger may have put something there.
class Patience {
public:
    bool isOver() const noexcept { return waitedUs_ >= kMostWaitUs; }
    bool hasWaited() const noexcept { return waitedUs_ != 0; }
    // Until nobody has the name any more, or that was enough.
    void WaitFor(const Place &place, const TempName &name) noexcept
    {
        struct stat found = {};
        waitedUs_ += kFirstWaitUs; // of itself, that asking has an end
        while (!isOver() && ::fstatat(place.dir(), name.get(), &found, AT_SYMLINK_NOFOLLOW) == 0) {
            if (IsOld(found)) {
                waitedUs_ = kMostWaitUs;
                break;
            }
            (void)::usleep(nextUs_);
            waitedUs_ += nextUs_;
            if (nextUs_ < kLongestWaitUs) nextUs_ *= 2;
        }
    }

private:
    // Seconds are compared first: a stamp may be any number.
    static bool IsOld(const struct stat &found) noexcept
    {
        constexpr int64_t kNsPerUs = 1000;
        constexpr int64_t kNsPerSecond = 1'000'000'000;
        struct timespec now = {};
        ::clock_gettime(CLOCK_REALTIME, &now);
        if (found.st_ctim.tv_sec > now.tv_sec || found.st_ctim.tv_sec < now.tv_sec - 1) return true;
        const int64_t ageNs = (now.tv_sec - found.st_ctim.tv_sec) * kNsPerSecond + now.tv_nsec -
                              found.st_ctim.tv_nsec;
        return ageNs < 0 || ageNs > int64_t{kMostWaitUs} * kNsPerUs;
    }

    useconds_t nextUs_ = kFirstWaitUs;
    useconds_t waitedUs_ = 0;
};

struct RewriteResult {
    int result;    // 1 replaced, 0 nothing to replace (file untouched), -1 failed
    unsigned code; // why it failed
};

constexpr int kComposeFailed = -1;  // for want of memory
constexpr int kComposeRefused = -2; // by somebody who has recorded why

enum class IfBeaten { kWin, kGiveUp };
enum class WhenSynced { kBefore, kAfter }; // the rename

// Puts the new text into the temporary file, fit to take the old one's place. Waiting for the disk
// takes so long that with many writers all would wait for one, and be beaten in the end: who has had
// to wait, or to start over, sees to it only that the data are on their way before the name is.
inline bool FillTemp(TempFile &temp, Pieces &text, mode_t mode, WhenSynced whenSynced) noexcept
{
    if (!temp.Write(text)) return false;
    if (whenSynced == WhenSynced::kBefore && !temp.Sync()) return false;
    if (whenSynced == WhenSynced::kAfter) temp.SendOff();
    return temp.SetMode(mode);
}

// Replaces a file that many processes rewrite without a lock. compose(old, new, state) puts the new
// text together, of pieces of the old one and of what outlives the call, the state that of the old file:
// 1 to write it, 0 to leave the file as it is, or one of the two above.
//
// Of two that have read the same file only the first gets the temporary name that belongs to it; the
// other waits a little and starts over from what stands there then. Who has the name looks, last of
// all, whether what he has read still is in its place: from then to his rename none of those who wait
// puts a file there. But nobody is waited for without end. Who has waited in vain goes on under a
// name of his own; whoever he overtakes finds himself beaten at that last look and starts over. What
// is left is the moment between look and rename of one who is overtaken: then, and after the last
// retry, the later rename wins. Who would rather give up leaves the file as it is (0).
template <class Compose>
RewriteResult RewriteFile(const char *szPath, Compose compose, Patience &patience,
                          IfBeaten ifBeaten = IfBeaten::kWin) noexcept
{
    const Place place(szPath);
    if (!place) return {-1, kFileOpen};
    Bytes oldText;
    Pieces newText;
    for (int attempt = 0;;) {
        const RegularFile in(place, O_RDONLY);
        if (!in) return {-1, in.code()};
        oldText.Clear();
        newText.Clear();
        if (const unsigned code = in.ReadWhole(oldText); code != 0) return {-1, code};
        const int found = compose(oldText.view(), newText, in.stat());
        if (found < 0) return {-1, found == kComposeFailed ? kFileNoMemory : 0u};
        if (found == 0) return {0, 0};
        TempFile temp = patience.isOver() ? TempFile(place) : TempFile(place, in.stat());
        if (!temp) {
            if (errno != EEXIST || patience.isOver()) return {-1, kFileOpen};
            patience.WaitFor(place, temp.name());
            continue;
        }
        const auto whenSynced =
            attempt == 0 && !patience.hasWaited() ? WhenSynced::kBefore : WhenSynced::kAfter;
        if (!FillTemp(temp, newText, in.stat().st_mode & kPermissionBits, whenSynced))
            return {-1, kFileWrite};
        const bool isLost = !temp.HasName();
        const bool isBeaten = isLost || !in.IsUnchanged(oldText.size());
        const bool isLast = attempt == kMostRewriteRetries;
        if (isBeaten && isLast && ifBeaten == IfBeaten::kGiveUp) return {0, 0};
        if (isBeaten && !isLast) {
            ++attempt;
            continue;
        }
        if (isLost || !temp.RenameOver()) return {-1, kFileRename};
        // The file stands: there is no failure to tell any more.
        if (whenSynced == WhenSynced::kAfter) (void)temp.Sync();
        return {1, 0};
    }
}

// Whether what has just been appended to the open file stays: none who read it before is about to put
// another in its place. Such a one is waited for.
inline bool StaysAppended(const Place &place, const struct stat &opened,
                          Patience &patience) noexcept
{
    patience.WaitFor(place, TempName(place, opened));
    struct stat now = {};
    return NamesSameFile(place, opened, now);
}

} // namespace zevo

#endif // ZEVOCORE_FILE_HPP

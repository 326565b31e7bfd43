// Careful access to files in places where strangers may write: header-only, so that a caller of
// another platform library compiles it in. No link is followed at a path's last two components,
// nothing blocks on a FIFO or a lease, only regular files of bounded size are read, and a file is
// replaced whole or not at all. Nothing here throws, logs or touches the error slot; guards keep
// errno.
#ifndef ZEVOCORE_FILE_HPP
#define ZEVOCORE_FILE_HPP

#include <cerrno>
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

// On a file that has just been swapped in: whoever did so has yet to look whether he may keep it there.
// Nobody else builds upon it meanwhile, for what he takes back would come with it. The sticky bit means
// nothing else on a file.
constexpr mode_t kUnsettled = S_ISVTX;
constexpr int kMostWaitsForSettling = 20; // he may have died before he could look
constexpr useconds_t kSettlingUs = 1000;

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

inline Fd OpenAt(int dirFd, const char *szName, int flags, mode_t mode = 0) noexcept
{
    return Fd(RetryInterrupted(
        [&] { return ::openat(dirFd, szName, flags | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, mode); }));
}

// A file's name in its open parent directory; false when there is no such directory (errno tells).
// The path must outlive the place.
class Place {
public:
    explicit Place(const char *szPath) noexcept
    {
        char szParent[kPathBytes] = ".";
        const char *const szSlash = std::strrchr(szPath, '/');
        szName_ = szSlash == nullptr ? szPath : szSlash + 1;
        if (szSlash != nullptr) {
            size_t cbParent = szSlash == szPath ? 1 : static_cast<size_t>(szSlash - szPath);
            while (cbParent > 1 && szPath[cbParent - 1] == '/')
                --cbParent; // with a slash at its end a link would be followed
            if (cbParent >= sizeof(szParent)) {
                errno = ENAMETOOLONG;
                return;
            }
            std::memcpy(szParent, szPath, cbParent);
            szParent[cbParent] = '\0';
        }
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
    size_t size() const noexcept { return size_; }
    char *end() noexcept { return data_ + size_; }
    size_t room() const noexcept { return capacity_ - size_; }
    void Clear() noexcept { size_ = 0; }
    void Grow(size_t cb) noexcept { size_ += cb; }

    bool Reserve(size_t cbMore) noexcept
    {
        if (room() >= cbMore) return true;
        size_t cbWanted = capacity_ < 4096 ? 4096 : capacity_ * 2;
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

// Opens a file that many processes rewrite as soon as its content will stay.
inline RegularFile OpenSettled(const Place &place, int flags) noexcept
{
    for (int waits = 0;; ++waits) {
        RegularFile file(place, flags);
        if (!file || (file.stat().st_mode & kUnsettled) == 0 || waits == kMostWaitsForSettling)
            return file;
        (void)::usleep(kSettlingUs);
    }
}

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

// Whether nobody has replaced the file, nor appended to the cbKnown bytes that were read of it.
inline bool StillNames(const Place &place, const struct stat &opened, size_t cbKnown) noexcept
{
    struct stat now = {};
    return NamesSameFile(place, opened, now) && now.st_size == static_cast<off_t>(cbKnown);
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
    sigset_t signal_ = {};
    sigset_t saved_ = {};
    bool blocked_ = false;
};

inline bool WriteAll(int fd, std::string_view text) noexcept
{
    const FileSizeScope limit;
    while (!text.empty()) {
        const ssize_t cb = RetryInterrupted([&] { return ::write(fd, text.data(), text.size()); });
        if (cb <= 0) return false;
        text.remove_prefix(static_cast<size_t>(cb));
    }
    return true;
}

// One write at the end of a file opened with O_APPEND; a short one is a failure.
inline bool AppendOnce(int fd, std::string_view text) noexcept
{
    const FileSizeScope limit;
    return RetryInterrupted([&] { return ::write(fd, text.data(), text.size()); }) ==
           static_cast<ssize_t>(text.size());
}

// A new file beside the place, named after it with a dot and six random letters; gone unless
// renamed.
class TempFile {
public:
    explicit TempFile(const Place &place) noexcept : place_(place)
    {
        constexpr int kMostNames = 100;
        for (int tries = 0; tries < kMostNames && !fd_; ++tries) {
            if (!MakeName()) return;
            fd_ = OpenAt(place_.dir(), szName_, O_WRONLY | O_CREAT | O_EXCL, 0600);
            if (!fd_ && errno != EEXIST) {
                Unlink(); // made, but no descriptor above 2 was left for it
                return;
            }
        }
    }
    ~TempFile()
    {
        if (fd_ && !renamed_) Unlink();
    }
    TempFile(const TempFile &) = delete;
    TempFile &operator=(const TempFile &) = delete;

    explicit operator bool() const noexcept { return static_cast<bool>(fd_); }
    // What its name has behind that of the place.
    const char *suffix() const noexcept { return szName_ + std::strlen(place_.name()); }
    bool Write(std::string_view text) noexcept
    {
        if (text.size() <= kMostFileBytes) return WriteAll(fd_.get(), text);
        errno = EFBIG; // nobody could read it again
        return false;
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
    enum class Swapped { kDone, kBeaten, kFailed };
    // Takes the place if it still names the file that was read, cbKnown bytes long. A look before the
    // rename leaves a gap in which another process's file would be lost, so the two swap names, in
    // one step, and what has come out is looked at: anything else goes back. Until then ours is
    // unsettled. In that moment a third one may still have taken the place, who had waited for too
    // long. Then his file stays: mostly it is built upon ours, but what had come out is lost until its
    // writer's next save.
    Swapped SwapIn(const struct stat &known, size_t cbKnown) noexcept
    {
        if (!StillNames(place_, known, cbKnown)) return Swapped::kBeaten;
        if (!Swap()) {
            const bool canNot = errno == EINVAL || errno == ENOSYS || errno == ENOENT;
            return canNot ? Replace() : Swapped::kFailed; // some file systems know no swapping
        }
        struct stat out = {};
        struct stat ours = {};
        const auto hasComeOut = [&] {
            return ::fstatat(place_.dir(), szName_, &out, AT_SYMLINK_NOFOLLOW) == 0;
        };
        if (!hasComeOut()) return Swapped::kDone; // somebody has cleared it away
        if (IsSameFile(out, known) && out.st_size == static_cast<off_t>(cbKnown))
            return Swapped::kDone;
        if (!Swap()) return Swapped::kDone; // the later one wins
        const bool isOurs = hasComeOut() && ::fstat(fd_.get(), &ours) == 0 && IsSameFile(out, ours);
        return !isOurs && Swap() ? Swapped::kDone : Swapped::kBeaten;
    }
    Swapped Replace() noexcept { return RenameOver() ? Swapped::kDone : Swapped::kFailed; }
    bool RenameOver() noexcept
    {
        renamed_ = ::renameat(place_.dir(), szName_, place_.dir(), place_.name()) == 0;
        return renamed_;
    }

private:
    bool Swap() noexcept
    {
        return ::renameat2(place_.dir(), szName_, place_.dir(), place_.name(), RENAME_EXCHANGE) ==
               0;
    }
    // What stands under the temporary name: ours, or the file that it has replaced.
    void Unlink() noexcept
    {
        const KeepErrno keep;
        ::unlinkat(place_.dir(), szName_, 0);
    }
    bool MakeName() noexcept
    {
        constexpr char kLetters[] =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
        unsigned char random[6] = {};
        if (::getrandom(random, sizeof(random), GRND_NONBLOCK) != sizeof(random)) {
            // Early after start-up there is none. O_EXCL protects the name; it only has to vary.
            struct timespec now = {};
            ::clock_gettime(CLOCK_MONOTONIC, &now);
            const uint64_t mixed =
                (static_cast<uint64_t>(now.tv_nsec) << 20) ^ static_cast<uint64_t>(::getpid());
            std::memcpy(random, &mixed, sizeof(random));
        }
        const int cb = std::snprintf(szName_, sizeof(szName_), "%s.", place_.name());
        if (cb < 0 || static_cast<size_t>(cb) + sizeof(random) >= sizeof(szName_)) {
            errno = ENAMETOOLONG;
            return false;
        }
        char *pNext = szName_ + cb;
        for (const unsigned char byte : random)
            *pNext++ = kLetters[byte % (sizeof(kLetters) - 1)];
        *pNext = '\0';
        return true;
    }

    const Place &place_;
    Fd fd_;
    char szName_[256] = {};
    bool renamed_ = false;
};

struct RewriteResult {
    int result;    // 1 replaced, 0 nothing to replace (file untouched), -1 failed
    unsigned code; // why it failed
};

constexpr int kComposeFailed = -1;  // for want of memory
constexpr int kComposeRefused = -2; // by somebody who has recorded why

enum class IfBeaten { kWin, kGiveUp };

// Puts the new text into the temporary file, fit to take the old one's place. The first attempt waits
// for the disk. That takes so long that with many writers every later one would be beaten, too: those
// see to it only that the data are on their way before the name is, and wait afterwards.
inline bool FillTemp(TempFile &temp, std::string_view text, mode_t mode, bool isFirst) noexcept
{
    if (!temp.Write(text)) return false;
    if (isFirst && !temp.Sync()) return false;
    if (!isFirst) temp.SendOff();
    return temp.SetMode(mode | kUnsettled);
}

// Replaces a file that many processes rewrite without a lock. compose(old, new, state) puts the new text
// together, the state that of the old file: 1 to write it, 0 to leave the file as it is, or one of the
// two above. Each attempt starts
// from what the path names then; when another process was faster it starts over. After the last retry
// the later rename wins, or the file is left as it is (0).
template <class Compose>
RewriteResult RewriteFile(const char *szPath, Compose compose,
                          IfBeaten ifBeaten = IfBeaten::kWin) noexcept
{
    const Place place(szPath);
    if (!place) return {-1, kFileOpen};
    Bytes oldText;
    Bytes newText;
    for (int attempt = 0;; ++attempt) {
        const RegularFile in = OpenSettled(place, O_RDONLY);
        if (!in) return {-1, in.code()};
        const mode_t mode = in.stat().st_mode & kPermissionBits;
        oldText.Clear();
        newText.Clear();
        if (const unsigned code = in.ReadWhole(oldText); code != 0) return {-1, code};
        const int found = compose(oldText.view(), newText, in.stat());
        if (found < 0) return {-1, found == kComposeFailed ? kFileNoMemory : 0u};
        if (found == 0) return {0, 0};
        TempFile temp(place);
        if (!temp) return {-1, kFileOpen};
        const bool isFirst = attempt == 0;
        const bool isLast = attempt == kMostRewriteRetries;
        if (!FillTemp(temp, newText.view(), mode, isFirst)) return {-1, kFileWrite};
        const auto swapped = isLast && ifBeaten == IfBeaten::kWin
                                 ? temp.Replace()
                                 : temp.SwapIn(in.stat(), oldText.size());
        if (swapped == TempFile::Swapped::kFailed) return {-1, kFileRename};
        if (swapped == TempFile::Swapped::kBeaten) {
            if (isLast) return {0, 0};
            continue;
        }
        // The file stands: there is no failure to tell any more.
        (void)temp.SetMode(mode);
        if (!isFirst) (void)temp.Sync();
        return {1, 0};
    }
}

} // namespace zevo

#endif // ZEVOCORE_FILE_HPP

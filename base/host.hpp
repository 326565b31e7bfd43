// What belongs to the host process and is left as it was found: errno, cancellation, signals.
#ifndef BASE_HOST_HPP
#define BASE_HOST_HPP

#include <cerrno>
#include <csignal>

#include <pthread.h>

namespace zevo {

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

// While it lives a write beyond the file-size limit fails with EFBIG. Without it the kernel would end
// the process by SIGXFSZ. Most processes have no such limit: then nothing is changed.
class FileSizeScope {
public:
    FileSizeScope() noexcept;
    ~FileSizeScope();
    FileSizeScope(const FileSizeScope &) = delete;
    FileSizeScope &operator=(const FileSizeScope &) = delete;

private:
    sigset_t signal_;
    sigset_t saved_;
    bool blocked_ = false;
};

// Repeats a system call that a signal interrupted.
template <class Call> auto RetryInterrupted(Call call) noexcept
{
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR) return result;
    }
}

} // namespace zevo

#endif // BASE_HOST_HPP

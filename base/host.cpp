#include "host.hpp"

#include <ctime>

#include <sys/resource.h>

namespace zevo {

FileSizeScope::FileSizeScope() noexcept
{
    struct rlimit limit = {};
    if (::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur == RLIM_INFINITY) return;
    ::sigemptyset(&signal_);
    ::sigaddset(&signal_, SIGXFSZ);
    sigset_t pending;
    ::sigpending(&pending);
    if (::sigismember(&pending, SIGXFSZ) != 0) return; // the host blocks it and waits for its own
    blocked_ = ::pthread_sigmask(SIG_BLOCK, &signal_, &saved_) == 0;
}

FileSizeScope::~FileSizeScope()
{
    if (!blocked_) return;
    const KeepErrno keep;
    const struct timespec kAtOnce = {};
    RetryInterrupted([&] { return ::sigtimedwait(&signal_, nullptr, &kAtOnce); });
    ::pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
}

} // namespace zevo

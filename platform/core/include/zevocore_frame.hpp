// How an exported function of the platform libraries is framed: what it records when it fails, and
// that its caller's thread is not cancelled inside it. Header-only; internal to platform/.
#ifndef ZEVOCORE_FRAME_HPP
#define ZEVOCORE_FRAME_HPP

#include <pthread.h>

#include "zevocore.h"
#include "zevocore_file.hpp"

namespace zevo {

// Beside those of FileError.
constexpr unsigned kBadArgument = 0x0D00;
constexpr unsigned kNotThere = 0x2000;

inline int Fail(unsigned code, const char *szFile, int line) noexcept
{
    VLIBCErrSetEx(code, szFile, line);
    return -1;
}

// Records an error found here; -1. A macro, because file and line must be the caller's.
#define ZEVO_FAIL(code) ::zevo::Fail((code), __FILE_NAME__, __LINE__)

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

} // namespace zevo

#endif // ZEVOCORE_FRAME_HPP

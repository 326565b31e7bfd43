// Who owns it lets go of it. Guards cannot be copied, say nothing, keep errno, and test false when
// they hold nothing.
#ifndef BANDWIDTH_GUARD_HPP
#define BANDWIDTH_GUARD_HPP

#include "zevocore.h"
#include "zevocore_file.hpp"
#include "zevosdk.h"

#include <cstdlib>
#include <memory>

#include <pthread.h>

namespace bandwidth {

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

constexpr int kHashSize = 1024; // initial size of the hash that holds one section
constexpr int kListSize = 1024;

// A string hash; setting a value may put a larger one in its place, hence address().
class Hash {
public:
    Hash() noexcept : pHash_(::VLIBCSzHashAlloc(kHashSize)) {}
    ~Hash()
    {
        const zevo::KeepErrno keep;
        if (pHash_ != nullptr) ::VLIBCSzHashFree(pHash_);
    }
    Hash(const Hash &) = delete;
    Hash &operator=(const Hash &) = delete;

    explicit operator bool() const noexcept { return pHash_ != nullptr; }
    VLIB_SZ_HASH *get() const noexcept { return pHash_; }
    VLIB_SZ_HASH **address() noexcept { return &pHash_; }

private:
    VLIB_SZ_HASH *pHash_;
};

template <auto release> struct Release {
    template <class T> void operator()(T *p) const noexcept
    {
        const zevo::KeepErrno keep;
        release(p);
    }
};

using List = std::unique_ptr<VLIB_SZ_LIST, Release<::VLIBCSzListFree>>;
using User = std::unique_ptr<ZEVO_USER, Release<::ZEVOUserFree>>;
template <class T> using Array = std::unique_ptr<T[], Release<std::free>>;

// count zero-filled records; false without memory, also for a count of 0 never.
template <class T> Array<T> AllocateArray(size_t count) noexcept
{
    return Array<T>(static_cast<T *>(std::calloc(count == 0 ? 1 : count, sizeof(T))));
}

} // namespace bandwidth

#endif // BANDWIDTH_GUARD_HPP

// Guards: the owner releases. They cannot be copied, log nothing, keep errno, and test false when they
// hold nothing.
#ifndef INTERNAL_GUARD_HPP
#define INTERNAL_GUARD_HPP

#include "base/descriptor.hpp"
#include "zevobandwidth.h"
#include "zevocore.h"
#include "zevosdk.h"

#include <cstdlib>
#include <memory>
#include <utility>

namespace bandwidth {

using zevo::CancelScope;

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

template <auto release> struct Releaser {
    template <class T> void operator()(T *p) const noexcept
    {
        const zevo::KeepErrno keep;
        release(p);
    }
};

using List = std::unique_ptr<VLIB_SZ_LIST, Releaser<::VLIBCSzListFree>>;
using User = std::unique_ptr<ZEVO_USER, Releaser<::ZEVOUserFree>>;
using Group = std::unique_ptr<ZEVO_GROUP, Releaser<::ZEVOGroupFree>>;
template <class T> using Array = std::unique_ptr<T[], Releaser<std::free>>;

// An effective configuration, zero-filled until something fills it.
class Config {
public:
    Config() noexcept = default;
    ~Config()
    {
        const zevo::KeepErrno keep;
        ::ZEVOBandwidthConfigFree(&config_);
    }
    Config(const Config &) = delete;
    Config &operator=(const Config &) = delete;

    ZEVO_BANDWIDTH_CONFIG *get() noexcept { return &config_; }
    // Hands the configuration over; the guard is empty then.
    ZEVO_BANDWIDTH_CONFIG Detach() noexcept { return std::exchange(config_, {}); }

private:
    ZEVO_BANDWIDTH_CONFIG config_ = {};
};

// count zero-filled records, at least one; false without memory.
template <class T> Array<T> AllocateArray(size_t count) noexcept
{
    return Array<T>(static_cast<T *>(std::calloc(count == 0 ? 1 : count, sizeof(T))));
}

} // namespace bandwidth

#endif // INTERNAL_GUARD_HPP

// Looking users and groups up in the system's user database (NSS). A record needs a buffer of a size
// that nobody knows beforehand, so the buffer grows until it fits.
#ifndef BASE_USER_DATABASE_HPP
#define BASE_USER_DATABASE_HPP

#include <grp.h>
#include <pwd.h>

#include "base/bytes.hpp"
#include "base/host.hpp"

namespace zevo {

// One look-up. Record is passwd or group; its texts live in this object.
template <class Record> class NssEntry {
public:
    // call(record, buffer, cbBuffer, result) is getpwnam_r() or another of these functions, with its
    // key bound.
    template <class Call> explicit NssEntry(Call call) noexcept
    {
        constexpr size_t kMaxBytes = size_t{64} << 20;
        for (size_t cb = 1024; cb <= kMaxBytes; cb *= 2) {
            buffer_.Clear();
            // NOLINTBEGIN(clang-analyzer-unix.Malloc): the buffer's own destructor frees it
            if (buffer_.Reserve(cb)) break;
            const int error = call(&record_, buffer_.end(), buffer_.freeBytes(), &found_);
            // NOLINTEND(clang-analyzer-unix.Malloc)
            if (error == EINTR) continue;
            if (error != ERANGE) {
                errno = error;
                if (found_ != nullptr) fault_ = kNoFault;
                if (error == ENOMEM) fault_ = kNoMemory;
                return;
            }
        }
        found_ = nullptr;
        fault_ = kNoMemory;
    }

    Fault fault() const noexcept { return fault_; } // kNoMemory, or kNotThere
    const Record *operator->() const noexcept { return found_; }
    const Record &operator*() const noexcept { return *found_; }

private:
    Bytes buffer_;
    Record record_ = {};
    Record *found_ = nullptr;
    Fault fault_ = kNotThere;
};

inline NssEntry<passwd> UserByName(const char *szName) noexcept
{
    return NssEntry<passwd>([=](auto... out) { return ::getpwnam_r(szName, out...); });
}

inline NssEntry<passwd> UserById(uid_t uid) noexcept
{
    return NssEntry<passwd>([=](auto... out) { return ::getpwuid_r(uid, out...); });
}

inline NssEntry<group> GroupById(gid_t gid) noexcept
{
    return NssEntry<group>([=](auto... out) { return ::getgrgid_r(gid, out...); });
}

} // namespace zevo

#endif // BASE_USER_DATABASE_HPP

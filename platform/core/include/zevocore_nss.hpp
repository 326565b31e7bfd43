// Looking things up in the system's user database (NSS), whose records want a buffer of a size that
// nobody knows beforehand. Header-only; internal to platform/.
#ifndef ZEVOCORE_NSS_HPP
#define ZEVOCORE_NSS_HPP

#include <grp.h>
#include <pwd.h>

#include "zevocore_frame.hpp"

namespace zevo {

// One look-up. Record is passwd or group; its texts live in this object.
template <class Record> class NssEntry {
public:
    // call(record, buffer, cbBuffer, result) is one of getpwnam_r and its kin, with its key bound.
    template <class Call> explicit NssEntry(Call call) noexcept
    {
        for (size_t cb = 1024; cb <= kMostFileBytes; cb *= 2) {
            buffer_.Clear();
            // NOLINTBEGIN(clang-analyzer-unix.Malloc): the buffer's own destructor frees it
            if (!buffer_.Reserve(cb)) break;
            const int error = call(&record_, buffer_.end(), buffer_.room(), &found_);
            // NOLINTEND(clang-analyzer-unix.Malloc)
            if (error == EINTR) continue;
            if (error != ERANGE) {
                errno = error;
                code_ = error == ENOMEM ? unsigned{kFileNoMemory} : kNotThere;
                return;
            }
        }
        found_ = nullptr;
        code_ = kFileNoMemory;
    }

    explicit operator bool() const noexcept { return found_ != nullptr; }
    unsigned code() const noexcept { return code_; }
    const Record *operator->() const noexcept { return found_; }

private:
    Bytes buffer_;
    Record record_ = {};
    Record *found_ = nullptr;
    unsigned code_ = kNotThere;
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

#endif // ZEVOCORE_NSS_HPP

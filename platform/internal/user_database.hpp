// Looking up users and groups in the system's user database (NSS). A record needs a buffer, and nobody
// knows beforehand how large. Header-only; internal to platform/.
#ifndef USER_DATABASE_HPP
#define USER_DATABASE_HPP

#include <grp.h>
#include <pwd.h>

#include "frame.hpp"

namespace zevo {

// One look-up. Record is passwd or group; the object owns its texts.
template <class Record> class UserDatabaseEntry {
public:
    // call(record, buffer, cbBuffer, result) is getpwnam_r() or one of its kin, with the key bound.
    template <class Call> explicit UserDatabaseEntry(Call call) noexcept
    {
        for (size_t cb = 1024; cb <= kMaxBufferBytes; cb *= 2) {
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
    static constexpr size_t kMaxBufferBytes = size_t{64} << 20;

    Bytes buffer_;
    Record record_ = {};
    Record *found_ = nullptr;
    unsigned code_ = kNotThere;
};

inline UserDatabaseEntry<passwd> UserByName(const char *szName) noexcept
{
    return UserDatabaseEntry<passwd>([=](auto... out) { return ::getpwnam_r(szName, out...); });
}

inline UserDatabaseEntry<passwd> UserById(uid_t uid) noexcept
{
    return UserDatabaseEntry<passwd>([=](auto... out) { return ::getpwuid_r(uid, out...); });
}

inline UserDatabaseEntry<group> GroupById(gid_t gid) noexcept
{
    return UserDatabaseEntry<group>([=](auto... out) { return ::getgrgid_r(gid, out...); });
}

} // namespace zevo

#endif // USER_DATABASE_HPP

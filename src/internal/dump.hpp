// What the tables of rules, policies and transfers share.
#ifndef INTERNAL_DUMP_HPP
#define INTERNAL_DUMP_HPP

#include "internal/guard.hpp"

namespace bandwidth {

// The column of a value that no name table knows: its key is missing from the section form.
constexpr char kNoName[] = "-";

inline const char *Column(const Hash &hash, const char *szKey) noexcept
{
    const char *const szValue = ::VLIBCSzHashGetValue(hash.get(), szKey);
    return szValue == nullptr ? kNoName : szValue;
}

// The name of a record's owner in the user database; tests false when there is no such owner.
class OwnerName {
public:
    OwnerName(bool isUser, uint32_t id) noexcept
    {
        ZEVO_USER *pUser = nullptr;
        ZEVO_GROUP *pGroup = nullptr;
        if (isUser && ::ZEVOUserGetByUID(id, &pUser) >= 0) user_.reset(pUser);
        if (!isUser && ::ZEVOGroupGetByGID(id, &pGroup) >= 0) group_.reset(pGroup);
    }
    explicit operator bool() const noexcept { return user_ || group_; }
    const char *get() const noexcept { return user_ ? user_->szName : group_->szName; }

private:
    User user_;
    Group group_;
};

} // namespace bandwidth

#endif // INTERNAL_DUMP_HPP

// The count is for pacing alone. So sections are taken as they stand: what nobody knows is passed over
// without a word, since the throttle calls tell of it.
#include "pipe/sharers.hpp"

#include <cstdlib>
#include <ctime>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include <zevocore.h>

#include "model/names.hpp"
#include "model/transfer_list.hpp"

namespace tool {

namespace {

constexpr std::int64_t kStaleAfterSeconds = 30;

class Section {
public:
    Section() : hash_(VLIBCSzHashAlloc(0), &VLIBCSzHashFree) {}
    explicit operator bool() const noexcept { return hash_ != nullptr; }

    bool Read(const std::string &path, const char *name)
    {
        VLIB_SZ_HASH *hash = hash_.get();
        (void)VLIBCHashRemoveAll(hash);
        return VLIBCFileGetSection(path.c_str(), name, &hash) == 1;
    }
    std::string_view Text(const char *key) const
    {
        const char *const value = VLIBCSzHashGetValue(hash_.get(), key);
        return value == nullptr ? "" : value;
    }
    // 0 where there is none.
    std::int64_t Number(const char *key) const
    {
        const char *const value = VLIBCSzHashGetValue(hash_.get(), key);
        return value == nullptr ? 0 : std::strtoll(value, nullptr, 10);
    }

private:
    std::unique_ptr<VLIB_SZ_HASH, decltype(&VLIBCSzHashFree)> hash_;
};

} // namespace

std::optional<Sharing> CountSharers(const ZEVO_BANDWIDTH_CONF &rule, std::uint64_t rateBps,
                                    const ZEVO_BANDWIDTH_STATUS &own)
{
    const std::string path = StatusFile(rule.ownerType, rule.id);
    VLIB_SZ_LIST *list = VLIBCSzListAlloc(0);
    const int count = list == nullptr ? -1 : VLIBCFileEnumSection(path.c_str(), &list);
    const std::unique_ptr<VLIB_SZ_LIST, decltype(&VLIBCSzListFree)> names(list, &VLIBCSzListFree);
    Section section;
    if (count < 0 || !section) return std::nullopt;

    const std::string protocol = ProtocolName(static_cast<std::int32_t>(own.protocol_type));
    const std::string direction = ValueName(ZEVO_BW_TRANSFER_TYPE_LIST, own.transfer_type);
    const std::int64_t freshSince = std::time(nullptr) - kStaleAfterSeconds;
    std::set<std::int64_t> otherUsers;
    std::uint64_t sameUser = 1;
    Sharing sharing;
    for (int i = 0; i < count; ++i) {
        if (!section.Read(path, VLIBCSzListGet(list, i))) continue;
        if (section.Number("active") == 0 || section.Number("pid") == own.pid) continue;
        if (section.Number("timestamp") < freshSince) continue;
        if (section.Text("protocol type") != protocol) continue;
        if (section.Text("transfer type") != direction) continue;
        const std::int64_t uid = section.Number("uid");
        if (uid == own.uid)
            ++sameUser;
        else
            otherUsers.insert(uid);
        if (section.Number("current speed") != 0) ++sharing.transfers;
    }
    sharing.equalBps = rateBps / (sameUser * (otherUsers.size() + 1));
    return sharing;
}

} // namespace tool

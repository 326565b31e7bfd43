// The count only sets the pace. A section that cannot be read is left out here; the throttle calls tell
// of it.
#include "pipe/sharers.hpp"

#include <ctime>
#include <memory>
#include <set>
#include <string>

#include "model/section.hpp"
#include "model/transfer_list.hpp"

namespace tool {

std::optional<Sharing> CountSharers(const ZEVO_BANDWIDTH_CONF &rule, std::uint64_t rateBps,
                                    const ZEVO_BANDWIDTH_STATUS &own)
{
    const std::string path = StatusFile(rule.ownerType, rule.id);
    const List sections = ListSections(path);
    if (!sections) return std::nullopt;
    Hash hash = NewHash();
    const auto other = std::make_unique<ZEVO_BANDWIDTH_STATUS>();
    const std::int64_t freshSince = std::time(nullptr) - ZEVO_BW_STALE_AFTER_SECONDS;
    std::set<std::uint32_t> otherUsers;
    std::uint64_t sameUser = 1;
    Sharing sharing;
    for (const char *const section : Items(sections)) {
        *other = {};
        if (!ReadSection(path, section, hash) ||
            ZEVOBandwidthInitStatusFromHash(other.get(), hash.get()) != 0)
            continue;
        if (other->active == 0 || other->pid == own.pid || other->timestamp < freshSince) continue;
        if (other->protocol_type != own.protocol_type) continue;
        if (other->transfer_type != own.transfer_type) continue;
        if (other->uid == own.uid)
            ++sameUser;
        else
            otherUsers.insert(other->uid);
        if (other->current_speed != 0) ++sharing.transfers;
    }
    sharing.equalBps = rateBps / (sameUser * (otherUsers.size() + 1));
    return sharing;
}

} // namespace tool

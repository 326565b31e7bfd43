// Reads the status files through the library, which also removes stale sections from them.
#include "model/transfer_list.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zevobandwidth.hpp>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <system_error>
#include <tuple>

#include "failure.hpp"

namespace tool {

namespace {

constexpr auto kNobody = static_cast<std::uint32_t>(-1);

RunningTransfer FromRecord(const ZEVO_BANDWIDTH_STATUS &record, std::int32_t ownerType,
                           std::uint32_t id)
{
    return {.ownerType = ownerType,
            .ownerId = id,
            .uid = ownerType == ZEVO_BW_OWNER_USER ? id : record.uid,
            .pid = record.pid,
            .protocol = static_cast<std::int32_t>(record.protocol_type),
            .direction = static_cast<std::int32_t>(record.transfer_type),
            .speedBps = record.current_speed,
            .allowedBps = record.expect_speed,
            .progress = record.progress,
            .active = record.active != 0,
            .timestamp = record.timestamp,
            .file = record.filename};
}

[[noreturn]] void RefuseDirectory(int error)
{
    const std::string what =
        std::string(ZEVO_BW_STATUS_DIRECTORY " cannot be read: ") + std::strerror(error);
    if (error == EACCES || error == EPERM)
        throw Failure(kNotPermitted, what +
                                         "; it should be open to everybody: 'zevobandwidth check "
                                         "--repair', run as root, sees to that");
    throw Failure(kFailed, what + "; it must be a directory and no link: remove what is there");
}

// The library would treat a directory that cannot be searched as empty.
void RequireDirectory()
{
    struct stat attributes {};
    if (::lstat(ZEVO_BW_STATUS_DIRECTORY, &attributes) != 0) return; // nothing has been limited yet
    if (!S_ISDIR(attributes.st_mode)) RefuseDirectory(ENOTDIR);
    if (::faccessat(AT_FDCWD, ZEVO_BW_STATUS_DIRECTORY, X_OK, AT_EACCESS) != 0)
        RefuseDirectory(errno);
}

std::vector<std::uint32_t> OwnersWithStatusFiles(std::int32_t ownerType)
try {
    std::vector<std::uint32_t> ids;
    for (const std::string &name : FileNames(ZEVO_BW_STATUS_DIRECTORY)) {
        const auto owner = ParseOwner(name);
        if (owner && owner->type == ownerType && owner->account.id != kNobody)
            ids.push_back(owner->account.id);
    }
    return ids;
} catch (const std::system_error &error) {
    if (error.code().value() == ENOENT) return {}; // nothing has been limited since the last start
    RefuseDirectory(error.code().value());
}

} // namespace

const std::string &OwnerName(const RunningTransfer &transfer)
{
    const bool isUser = transfer.ownerType == ZEVO_BW_OWNER_USER;
    return isUser ? UserName(transfer.ownerId) : GroupName(transfer.ownerId);
}

const std::string &ProtocolOf(const RunningTransfer &transfer)
{
    static std::map<std::int32_t, std::string> names;
    const auto [place, isNew] = names.try_emplace(transfer.protocol);
    if (isNew) place->second = ProtocolName(transfer.protocol);
    return place->second;
}

std::string DirectionOf(const RunningTransfer &transfer)
{
    return ValueName(ZEVO_BW_TRANSFER_TYPE_LIST, transfer.direction);
}

Json ToJson(const RunningTransfer &transfer)
{
    return {{"user", UserName(transfer.uid)},
            {"uid", transfer.uid},
            {"protocol", ProtocolOf(transfer)},
            {"direction", DirectionOf(transfer)},
            {"pid", transfer.pid},
            {"speed_bytes_per_s", transfer.speedBps},
            {"allowed_bytes_per_s", LimitJson(transfer.allowedBps)},
            {"progress_percent", transfer.progress / 100.0},
            {"active", transfer.active},
            {"timestamp", transfer.timestamp},
            {"file", transfer.file}};
}

bool IsAlive(pid_t pid)
{
    return pid > 0 && (::kill(pid, 0) == 0 || errno != ESRCH);
}

std::string StatusFile(std::int32_t ownerType, std::uint32_t id)
{
    return ZEVO_BW_STATUS_DIRECTORY "/" + ValueName(ZEVO_BW_OWNER_TYPE_LIST, ownerType) + "-" +
           std::to_string(id);
}

bool TransferList::Passes(const RunningTransfer &transfer) const
{
    return (!filter_.protocol || *filter_.protocol == transfer.protocol) &&
           (filter_.pid == 0 || filter_.pid == transfer.pid);
}

void TransferList::Complain(const std::string &path)
{
    const int flags = AT_EACCESS | AT_SYMLINK_NOFOLLOW; // the library follows no link either
    const bool isRefused = ::faccessat(AT_FDCWD, path.c_str(), R_OK, flags) != 0 &&
                           (errno == EACCES || errno == EPERM);
    if (isRefused) status_ = kNotPermitted;
    complaints_.push_back(
        isRefused ? "not permitted to read " + path +
                        ", which every user should be able to read and write; run this command, or "
                        "'zevobandwidth check --repair', as an administrator (root)"
                  : path + " cannot be read; it must be a regular file that every user may read "
                           "and write. Remove it: running transfers write it anew");
}

void TransferList::PrintComplaints() const
{
    for (const std::string &complaint : complaints_)
        PrintNote("zevobandwidth: " + complaint);
}

void TransferList::Read(std::int32_t ownerType, std::uint32_t id)
{
    RequireDirectory();
    const std::string path = StatusFile(ownerType, id);
    const auto running = zevobw::Transfers::FromFile(
        path.c_str(), zevobw::Transfers::kEveryProtocol, filter_.directions, filter_.merge);
    if (!running.outcome()) Complain(path);
    for (const ZEVO_BANDWIDTH_STATUS &record : running) {
        RunningTransfer transfer = FromRecord(record, ownerType, id);
        if (Passes(transfer)) all_.push_back(std::move(transfer));
    }
}

void TransferList::ReadAll(std::int32_t ownerType)
{
    RequireDirectory();
    for (const std::uint32_t id : OwnersWithStatusFiles(ownerType))
        Read(ownerType, id);
}

void TransferList::ReadChosen(const std::optional<Owner> &owner)
{
    if (owner) {
        Read(owner->type, owner->account.id);
    } else {
        ReadAll(ZEVO_BW_OWNER_USER);
        // Without merging a transfer would be listed twice.
        if (filter_.merge) ReadAll(ZEVO_BW_OWNER_GROUP);
    }
    Sort();
}

void TransferList::Sort()
{
    std::sort(all_.begin(), all_.end(), [](const RunningTransfer &a, const RunningTransfer &b) {
        const auto key = [](const RunningTransfer &t) {
            return std::tie(t.ownerType, OwnerName(t), t.protocol, t.direction, UserName(t.uid),
                            t.pid);
        };
        return key(a) < key(b);
    });
}

} // namespace tool

// "transfers": what is running now. Every limited transfer has a copy in its user's status file and
// further ones in those of the groups it is charged to; reading the users' files alone shows each
// transfer once.
//
// The status files lie where every local user can write, so that their text is nobody's word.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <map>
#include <memory>
#include <string_view>
#include <tuple>

#include "command.hpp"
#include "options.hpp"
#include "output.hpp"
#include "rate.hpp"

namespace tool {

namespace {

constexpr const char *kStatusDirectory = "/tmp/bandwidth";
constexpr std::string_view kUserFilePrefix = "user-";
// Numbers of add-ons are no bits: only with every bit set does none of them fall through.
constexpr std::int32_t kEveryProtocol = -1;

struct TransfersArguments {
    OwnerOption owner;
};

// Records without their links; names are looked up once each.
class Transfers {
public:
    void Read(std::int32_t ownerType, std::uint32_t id);
    void Sort();
    void PrintTable() const;
    void PrintAsJson() const;
    int failures() const noexcept { return failures_; }

private:
    const std::string &ProtocolOf(const ZEVO_BANDWIDTH_STATUS &status) const;

    std::vector<std::unique_ptr<ZEVO_BANDWIDTH_STATUS>> all_;
    mutable std::map<std::uint32_t, std::string> protocols_;
    int failures_ = 0;
};

void Transfers::Read(std::int32_t ownerType, std::uint32_t id)
{
    ZEVO_BANDWIDTH_STATUS *list = nullptr;
    if (ZEVOBandwidthStatusGetAll(ownerType, id, kEveryProtocol, ZEVO_BW_TRANSFER_ALL, &list) < 0) {
        const std::string name = ValueName(ZEVO_BW_OWNER_TYPE_LIST, ownerType);
        PrintNote(std::string("zevobandwidth: ") + kStatusDirectory + "/" + name + "-" +
                  std::to_string(id) +
                  " cannot be read; it must be a regular file that every user may read and write. "
                  "Remove it: running transfers write it anew");
        ++failures_;
    }
    for (const auto *status = list; status != nullptr; status = status->next)
        all_.push_back(std::make_unique<ZEVO_BANDWIDTH_STATUS>(*status));
    ZEVOBandwidthStatusListFree(&list);
}

const std::string &Transfers::ProtocolOf(const ZEVO_BANDWIDTH_STATUS &status) const
{
    const auto [place, isNew] = protocols_.try_emplace(status.protocol_type);
    if (isNew) place->second = ProtocolName(static_cast<std::int32_t>(status.protocol_type));
    return place->second;
}

void Transfers::Sort()
{
    std::sort(all_.begin(), all_.end(), [](const auto &a, const auto &b) {
        return std::tie(UserName(a->uid), a->protocol_type, a->transfer_type, a->pid) <
               std::tie(UserName(b->uid), b->protocol_type, b->transfer_type, b->pid);
    });
}

std::string DirectionOf(const ZEVO_BANDWIDTH_STATUS &status)
{
    return ValueName(ZEVO_BW_TRANSFER_TYPE_LIST, status.transfer_type);
}

void Transfers::PrintTable() const
{
    if (all_.empty()) return PrintNote("No limited transfers are running.");
    Table table({"USER", "PROTOCOL", "DIRECTION", "PID", "SPEED", "ALLOWED", "PROGRESS", "FILE"});
    for (std::size_t column = 3; column < 7; ++column)
        table.AlignRight(column);
    for (const auto &status : all_)
        table.AddRow({UserName(status->uid), ProtocolOf(*status), DirectionOf(*status),
                      std::to_string(status->pid), FormatSpeed(status->current_speed),
                      FormatAllowedSpeed(status->expect_speed), FormatProgress(status->progress),
                      status->filename});
    table.Print();
}

void Transfers::PrintAsJson() const
{
    Json json = Json::array();
    for (const auto &status : all_) {
        const bool limited = status->expect_speed != 0;
        json.push_back(
            {{"user", UserName(status->uid)},
             {"uid", status->uid},
             {"protocol", ProtocolOf(*status)},
             {"direction", DirectionOf(*status)},
             {"pid", status->pid},
             {"speed_bytes_per_s", status->current_speed},
             {"allowed_bytes_per_s", limited ? Json(status->expect_speed) : Json(nullptr)},
             {"progress_percent", status->progress / 100.0},
             {"active", status->active != 0},
             {"timestamp", status->timestamp},
             {"file", status->filename}});
    }
    PrintJson(json);
}

// The uid in "user-2001", as the library writes it; -1 names nobody.
std::uint32_t UidOf(std::string_view file)
{
    constexpr auto kNobody = static_cast<std::uint32_t>(-1);
    if (!file.starts_with(kUserFilePrefix)) return kNobody;
    file.remove_prefix(kUserFilePrefix.size());
    std::uint32_t uid = 0;
    const auto end = file.data() + file.size();
    const auto result = std::from_chars(file.data(), end, uid);
    const bool whole = result.ec == std::errc() && result.ptr == end;
    return whole && std::to_string(uid) == file ? uid : kNobody;
}

bool IsRegular(DIR *directory, const char *name)
{
    struct stat attributes {};
    return ::fstatat(::dirfd(directory), name, &attributes, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(attributes.st_mode);
}

std::vector<std::uint32_t> UsersWithStatusFiles()
{
    std::vector<std::uint32_t> uids;
    const int fd = ::open(kStatusDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT) return uids; // nothing has been limited since the last start
    DIR *const opened = fd < 0 ? nullptr : ::fdopendir(fd);
    if (opened == nullptr)
        throw Failure(kFailed, std::string(kStatusDirectory) + " cannot be read: " +
                                   std::strerror(errno) + "; it must be a directory and no link");
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(opened, &::closedir);
    while (const dirent *entry = ::readdir(directory.get())) {
        const std::uint32_t uid = UidOf(entry->d_name);
        if (uid != static_cast<std::uint32_t>(-1) && IsRegular(directory.get(), entry->d_name))
            uids.push_back(uid);
    }
    return uids;
}

void ListTransfers(const TransfersArguments &arguments)
{
    Transfers transfers;
    if (arguments.owner.IsGiven()) {
        const Owner owner = arguments.owner.Find();
        transfers.Read(owner.type, owner.account.id);
    } else {
        for (const std::uint32_t uid : UsersWithStatusFiles())
            transfers.Read(ZEVO_BW_OWNER_USER, uid);
    }
    transfers.Sort();
    if (OutputStyle().json)
        transfers.PrintAsJson();
    else
        transfers.PrintTable();
    if (transfers.failures() != 0) throw Failure(kFailed, "the list is incomplete");
}

} // namespace

void AddTransfersCommand(CLI::App &app)
{
    const auto arguments = std::make_shared<TransfersArguments>();
    CLI::App *command = app.add_subcommand("transfers", "List the limited transfers that run now");
    AddOwnerOption(*command, arguments->owner);
    AddOutputOptions(*command);
    command->footer(
        "Upload is from the client to this server, download from this server to the client.\n"
        "With -g: the transfers charged to the group, with the part of the speed that it bears.\n"
        "Transfers that no limit bears on are not listed.\n\nExamples:\n"
        "  zevobandwidth transfers\n"
        "  zevobandwidth transfers -u alice --json\n");
    command->callback([arguments] { ListTransfers(*arguments); });
}

} // namespace tool

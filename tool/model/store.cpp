// The library reports a failure by a code, which says nothing about permissions. So the permissions
// are looked up here, on the file itself.
#include "model/store.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "failure.hpp"
#include "model/section.hpp"
#include "output.hpp"

namespace tool {

std::string PlaceText(const std::string &file, const std::string &section)
{
    return "section [" + section + "] of " + file;
}

std::string ConfPath(std::int32_t protocol)
{
    constexpr std::size_t kPathSize = 4096;
    std::array<char, kPathSize> path{};
    if (ZEVOBandwidthConfPath(protocol, path.data(), path.size()) != 0)
        throw Failure(kNotFound, "protocol number " + std::to_string(protocol) +
                                     " has no name: its add-on file is gone or ambiguous");
    return path.data();
}

namespace {

std::string ParentOf(const std::string &path)
{
    return std::filesystem::path(path).parent_path();
}

// 0, or the error that refuses this user. For a file that would be made, its directory counts.
int Refusal(const std::string &path, int mode)
{
    if (::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0) return 0;
    const int error = errno;
    if (error == ENOENT && mode == W_OK && path != "/") return Refusal(ParentOf(path), mode);
    return error == ENOENT ? 0 : error;
}

void RequirePermission(const std::string &path, int mode)
{
    const int error = Refusal(path, mode);
    if (error == 0) return;
    if (error == ENOTDIR || error == ELOOP)
        throw Failure(kFailed, path + " cannot be reached: " + std::strerror(error) +
                                   "; 'zevobandwidth check' says what should be there");
    const std::string remedy = error == EROFS ? "mount the file system for writing"
                                              : "run this command as an administrator (root)";
    throw Failure(kNotPermitted, "not permitted to " +
                                     std::string(mode == W_OK ? "write" : "read") + " " + path +
                                     ": " + std::strerror(error) + "; " + remedy);
}

// The error slot in words, after "the rule of ... cannot be read: ".
std::string Reason(const std::string &file, const std::string &section)
{
    const unsigned code = VLIBCErrGet();
    const std::string place = PlaceText(file, section);
    switch (code) {
    case ZEVO_BW_ERROR_NO_MEMORY:
        return "out of memory";
    case ZEVO_BW_ERROR_OPEN:
        return file + " cannot be opened or made; it must be a regular file in a directory that "
                      "this user may write. 'zevobandwidth check' says what is there instead: "
                      "move that away";
    case ZEVO_BW_ERROR_READ:
    case ZEVO_BW_ERROR_STAT:
        return file + " cannot be read; check the disk";
    case ZEVO_BW_ERROR_WRITE:
    case ZEVO_BW_ERROR_RENAME:
        return file + " cannot be written; is the disk full? Nothing was changed";
    case ZEVO_BW_ERROR_BAD_NUMBER:
        return "a rate or id in " + place + " is no number; mend or remove that section";
    default: {
        std::array<char, 32> text{};
        std::snprintf(text.data(), text.size(), "error 0x%04X", code);
        return std::string(text.data()) + " at " + place + "; the system log says more";
    }
    }
}

std::string SectionOf(const Owner &owner)
{
    return ValueName(ZEVO_BW_OWNER_TYPE_LIST, owner.type) + "-" + std::to_string(owner.account.id);
}

// After a write that the library has refused. what: "rule".
[[noreturn]] void FailToStore(const std::string &what, const std::string &file,
                              const std::string &section)
{
    const std::string reason = Reason(file, section);
    RequirePermission(file, W_OK);
    RequirePermission(ParentOf(file), W_OK);
    throw Failure(kFailed, "the " + what + " cannot be stored: " + reason);
}

} // namespace

std::string OwnerText(const Owner &owner)
{
    return ValueName(ZEVO_BW_OWNER_TYPE_LIST, owner.type) + " " + ShownName(owner.account);
}

std::string RuleOptions(const Owner &owner, std::int32_t protocol)
{
    return (owner.type == ZEVO_BW_OWNER_USER ? "-u " : "-g ") + ShownName(owner.account) + " -p " +
           ProtocolName(protocol);
}

std::string Setting::File() const
{
    return ConfPath(owner ? protocol() : static_cast<std::int32_t>(ZEVO_BW_PROTOCOL_ALL));
}

std::string Setting::Section() const
{
    return owner ? SectionOf(*owner) : ProtocolName(protocol());
}

std::string Setting::Place() const
{
    return PlaceText(File(), Section());
}

Owner OwnerById(std::int32_t type, std::uint32_t id)
{
    return {type, {id, type == ZEVO_BW_OWNER_USER ? UserName(id) : GroupName(id)}};
}

bool IsKnown(const Owner &owner)
{
    return owner.type == ZEVO_BW_OWNER_USER ? IsKnownUser(owner.account.id)
                                            : IsKnownGroup(owner.account.id);
}

std::optional<Account> FindByName(std::int32_t type, const std::string &name)
{
    try {
        const Account account = type == ZEVO_BW_OWNER_USER ? FindUser(name) : FindGroup(name);
        return account.name == name ? std::optional(account) : std::nullopt;
    } catch (const Failure &failure) {
        if (failure.status() != kNotFound) throw;
        return std::nullopt;
    }
}

std::optional<Owner> ParseOwner(std::string_view section)
{
    for (const std::int32_t type : {ZEVO_BW_OWNER_USER, ZEVO_BW_OWNER_GROUP}) {
        const std::string prefix = ValueName(ZEVO_BW_OWNER_TYPE_LIST, type) + "-";
        unsigned id = 0;
        if (!section.starts_with(prefix) ||
            std::sscanf(std::string(section.substr(prefix.size())).c_str(), "%u", &id) != 1)
            continue;
        const Owner owner{type, {id, ""}};
        if (SectionOf(owner) == section) return owner;
    }
    return std::nullopt;
}

ZEVO_BANDWIDTH_CONF ReadRule(const Owner &owner, std::int32_t protocol)
{
    const std::string path = ConfPath(protocol);
    // The library would treat a file that cannot be reached as empty.
    RequirePermission(path, R_OK);
    ZEVO_BANDWIDTH_CONF rule{};
    if (ZEVOBandwidthConfGetByID(owner.type, owner.account.id, protocol, &rule) != 0)
        throw Failure(kFailed, "the rule of " + OwnerText(owner) + " for " +
                                   ProtocolName(protocol) +
                                   " cannot be read: " + Reason(path, SectionOf(owner)));
    // The section's keys may contradict its name. The rule must be written back where it was read.
    rule.ownerType = owner.type;
    rule.id = owner.account.id;
    rule.protocolType = protocol;
    return rule;
}

void WriteRule(const ZEVO_BANDWIDTH_CONF &rule)
{
    if (ZEVOBandwidthConfSetByID(&rule) != 0)
        FailToStore("rule", ConfPath(rule.protocolType),
                    SectionOf({rule.ownerType, {rule.id, ""}}));
}

bool IsStored(const Owner &owner, std::int32_t protocol)
{
    try {
        return ReadRule(owner, protocol).state != ZEVO_BW_STATE_NOT_EXISTED;
    } catch (const Failure &failure) {
        if (failure.status() != kFailed) throw;
        return true;
    }
}

void CopyPlan(const std::string &plan, char (&field)[ZEVO_BW_PLAN_SIZE])
{
    std::snprintf(field, sizeof field, "%s", plan.c_str());
}

ZEVO_BANDWIDTH_GLOBAL_CONF ReadPolicy(std::int32_t protocol)
{
    const std::string path = ConfPath(ZEVO_BW_PROTOCOL_ALL);
    RequirePermission(path, R_OK);
    ZEVO_BANDWIDTH_GLOBAL_CONF policy{};
    if (ZEVOBandwidthGlobalConfGet(protocol, &policy) != 0) {
        const std::string name = ProtocolName(protocol);
        throw Failure(kFailed, "the policy of " + name + " cannot be read: " + Reason(path, name));
    }
    return policy;
}

void WritePolicy(ZEVO_BANDWIDTH_GLOBAL_CONF policy)
{
    if (ZEVOBandwidthGlobalConfSet(&policy) != 0)
        FailToStore("policy", ConfPath(ZEVO_BW_PROTOCOL_ALL), ProtocolName(policy.protocolType));
}

void ForEachSection(const std::string &path, const std::string &what,
                    const std::function<void(const std::string &)> &visit)
{
    RequirePermission(path, R_OK);
    if (VLIBCFileExist(path.c_str()) == 0) return;
    const List sections = ListSections(path);
    if (!sections)
        throw Failure(kFailed, "the " + what + " cannot be listed: " + Reason(path, "*"));
    for (const char *const section : Items(sections))
        visit(section);
}

std::vector<StoredRule> ReadRules(const std::vector<std::int32_t> &protocols, int &failures)
{
    std::vector<StoredRule> rules;
    const auto key = [](const StoredRule &stored) {
        return std::tie(stored.owner.type, stored.owner.account.name, stored.owner.account.id);
    };
    for (const std::int32_t protocol : protocols) {
        const auto before = static_cast<std::ptrdiff_t>(rules.size());
        const auto read = [&](const std::string &section) {
            const auto owner = ParseOwner(section);
            if (!owner) return;
            try {
                const Owner named = OwnerById(owner->type, owner->account.id);
                rules.push_back({named, ReadRule(named, protocol)});
            } catch (const Failure &failure) {
                if (failure.status() != kFailed) throw;
                PrintNote(std::string("zevobandwidth: ") + failure.what());
                ++failures;
            }
        };
        ForEachSection(ConfPath(protocol), "rules of " + ProtocolName(protocol), read);
        std::sort(rules.begin() + before, rules.end(),
                  [&](const auto &a, const auto &b) { return key(a) < key(b); });
    }
    return rules;
}

std::vector<std::int32_t> ProtocolsToList(const std::string &name)
{
    if (!name.empty()) return {FindProtocol(name)};
    std::vector<std::int32_t> numbers;
    for (const Protocol &protocol : KnownProtocols())
        numbers.push_back(protocol.number);
    return numbers;
}

std::vector<ZEVO_BANDWIDTH_GLOBAL_CONF> ReadPolicies()
{
    std::vector<ZEVO_BANDWIDTH_GLOBAL_CONF> policies;
    for (const std::int32_t protocol : ProtocolsToList(""))
        policies.push_back(ReadPolicy(protocol));
    return policies;
}

std::vector<Setting> ReadSettings(int &failures)
{
    std::vector<Setting> settings;
    for (const ZEVO_BANDWIDTH_GLOBAL_CONF &policy : ReadPolicies())
        if (policy.state != ZEVO_BW_STATE_NOT_EXISTED) settings.emplace_back(policy);
    for (const auto &[owner, rule] : ReadRules(ProtocolsToList(""), failures))
        settings.emplace_back(owner, rule);
    return settings;
}

std::string WhyNothingIsLimited(const ZEVO_BANDWIDTH_GLOBAL_CONF &policy)
{
    const std::string name = ProtocolName(policy.protocolType);
    const std::string command = "zevobandwidth policy set -p " + name;
    const std::string nothing = ", so nothing is limited on it, whatever its rules say. Switch its "
                                "limits on with: " +
                                command;
    if (policy.state == ZEVO_BW_STATE_NOT_EXISTED) return name + " has no policy yet" + nothing;
    if (policy.state == ZEVO_BW_STATE_DISABLED)
        return "the policy of " + name + " is disabled" + nothing + " --state enabled";
    if (policy.state != ZEVO_BW_STATE_SCHEDULE || HasWholePlan(policy.szSchedulePlan)) return "";
    return "the policy of " + name +
           " follows a schedule, but has no plan of 168 hours: in hours without a mark nothing is "
           "limited. Limit at all hours with: " +
           command + " --state enabled";
}

} // namespace tool

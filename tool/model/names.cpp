// Names to numbers and back.
#include "model/names.hpp"

#include <dirent.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <tuple>
#include <unordered_map>

#include "base/user_database.hpp"

#include "failure.hpp"
#include "model/number.hpp"
#include "output.hpp"

namespace tool {

namespace {

constexpr const char *kAddonDirectory = ZEVO_BW_ADDON_DIRECTORY "/";
constexpr std::string_view kAddonSuffix = ".json";
constexpr std::size_t kLongestEntry = std::size_t{1} << 20;

[[noreturn]] void DatabaseFailed(int error)
{
    throw Failure(kFailed, std::string("the user database cannot be asked: ") +
                               std::strerror(error) + "; see /etc/nsswitch.conf");
}

Account ToAccount(const passwd &entry)
{
    return {entry.pw_uid, entry.pw_name};
}
Account ToAccount(const group &entry)
{
    return {entry.gr_gid, entry.gr_name};
}

// Runs getpwnam_r() or one of its sister calls. Nothing if the database has no such entry.
template <typename Entry, typename Lookup, typename Key>
std::optional<Account> Ask(Lookup lookup, Key key)
{
    const zevo::NssEntry<Entry> entry([=](auto... out) { return lookup(key, out...); });
    if (!entry.fault()) return ToAccount(*entry);
    if (entry.fault().code == zevo::kNoMemory.code) DatabaseFailed(ENOMEM);
    // The database's sources report "not known" by these.
    if (errno != 0 && errno != ENOENT && errno != ESRCH) DatabaseFailed(errno);
    return std::nullopt;
}

// The protocol of "NAME_NUMBER.json", with the number as the library writes it.
std::optional<Protocol> FromFileName(std::string_view file)
{
    file.remove_suffix(kAddonSuffix.size());
    const std::size_t bar = file.rfind('_');
    if (bar == std::string_view::npos || bar == 0) return std::nullopt;
    const std::string_view digits = file.substr(bar + 1);
    const auto number = ReadNumber<std::int32_t>(digits);
    if (!number || *number <= 0 || std::to_string(*number) != digits) return std::nullopt;
    return Protocol{*number, std::string(file.substr(0, bar))};
}

bool IsBuiltIn(const Protocol &protocol)
{
    for (const auto *row = ZEVO_BW_PROTOCOL_TYPE_LIST; row->name != nullptr; ++row)
        if (protocol.number == row->value || protocol.name == row->name) return true;
    return protocol.name == "global"; // its rules would be kept in the file of the policies
}

std::vector<std::string> NamesOfAddonFiles()
{
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(::opendir(kAddonDirectory), &::closedir);
    if (!directory && errno == ENOENT) return names;
    if (!directory)
        throw Failure(StatusOf(errno), std::string("the add-on protocols of ") + kAddonDirectory +
                                           " cannot be read: " + std::strerror(errno) +
                                           "; it must be a directory that every user may read");
    while (const dirent *entry = ::readdir(directory.get())) {
        const std::string_view name = entry->d_name;
        if (!name.starts_with('.') && name.ends_with(kAddonSuffix)) names.emplace_back(name);
    }
    return names;
}

std::vector<Protocol> AnnouncedAddons()
{
    std::vector<Protocol> addons;
    for (const std::string &file : NamesOfAddonFiles()) {
        auto addon = FromFileName(file);
        if (addon && !IsBuiltIn(*addon)) addons.push_back(std::move(*addon));
    }
    std::sort(addons.begin(), addons.end(),
              [](const Protocol &a, const Protocol &b) { return a.name < b.name; });
    return addons;
}

// Accounts by id and by name. Each id is looked up once. A look-up reads the local file up to the
// entry, so after a few of them the whole file is read once.
template <typename Entry> class AccountBook {
public:
    template <typename Key> using LookUp = int (*)(Key, Entry *, char *, std::size_t, Entry **);

    AccountBook(LookUp<std::uint32_t> byId, LookUp<const char *> byName, LookUp<FILE *> next,
                const char *file)
        : byId_(byId), byName_(byName), next_(next), file_(file)
    {
    }

    const std::string &NameOf(std::uint32_t id)
    {
        if (!OutputStyle().numeric && Knows(id)) return *names_[id];
        return digits_.try_emplace(id, std::to_string(id)).first->second;
    }

    bool Knows(std::uint32_t id)
    {
        const auto [place, isNew] = names_.try_emplace(id);
        if (isNew) place->second = FindName(id);
        return place->second.has_value();
    }

    Account Find(const std::string &nameOrId, const char *kind)
    {
        if (const auto account = FindNamed(nameOrId)) return *account;
        if (const auto id = ReadId(nameOrId); id && Knows(*id)) return {*id, *names_[*id]};
        throw Failure(kNotFound, std::string("no such ") + kind + ": \"" + nameOrId +
                                     "\"; the user database knows neither the name nor the id");
    }

private:
    static constexpr int kFewLookUps = 8;

    std::optional<std::string> FindName(std::uint32_t id)
    {
        NoteLookUp();
        if (const auto known = localNames_.find(id); known != localNames_.end())
            return known->second;
        const auto account = Ask<Entry>(byId_, id);
        return account ? std::optional(account->name) : std::nullopt;
    }

    // Some sources ignore the case of a name; the entry has the right one.
    std::optional<Account> FindNamed(const std::string &name)
    {
        NoteLookUp();
        if (const auto known = localIds_.find(name); known != localIds_.end())
            return Account{known->second, name};
        return Ask<Entry>(byName_, name.c_str());
    }

    // Stops at an entry that is too long for the buffer. Later entries are looked up one by one.
    void NoteLookUp()
    {
        if (++lookUps_ != kFewLookUps) return;
        const std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(file_, "re"), &std::fclose);
        std::vector<char> buffer(kLongestEntry);
        Entry entry{};
        Entry *found = nullptr;
        while (file && next_(file.get(), &entry, buffer.data(), buffer.size(), &found) == 0) {
            const Account account = ToAccount(entry);
            localNames_.emplace(account.id, account.name); // the first entry of an id counts,
            localIds_.emplace(account.name, account.id);   // and the first one of a name
        }
    }

    LookUp<std::uint32_t> byId_;
    LookUp<const char *> byName_;
    LookUp<FILE *> next_;
    const char *file_;
    int lookUps_ = 0;
    std::unordered_map<std::uint32_t, std::optional<std::string>> names_; // nothing: not known
    std::unordered_map<std::uint32_t, std::string> digits_;
    std::unordered_map<std::uint32_t, std::string> localNames_;
    std::unordered_map<std::string, std::uint32_t> localIds_;
};

AccountBook<passwd> &Users()
{
    static AccountBook<passwd> book(::getpwuid_r, ::getpwnam_r, ::fgetpwent_r, "/etc/passwd");
    return book;
}

AccountBook<group> &Groups()
{
    static AccountBook<group> book(::getgrgid_r, ::getgrnam_r, ::fgetgrent_r, "/etc/group");
    return book;
}

std::optional<std::string> NameInLibrary(std::int32_t number)
{
    std::array<char, 256> name{};
    if (ZEVOBandwidthEnumToName(ZEVO_BW_PROTOCOL_TYPE_LIST, number, name.data(),
                                static_cast<int>(name.size())) != 1 ||
        name[0] == '\0')
        return std::nullopt;
    return name.data();
}

// The library searches add-ons by a pattern and fails on two matches. Only an add-on that it finds
// by number and by name can have rules.
bool IsUsable(const Protocol &addon)
{
    return NameInLibrary(addon.number) == addon.name &&
           ZEVOBandwidthEnumToValue(ZEVO_BW_PROTOCOL_TYPE_LIST, addon.name.c_str()) == addon.number;
}

constexpr const char *kAmbiguous =
    "another file there has the same number or a name that begins with its name";

struct Unusable {
    const char *why; // empty: it is usable
    const char *remedy;
};

Unusable WhyUnusable(const std::optional<Protocol> &protocol)
{
    if (!protocol)
        return {"its name is no NAME_NUMBER.json with a number above 0",
                "rename it, such as backup_20.json, or remove it"};
    if (IsBuiltIn(*protocol))
        return {"its name or number is taken by the system itself",
                "rename it to a name and a number of its own, or remove it"};
    if (!IsUsable(*protocol)) return {kAmbiguous, "rename or remove one of the two"};
    return {"", ""};
}

std::string KnownProtocolNames()
{
    std::vector<std::string> names;
    for (const Protocol &protocol : KnownProtocols())
        names.push_back(protocol.name);
    return Joined(names, ", ");
}

} // namespace

Account FindUser(const std::string &nameOrId)
{
    return Users().Find(nameOrId, "user");
}

Account FindGroup(const std::string &nameOrId)
{
    return Groups().Find(nameOrId, "group");
}

std::optional<std::uint32_t> ReadId(const std::string &text)
{
    const auto id = ReadNumber<std::uint32_t>(text);
    // The highest id means "nobody" to the system calls and names no account.
    return id == static_cast<std::uint32_t>(-1) ? std::nullopt : id;
}

Account CallingUser()
{
    const uid_t uid = ::getuid();
    return {uid, UserName(uid)};
}

const std::string &UserName(std::uint32_t uid)
{
    return Users().NameOf(uid);
}

const std::string &GroupName(std::uint32_t gid)
{
    return Groups().NameOf(gid);
}

std::string ShownName(const Account &account)
{
    return OutputStyle().numeric ? std::to_string(account.id) : account.name;
}

bool IsKnownUser(std::uint32_t uid)
{
    return Users().Knows(uid);
}

bool IsKnownGroup(std::uint32_t gid)
{
    return Groups().Knows(gid);
}

std::int32_t FindProtocol(const std::string &name)
{
    if (name == "all")
        throw Failure(kNotFound,
                      "\"all\" is no single protocol: name one of " + KnownProtocolNames());
    for (const Protocol &protocol : KnownProtocols())
        if (protocol.name == name) return protocol.number;
    for (const Protocol &addon : AnnouncedAddons())
        if (addon.name == name)
            throw Failure(kNotFound, "the add-on protocol \"" + name + "\" of " + kAddonDirectory +
                                         " is ambiguous: " + kAmbiguous);
    throw Failure(kNotFound,
                  "no such protocol: \"" + name + "\"; known are " + KnownProtocolNames());
}

std::string ProtocolName(std::int32_t number)
{
    return NameInLibrary(number).value_or(std::to_string(number));
}

std::vector<Protocol> KnownProtocols()
{
    std::vector<Protocol> protocols;
    for (const auto *row = ZEVO_BW_PROTOCOL_TYPE_LIST; row->name != nullptr; ++row)
        if (row->value != ZEVO_BW_PROTOCOL_ALL) protocols.push_back({row->value, row->name});
    for (Protocol &addon : AnnouncedAddons())
        if (IsUsable(addon)) protocols.push_back(std::move(addon));
    return protocols;
}

std::vector<Addon> AddonFiles()
{
    std::vector<Addon> addons;
    for (const std::string &file : NamesOfAddonFiles()) {
        const std::optional<Protocol> protocol = FromFileName(file);
        Addon &addon = addons.emplace_back();
        addon.protocol = protocol.value_or(Protocol{});
        addon.file = file;
        const Unusable unusable = WhyUnusable(protocol);
        addon.fault = unusable.why;
        addon.remedy = unusable.remedy;
    }
    std::sort(addons.begin(), addons.end(), [](const Addon &a, const Addon &b) {
        return std::tie(a.protocol.name, a.file) < std::tie(b.protocol.name, b.file);
    });
    return addons;
}

std::string ValueName(const ZEVO_BW_ENUM_ENTRY *table, std::int64_t value)
{
    for (const auto *row = table; row->name != nullptr; ++row)
        if (row->value == value) return row->name;
    return std::to_string(value);
}

std::vector<std::string> ValueNames(const ZEVO_BW_ENUM_ENTRY *table)
{
    std::vector<std::string> names;
    for (const auto *row = table; row->name != nullptr; ++row)
        names.emplace_back(row->name);
    return names;
}

std::int32_t ValueOf(const ZEVO_BW_ENUM_ENTRY *table, const std::string &name)
{
    for (const auto *row = table; row->name != nullptr; ++row)
        if (name == row->name) return row->value;
    throw Failure(kWrongUsage, "no such value: \"" + name + "\"");
}

} // namespace tool

// Names to numbers and back.
#include "model/names.hpp"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>
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
try {
    std::vector<std::string> names = FileNames(kAddonDirectory);
    std::erase_if(names, [](const std::string &name) { return !name.ends_with(kAddonSuffix); });
    return names;
} catch (const std::system_error &error) {
    if (error.code().value() == ENOENT) return {};
    throw Failure(StatusOf(error.code().value()),
                  std::string("the add-on protocols of ") + kAddonDirectory +
                      " cannot be read: " + std::strerror(error.code().value()) +
                      "; it must be a directory that every user may read");
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
        if (!names_.contains(id)) NoteLookUp();
        const auto [place, isNew] = names_.try_emplace(id);
        if (isNew)
            if (const auto account = Ask<Entry>(byId_, id)) place->second = account->name;
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
            names_.try_emplace(account.id, account.name);    // the first entry of an id counts,
            localIds_.try_emplace(account.name, account.id); // and the first one of a name
        }
    }

    LookUp<std::uint32_t> byId_;
    LookUp<const char *> byName_;
    LookUp<FILE *> next_;
    const char *file_;
    int lookUps_ = 0;
    std::unordered_map<std::uint32_t, std::optional<std::string>> names_; // nothing: not known
    std::unordered_map<std::uint32_t, std::string> digits_;
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

// What is wrong with an add-on's file, and what to do about it.
void SetFault(Addon &addon)
{
    if (addon.protocol.number == 0) {
        addon.fault = "its name is no NAME_NUMBER.json with a number above 0";
        addon.remedy = "rename it, such as backup_20.json, or remove it";
    } else if (IsBuiltIn(addon.protocol)) {
        addon.fault = "its name or number is taken by the system itself";
        addon.remedy = "rename it to a name and a number of its own, or remove it";
    } else if (!IsUsable(addon.protocol)) {
        addon.fault = kAmbiguous;
        addon.remedy = "rename or remove one of the two";
    }
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
    for (const Addon &addon : AddonFiles())
        if (addon.protocol.name == name && addon.fault == kAmbiguous)
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
    for (Addon &addon : AddonFiles())
        if (addon.fault.empty()) protocols.push_back(std::move(addon.protocol));
    return protocols;
}

std::vector<Addon> AddonFiles()
{
    std::vector<Addon> addons;
    for (const std::string &file : NamesOfAddonFiles())
        SetFault(addons.emplace_back(Addon{FromFileName(file).value_or(Protocol{}), file, "", ""}));
    std::sort(addons.begin(), addons.end(), [](const Addon &a, const Addon &b) {
        return std::tie(a.protocol.name, a.file) < std::tie(b.protocol.name, b.file);
    });
    return addons;
}

std::vector<std::string> FileNames(const std::string &directory)
{
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(directory))
        if (std::string name = entry.path().filename(); !name.starts_with('.'))
            names.push_back(std::move(name));
    std::sort(names.begin(), names.end());
    return names;
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

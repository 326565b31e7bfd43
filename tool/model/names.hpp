// Names on the command line: users and groups of the user database, protocols with their add-ons,
// and values of the public header's name tables.
#ifndef ZEVOBW_TOOL_MODEL_NAMES_HPP
#define ZEVOBW_TOOL_MODEL_NAMES_HPP

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <zevobandwidth.h>

namespace tool {

struct Account {
    std::uint32_t id = 0;
    std::string name;
};

struct Protocol {
    std::int32_t number = 0;
    std::string name;
};

// Look the text up as a name, then as an id. Throw Failure with kNotFound if the user database
// knows neither.
Account FindUser(const std::string &nameOrId);
Account FindGroup(const std::string &nameOrId);

// The id in a text of digits. The user database need not know it.
std::optional<std::uint32_t> ReadId(const std::string &text);

// The owner's name. It is the id in digits if the user database does not know the id, or with -n.
// Each id is looked up once.
const std::string &UserName(std::uint32_t uid);
const std::string &GroupName(std::uint32_t gid);
// What is printed of an account: its name, or its id when numeric ids are asked for.
std::string ShownName(const Account &account);
bool IsKnownUser(std::uint32_t uid);
bool IsKnownGroup(std::uint32_t gid);

// One protocol by its exact name, add-ons included. Throws Failure with kNotFound that lists the
// known ones; "all" is none.
std::int32_t FindProtocol(const std::string &name);

// The protocol's name; its number in digits when no add-on announces it.
std::string ProtocolName(std::int32_t number);

// The four built-in protocols, then those that the add-on directory announces, by name.
std::vector<Protocol> KnownProtocols();

// A file of the add-on directory that would announce a protocol.
struct Addon {
    Protocol protocol; // number 0 when the file's name does not tell
    std::string file;
    std::string fault; // why it cannot be used; empty when it can
    std::string remedy;
};

// By name.
std::vector<Addon> AddonFiles();

// The files of a directory, sorted, without hidden ones. Throws std::system_error.
std::vector<std::string> FileNames(const std::string &directory);

// The name of a value in one of the header's tables, its number in digits when the table lacks it.
std::string ValueName(const ZEVO_BW_ENUM_ENTRY *table, std::int64_t value);

// The names of a table, in its order.
std::vector<std::string> ValueNames(const ZEVO_BW_ENUM_ENTRY *table);

// The value of a name that the command line has already checked against the table.
std::int32_t ValueOf(const ZEVO_BW_ENUM_ENTRY *table, const std::string &name);

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_NAMES_HPP

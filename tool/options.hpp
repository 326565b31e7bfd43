// Options that several commands take, with one wording and one meaning.
#ifndef ZEVOBW_TOOL_OPTIONS_HPP
#define ZEVOBW_TOOL_OPTIONS_HPP

#include <string>

#include <CLI/CLI.hpp>

#include <zevobandwidth.h>

#include "store.hpp"

namespace tool {

struct OwnerOption {
    std::string user;
    std::string group;
    bool IsGiven() const { return !user.empty() || !group.empty(); }
    // Throws Failure when none is given or the user database does not know it.
    Owner Find() const;
};

// -u USER or -g GROUP, at most one of them; Find() refuses none.
void AddOwnerOption(CLI::App &command, OwnerOption &owner);

// -p PROTOCOL.
CLI::Option *AddProtocolOption(CLI::App &command, std::string &protocol);

// An option whose value is a name of the table. The states that can be chosen leave out NotExisted.
void AddChoice(CLI::App &command, const std::string &name, std::string &value,
               const std::string &type, const ZEVO_BW_ENUM_ENTRY *table, const std::string &help);

// --json, -n, --no-legend, --no-color: into OutputStyle(). For every command that prints.
void AddOutputOptions(CLI::App &command);

// What every command that changes something takes.
struct ChangeOptions {
    bool isDryRun = false; // says what would hold, changes nothing
    bool isSilent = false; // tells no service of the change
};
void AddChangeOptions(CLI::App &command, ChangeOptions &change);

} // namespace tool

#endif // ZEVOBW_TOOL_OPTIONS_HPP

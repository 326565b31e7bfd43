// What is wrong with the text of a rule file, the global file or a status file, which was read
// whole.
#ifndef ZEVOBW_TOOL_CHECK_LINES_HPP
#define ZEVOBW_TOOL_CHECK_LINES_HPP

#include <cstdint>
#include <ctime>
#include <functional>
#include <set>
#include <string>
#include <string_view>

#include <zevocore.h>

namespace tool {

// The first unknown name among a section's values, which a reader would replace by a default:
// "\"state\" is no name known here: \"on\"". Empty when all are known.
std::string UnknownNameInRule(const VLIB_SZ_HASH &section);
std::string UnknownNameInPolicy(const VLIB_SZ_HASH &section);

// line: counted from 1. False: no more faults are wanted, and the check ends there.
using TellFault = std::function<bool(int line, const std::string &what, const std::string &remedy)>;

// The rules of a protocol; returns whether there is any.
bool CheckRules(std::string_view text, std::int32_t protocol,
                const std::set<std::string> &protocols, const TellFault &tell);

// protocols: the names of those that can have a policy.
void CheckPolicies(std::string_view text, const std::set<std::string> &protocols,
                   const TellFault &tell);

// A stale section is no fault: it is handed to stale().
void CheckTransfers(std::string_view text, const std::set<std::string> &protocols, std::time_t now,
                    const TellFault &tell,
                    const std::function<void(int line, const std::string &section)> &stale);

} // namespace tool

#endif // ZEVOBW_TOOL_CHECK_LINES_HPP

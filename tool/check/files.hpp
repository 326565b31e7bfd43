// Checks the directory of rules and policies, and the directory of running transfers, where every
// local user can leave any file.
#ifndef ZEVOBW_TOOL_CHECK_FILES_HPP
#define ZEVOBW_TOOL_CHECK_FILES_HPP

#include <functional>
#include <string>
#include <vector>

namespace tool {

struct Finding {
    std::string file;
    int line = 0; // 0: the file as a whole
    std::string what;
    std::string remedy;
    bool isHint = false; // worth knowing, and nothing is wrong
    // Does what the remedy says. Follows no link and stays in the two directories. False when it
    // failed (errno tells). Empty where a person has to decide.
    std::function<bool()> repair;
    bool isRepaired = false;
};

// Files in order. Throws Failure with kNotPermitted where this user may not look.
std::vector<Finding> FindFaults();

} // namespace tool

#endif // ZEVOBW_TOOL_CHECK_FILES_HPP

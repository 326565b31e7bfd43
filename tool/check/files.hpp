// Looks over everything that limits are made of: the directory of rules and policies, and that of
// running transfers, in which every local user can leave what he likes.
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
    // Does what the remedy says, on this very file: follows no link and leaves both directories
    // never. False when that failed (errno tells). Empty where judgement is asked for.
    std::function<bool()> repair;
    bool isRepaired = false;
};

// Files in order. Throws Failure with kNotPermitted where this user may not look.
std::vector<Finding> FindFaults();

} // namespace tool

#endif // ZEVOBW_TOOL_CHECK_FILES_HPP

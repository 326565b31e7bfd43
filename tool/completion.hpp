// What a shell offers for a command line that is being typed. It walks the tree of declared
// commands, so that no second list of commands and options is needed.
#ifndef ZEVOBW_TOOL_COMPLETION_HPP
#define ZEVOBW_TOOL_COMPLETION_HPP

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace tool {

struct Candidate {
    std::string text; // replaces the whole last word
    std::string about;
};

struct Completion {
    std::vector<Candidate> candidates;
    bool isFile = false; // the shell completes file names itself
};

// The hidden command that the shells' scripts run. It takes every word after it as a plain word.
inline constexpr const char *kCompleteCommand = "__complete";

// words: the command line up to the cursor. The first is the tool's name. The last is being typed
// and may be empty.
Completion Complete(const CLI::App &root, const std::vector<std::string> &words);

} // namespace tool

#endif // ZEVOBW_TOOL_COMPLETION_HPP

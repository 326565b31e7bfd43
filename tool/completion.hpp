// What a shell offers for a command line that is being typed: walks the tree of commands as they
// are declared, so that every command and option is known without being listed anywhere.
#ifndef ZEVOBW_TOOL_COMPLETION_HPP
#define ZEVOBW_TOOL_COMPLETION_HPP

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace tool {

struct Candidate {
    std::string text; // for the whole of the last word
    std::string about;
};

struct Completion {
    std::vector<Candidate> candidates;
    bool isFile = false; // the shell completes file names itself
};

// The command by which the scripts ask; it takes every word behind it as it stands.
inline constexpr const char *kCompleteCommand = "__complete";

// words: the command line up to the cursor, the tool's own name first; the last one is being typed
// and may be empty.
Completion Complete(const CLI::App &root, const std::vector<std::string> &words);

} // namespace tool

#endif // ZEVOBW_TOOL_COMPLETION_HPP

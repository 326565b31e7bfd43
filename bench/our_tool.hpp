// The tool under test, and the one rule that the transfers are measured under: a limit of the group
// staff for uploads by rsync, which its users alice and bob share.
#ifndef ZEVOBW_BENCH_OUR_TOOL_HPP
#define ZEVOBW_BENCH_OUR_TOOL_HPP

#include <string>
#include <utility>
#include <vector>

namespace bench {

struct Rate {
    const char *text; // as the tool takes it
    const char *name;
    double bps;
};

class OurTool {
public:
    explicit OurTool(std::string path) : path_(std::move(path)) {}

    // Runs a command, and ends the program when that fails.
    void Run(std::vector<std::string> words) const;
    // rate: as the tool takes it.
    void LimitStaff(const char *rate) const;
    // What starts a transfer under the rule.
    std::vector<std::string> PipeAs(const std::string &user) const;

private:
    std::string path_;
};

} // namespace bench

#endif // ZEVOBW_BENCH_OUR_TOOL_HPP

#include "our_tool.hpp"

#include <sys/wait.h>

#include "field.hpp"
#include "measure.hpp"

namespace bench {

void OurTool::Run(std::vector<std::string> words) const
{
    words.insert(words.begin(), path_);
    int status = 0;
    ::waitpid(Spawn(words, Nowhere(), Nowhere()), &status, 0);
    if (status != 0) Die("'" + words[1] + " " + words[2] + "' failed");
}

void OurTool::LimitStaff(const char *rate) const
{
    Run({"policy", "set", "-p", "rsync", "--user-group", "group-only", "--inter-group", "max",
         "--occupy", "all"});
    Run({"rule", "set", "-g", "staff", "-p", "rsync", "--up", rate});
}

std::vector<std::string> OurTool::PipeAs(const std::string &user) const
{
    return {path_, "pipe", "-q", "-u", user, "-p", "rsync", "-d", "upload"};
}

} // namespace bench

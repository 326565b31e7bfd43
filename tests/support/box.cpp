#include "box.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "zevocore.h"

namespace fs = std::filesystem;

namespace {

// The fixed directories are the machine's own outside the sandbox, and tests wipe them.
void InsistOnSandbox()
{
    if (std::getenv("ZEVOBW_SANDBOX") != nullptr) return;
    std::fputs("This test wipes directories: run it through ctest or tests/support/sandbox.\n",
               stderr);
    std::_Exit(EXIT_FAILURE);
}

} // namespace

void Box::Make()
{
    Wipe();
    fs::create_directories(path_);
    fs::permissions(path_, fs::perms{0755});
}

void Box::Wipe()
{
    InsistOnSandbox();
    fs::remove_all(path_);
}

const char *Box::Path(const std::string &name)
{
    return given_.emplace_back(std::make_unique<std::string>(path_ + "/" + name))->c_str();
}

void Box::Write(const std::string &name, std::string_view text)
{
    std::ofstream out(path_ + "/" + name, std::ios::binary | std::ios::trunc);
    out << text << std::flush;
    EXPECT_TRUE(out.good()) << "cannot write " << path_ << "/" << name;
}

std::string Box::Read(const std::string &name) const
{
    const std::ifstream in(path_ + "/" + name, std::ios::binary);
    EXPECT_TRUE(in.good()) << "cannot read " << path_ << "/" << name;
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool Box::Has(const std::string &name) const
{
    return fs::exists(fs::symlink_status(path_ + "/" + name));
}

std::vector<std::string> Box::Files() const
{
    std::vector<std::string> names;
    if (!fs::exists(path_)) return names;
    for (const auto &entry : fs::directory_iterator(path_))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

void BoxTest::SetUp()
{
    standins::Reset();
    ::umask(022);
    box.Make();
    etc.Make();
    standins::Reset(); // what making them cost does not count
}

void BoxTest::TearDown()
{
    standins::Reset();
}

void ExpectSlot(unsigned code, const char *szFile, const char *szCaller, int callerLine)
{
    const testing::ScopedTrace trace(szCaller, callerLine,
                                     "recorded at line " + std::to_string(VLIBCErrorGetLine()));
    EXPECT_EQ(VLIBCErrGet(), code);
    EXPECT_STREQ(VLIBCErrorGetFile(), szFile);
}

Child::Child(const std::function<int()> &body) : pid_(::fork())
{
    if (pid_ != 0) return;
    const int result = body();
    std::fflush(nullptr);
    ::_exit(testing::Test::HasFailure() ? 1 : result);
}

Child::~Child()
{
    if (pid_ <= 0) return;
    Signal(SIGKILL);
    Wait();
}

void Child::Signal(int number) const
{
    ASSERT_GT(pid_, 0) << "no such child";
    EXPECT_EQ(::kill(pid_, number), 0);
}

int Child::Wait()
{
    int status = 0;
    while (pid_ > 0 && ::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

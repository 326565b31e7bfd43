// What the tests of the bandwidth library share: the clock and the time zone set to known values,
// the text of its files, and the operations of the platform that can be made to fail. The platform
// is stood in for in the way of stand_ins.hpp: the test program's definition is found first.
#ifndef ZEVOBW_TESTS_LIBRARY_BOX_HPP
#define ZEVOBW_TESTS_LIBRARY_BOX_HPP

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "box.hpp"
#include "hash.hpp"
#include "stand_ins.hpp"
#include "zevobandwidth.h"
#include "zevocore.h"

constexpr int64_t kUsPerSecond = 1'000'000;
constexpr int64_t kUsPerHour = 3600 * kUsPerSecond;
constexpr int64_t kSundayMidnight = 1'699'747'200; // 2023-11-12 00:00:00 UTC
constexpr int64_t kNow = kSundayMidnight + 12 * 3600;

using Lines = std::vector<std::string>;

// Base of the fixtures: as BoxTest, and it is kNow in UTC. The platform does as it really does.
class LibraryTest : public BoxTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // The stored policy of ftp, with "max" for what is not said, and the stored rules of ftp.
    void SetPolicy(const std::string &state, const std::string &userGroup = "min",
                   const std::string &plan = std::string(168, '1'));
    void SetRules(const std::string &text) { etc.Write("bandwidth.ftp.conf", text); }
    // One of them, of "user-2001" or the like.
    static std::string RuleText(const std::string &owner, uint64_t uploadKBps,
                                uint64_t downloadKBps = 0, const std::string &state = "enabled");
};

// The platform's operations, by which the library's failing exits are reached.
namespace platform {

void FailNextHashAlloc();                      // records 0x0200 in "platform"
void FailHashSet(std::string key);             // that key, likewise, until the end of the test
void SetGroups(std::vector<std::string> gids); // the group list of every user; empty: none at all
void FailNextListAlloc();
// From now on each section that is read is read of the file as it is then, as another platform may do
// it; before each of the first reads one of the actions is done.
void ReadSectionsApart(std::vector<std::function<void()>> actions);
// From now on each read of a section puts another hash in the place of the caller's.
void ReplaceHashes();

// The programs run since the test began, none of which was really run: the words of each, joined
// by blanks.
Lines Executed();

} // namespace platform

// A running transfer, as it stands in a status file.
struct FiledTransfer {
    int pid = 4711;
    uint32_t uid = kAlice;
    uint64_t speed = 1000;
    uint32_t active = 1;
    int64_t timestamp = kNow;
    std::string transfer = "upload";
    std::string protocol = "ftp";
    uint64_t expect = 2000;
    std::string owner = "user";
    uint32_t id = kAlice;
    uint32_t progress = 0;

    std::string Name() const; // of its section
    std::string Text() const; // the section
};

ZEVO_BANDWIDTH_STATUS Record(const FiledTransfer &transfer); // its filename is "/a file"

// One rule in force for a configuration made by hand.
ZEVO_BANDWIDTH_LIMIT Limit(int32_t ownerType, uint32_t id, uint64_t rateKBps);

// Takes the log and gives one line of it, "" when there is none.
std::string FirstLine();
std::string LastLine();

// The call has failed, and the last line of the log is that text of the family's source file.
void ExpectFails(int result, const std::string &family, const std::string &text,
                 const char *szCaller = __builtin_FILE(), int callerLine = __builtin_LINE());

// The log lines that a source file writes, and those by which it refuses arguments.
Lines Told(const std::string &file, const Lines &texts);
Lines Refusals(const std::string &file, Lines texts);

#endif // ZEVOBW_TESTS_LIBRARY_BOX_HPP

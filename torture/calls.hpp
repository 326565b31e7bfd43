// Every exported function that opens a status file, each ready to be called on the files of one user
// and his group; and the library's log and sleeps, which this file stands in for.
#ifndef ZEVOBW_TESTS_CALLS_HPP
#define ZEVOBW_TESTS_CALLS_HPP

#include <cstdint>
#include <vector>

#include "zevobandwidth.h"

namespace torture {

constexpr char kStatusDirectory[] = "/tmp/bandwidth";
constexpr char kUserFile[] = "/tmp/bandwidth/user-2001";
constexpr char kGroupFile[] = "/tmp/bandwidth/group-3001";
constexpr char kUserName[] = "alice";
constexpr std::uint32_t kUser = 2001;
constexpr std::uint32_t kUserGroup = 3001; // alice is a member
constexpr std::uint32_t kStranger = 2002;
constexpr std::int32_t kPlantedPid = 4711; // whose sections attackers put into the files

// What a service holds of a transfer: alice uploads by FTP under her rule and that of her group.
class Service {
public:
    Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    ZEVO_BANDWIDTH_LIMIT limits[2] = {};
    ZEVO_BANDWIDTH_CONFIG config = {};
    ZEVO_BANDWIDTH_STATUS status = {};
    std::uint64_t timeLast = 0;
};

// A section name and a path are handed only to functions that take them.
struct PathCall {
    const char *szName;
    void (*call)(Service &service, const char *szPath);
    bool opensBoth = false; // the user's file and the group's
};
extern const std::vector<PathCall> kPathCalls;

// Log lines and searches of the add-on directory since the program began.
std::uint64_t LogLines();
std::uint64_t Searches();

// The stored rules and policy that Service stands for, for functions that read them anew.
void StoreRules();

} // namespace torture

#endif // ZEVOBW_TESTS_CALLS_HPP

// What was measured of "zevobandwidth pipe" and of its peers, the table of it, and whether ours is
// the better one where it is promised to be. Compared is only what one run measured: figures of
// another machine say nothing.
#ifndef ZEVOBW_BENCH_PEER_TABLE_HPP
#define ZEVOBW_BENCH_PEER_TABLE_HPP

#include <optional>
#include <string>
#include <vector>

namespace bench {

// The rows that the others are compared with.
constexpr const char *kOurs = "zevobandwidth pipe";
constexpr const char *kPv = "pv -L";
constexpr const char *kShaper = "proftpd mod_shaper";

// One transfer held to a limit.
struct AloneRow {
    std::string peer;
    std::string limit;
    std::string why;      // there are no figures; empty where there are
    std::string remark;   // how it was set up, where that is not plain
    double off = 0;       // the mean, from the limit, as a part of it
    double most100ms = 0; // of the limit
    double mostSecond = 0;
    std::optional<double> processor; // seconds by GiB, where there were bytes
};

// Processes that share a limit; half of them join, later the other half leaves.
struct SharedRow {
    std::string peer;
    int processes = 0;
    std::string why;
    std::string remark;
    double sum = 0; // of the limit
    double jain = 0;
    std::optional<double> settled; // seconds after the join; never, where there is none
    double still = 0;      // the longest that one brought nothing after the join, in seconds
    double burst100ms = 0; // after the leave, of the limit
    double burstSecond = 0;
    std::optional<double> processor; // seconds by GiB, where there were bytes
};

struct PeerTable {
    std::vector<AloneRow> alone;
    std::vector<SharedRow> shared;

    void Print() const;
    // Ends the program where the file cannot be written.
    void WriteJson(const std::string &path) const;
    // What of ours has no figures.
    std::vector<std::string> Missing() const;
    // Where ours is worse than promised; where a peer could not be measured nothing is compared.
    std::vector<std::string> Worse() const;
};

} // namespace bench

#endif // ZEVOBW_BENCH_PEER_TABLE_HPP

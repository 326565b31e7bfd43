// How each peer of "zevobandwidth pipe" is set up to do the same: one transfer or several held to a
// limit, each bringing what it lets through on its standard output. Every limit is set in the peer's
// own unit. Servers listen on the loopback of a network of our own, where the machine lets us have
// one, and keep their files in the sandbox's /tmp.
#ifndef ZEVOBW_BENCH_PEER_SETUPS_HPP
#define ZEVOBW_BENCH_PEER_SETUPS_HPP

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

#include "our_tool.hpp"

namespace bench {

// A process that transfers need, until it is let go of.
class Daemon {
public:
    explicit Daemon(const std::vector<std::string> &words);
    // Runs in a process of its own.
    explicit Daemon(const std::function<void()> &body);
    ~Daemon();
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    pid_t pid() const { return pid_; }

private:
    pid_t pid_;
};

struct SetUp {
    std::string cannot; // why there is none; empty where there is
    // What starts a transfer, by its number.
    std::function<std::vector<std::string>(int)> words;
    bool isFed = false; // it limits what comes by its standard input
    std::vector<std::shared_ptr<Daemon>> daemons;
    pid_t limiter = -1; // the daemon that does the work; -1 where each transfer does its own
    std::string remark;
    std::shared_ptr<void> leftBehind; // what is to be cleared away at the end
};

// Where peers live.
class World {
public:
    // Takes on a network and message queues of our own. Only in the tests' sandbox.
    explicit World(const OurTool &tool);

    const OurTool &tool() const { return tool_; }
    bool hasNetwork() const { return hasNetwork_; }

private:
    OurTool tool_;
    bool hasNetwork_ = false;
};

struct Peer {
    const char *name;
    const char *program; // what has to be installed; nullptr for ours
    SetUp (*set)(const World &world, const Rate &rate);

    // As set, or a set-up that cannot.
    SetUp Prepare(const World &world, const Rate &rate) const;
};

const std::vector<Peer> &PeersAlone();
const std::vector<Peer> &PeersShared();

// What a peer that copies to another host is given for the way there: runs a command, hands it our
// standard input, and shows every byte of it to descriptor 9 too. Returns an exit status.
int Relay(const std::vector<std::string> &words);

// Seconds of processor that a process has used, and with its descendants.
double ProcessorTime(pid_t pid);
std::vector<pid_t> WithDescendants(pid_t pid);

} // namespace bench

#endif // ZEVOBW_BENCH_PEER_SETUPS_HPP

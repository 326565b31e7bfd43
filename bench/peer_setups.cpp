#include "peer_setups.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "field.hpp"
#include "measure.hpp"
#include "peer_table.hpp"

namespace bench {

namespace {

using Words = std::vector<std::string>;

constexpr const char *kDirectory = "/tmp/peers"; // not writable by all: a server insists
constexpr const char *kZeros = "/tmp/peers/zeros";
constexpr off_t kLonger = off_t{1} << 36; // than any transfer takes; all of it a hole
constexpr const char *kLoopback = "127.0.0.1";

bool Runs(const Words &words)
{
    int status = 0;
    ::waitpid(Spawn(words, Nowhere(), Nowhere()), &status, 0);
    return status == 0;
}

std::string Line(const Words &words)
{
    std::string line;
    for (const std::string &word : words)
        line += (line.empty() ? "" : " ") + word;
    return line;
}

// Without what it says when it is ended.
Words Quietly(const Words &words)
{
    Words all = {"sh", "-c", "exec \"$@\" 2>/dev/null", "sh"};
    all.insert(all.end(), words.begin(), words.end());
    return all;
}

std::function<Words(int)> Always(const Words &words)
{
    return [words](int) { return words; };
}

std::string InKiB(const Rate &rate)
{
    return std::to_string(static_cast<std::uint64_t>(rate.bps / kKi));
}

std::string InBytes(const Rate &rate)
{
    return std::to_string(static_cast<std::uint64_t>(rate.bps));
}

bool IsInstalled(const std::string &program)
{
    const char *const all = std::getenv("PATH");
    std::string rest = all != nullptr ? all : "";
    while (!rest.empty()) {
        std::string path = rest.substr(0, rest.find(':'));
        rest.erase(0, path.size() + 1);
        path += '/';
        path += program;
        if (::access(path.c_str(), X_OK) == 0) return true;
    }
    return false;
}

// ---- what sends on a network ----

sockaddr_in Address(const std::string &host, std::uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ::inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    return address;
}

struct Listener {
    int fd;
    std::uint16_t port;
};

Listener Listen(const std::string &host)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Address(host, 0);
    socklen_t cbAddress = sizeof address;
    auto *const any = reinterpret_cast<sockaddr *>(&address);
    if (fd < 0 || ::bind(fd, any, cbAddress) < 0 || ::listen(fd, SOMAXCONN) < 0 ||
        ::getsockname(fd, any, &cbAddress) < 0)
        Die("cannot listen on " + host + ": " + std::strerror(errno));
    return {fd, ntohs(address.sin_port)};
}

// A port that was free a moment ago, for servers that must be told one.
std::uint16_t FreePort()
{
    const Listener listener = Listen(kLoopback);
    ::close(listener.fd);
    return listener.port;
}

bool AnswersWithin(std::uint16_t port, std::int64_t length)
{
    const std::int64_t until = Now() + length;
    while (Now() < until) {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = Address(kLoopback, port);
        const bool isThere =
            ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
        ::close(fd);
        if (isThere) return true;
        ::usleep(10'000);
    }
    return false;
}

// Whatever is asked for, by HTTP: zeros without end.
void Answer(int fd)
{
    std::string request(4096, '\0');
    if (::recv(fd, request.data(), request.size(), 0) <= 0) return;
    const std::string head = "HTTP/1.0 200 OK\r\n\r\n";
    ::send(fd, head.data(), head.size(), MSG_NOSIGNAL);
    const std::string zeros(1 << 18, '\0');
    while (::send(fd, zeros.data(), zeros.size(), MSG_NOSIGNAL) > 0) {
    }
}

[[noreturn]] void Serve(int listener)
{
    ::signal(SIGCHLD, SIG_IGN);
    for (;;) {
        const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0 && ::fork() == 0) {
            Answer(fd);
            ::_exit(0);
        }
        ::close(fd);
    }
}

std::string UrlOf(const std::string &host, std::uint16_t port)
{
    return "http://" + host + ":" + std::to_string(port) + "/";
}

Words Curl(const std::string &url, const Words &more = {})
{
    Words words = {"curl", "-q", "-s", "--noproxy", "*"};
    words.insert(words.end(), more.begin(), more.end());
    words.push_back(url);
    return words;
}

// A server on the loopback, and what it is asked for.
std::string StartHttp(SetUp *pSetUp)
{
    const Listener listener = Listen(kLoopback);
    pSetUp->daemons.push_back(std::make_shared<Daemon>([&listener] { Serve(listener.fd); }));
    ::close(listener.fd);
    return UrlOf(kLoopback, listener.port);
}

// ---- one limit for each transfer ----

SetUp Ours(const World &world, const Rate &rate)
{
    world.tool().LimitStaff(rate.text);
    SetUp setUp;
    setUp.words = [&world](int number) {
        return world.tool().PipeAs(number % 2 == 0 ? "alice" : "bob");
    };
    setUp.isFed = true;
    return setUp;
}

SetUp Pv(const World &, const Rate &rate)
{
    SetUp setUp;
    setUp.words = Always({"pv", "-q", "-L", InBytes(rate)});
    setUp.isFed = true;
    return setUp;
}

// A speed above 0 asks it to make up for what it was late; below 0 it would fall behind for good.
SetUp Cstream(const World &, const Rate &rate)
{
    SetUp setUp;
    setUp.words = Always({"cstream", "-t", InBytes(rate)});
    setUp.isFed = true;
    return setUp;
}

SetUp LimitedCurl(const World &, const Rate &rate)
{
    SetUp setUp;
    setUp.words = Always(Curl(StartHttp(&setUp), {"--limit-rate", InKiB(rate) + "K"}));
    return setUp;
}

// It writes files, not streams: so it sends to a receiver of its own kind, and what goes there is
// watched on the way. The receiver makes holes of zeros, which takes no room.
SetUp Rsync(const World &, const Rate &rate)
{
    char self[4096] = "";
    if (::readlink("/proc/self/exe", self, sizeof self - 1) < 0) Die("cannot tell my own path");
    SetUp setUp;
    setUp.words = Always({"sh", "-c", "exec \"$@\" 9>&1 >/dev/null 2>&1", "sh", "rsync",
                          "--whole-file", "--inplace", "--sparse", "--bwlimit=" + InKiB(rate), "-e",
                          "'" + std::string(self) + "' --relay", kZeros,
                          "here:" + std::string(kDirectory) + "/copy"});
    return setUp;
}

SetUp Trickle(const World &, const Rate &rate)
{
    SetUp setUp;
    Words words = {"trickle", "-s", "-d", InKiB(rate)};
    const Words curl = Curl(StartHttp(&setUp));
    words.insert(words.end(), curl.begin(), curl.end());
    setUp.words = Always(Quietly(words));
    return setUp;
}

// ---- an FTP server ----

// With one user, alice, whose password is x. Nothing leaves this machine, and all of it ends with
// the sandbox.
SetUp Proftpd(const std::string &directives)
{
    const std::uint16_t port = FreePort();
    const std::string base = std::string(kDirectory) + "/ftp";
    const std::string users = base + ".users";
    const std::string settings = base + ".conf";
    std::ofstream(users) << "alice:$1$btQyKrok$z7pmSesOxISyIOYuLe6aN1:2001:2001::" << kDirectory
                         << ":/bin/sh\n";
    ::chmod(users.c_str(), 0600);
    std::ofstream(settings) << "ServerType standalone\nServerName peer\nPort " << port
                            << "\nDefaultAddress " << kLoopback
                            << "\nUseIPv6 off\nUseReverseDNS off\nUser root\nGroup root\n"
                               "AuthOrder mod_auth_file.c\nAuthUserFile "
                            << users
                            << "\nRequireValidShell off\nMaxInstances 100\nDelayEngine off\n"
                            << "WtmpLog off\nTransferLog none\nSystemLog none\nPidFile " << base
                            << ".pid\nScoreboardFile " << base << ".score\n"
                            << directives;
    SetUp setUp;
    setUp.daemons.push_back(std::make_shared<Daemon>(Quietly({"proftpd", "-n", "-c", settings})));
    if (!AnswersWithin(port, 5 * kSecond)) setUp.cannot = "proftpd did not start";
    setUp.limiter = setUp.daemons.front()->pid();
    setUp.words = Always(
        Curl("ftp://alice:x@" + std::string(kLoopback) + ":" + std::to_string(port) + "/zeros"));
    return setUp;
}

SetUp FtpUser(const World &, const Rate &rate)
{
    return Proftpd("TransferRate RETR " + InKiB(rate) + " user alice\n");
}

// ---- one limit for all transfers ----

// Without limits of their own, in both directions, its clients bring next to nothing.
SetUp Trickled(const World &, const Rate &rate)
{
    const std::string socket = std::string(kDirectory) + "/trickled";
    ::unlink(socket.c_str());
    SetUp setUp;
    const Words limits = {"-d", InKiB(rate), "-u", InKiB(rate)};
    Words words = {"trickle", "-n", socket};
    words.insert(words.end(), limits.begin(), limits.end());
    const Words curl = Curl(StartHttp(&setUp));
    words.insert(words.end(), curl.begin(), curl.end());
    setUp.words = Always(Quietly(words));
    Words daemon = {"trickled", "-f", "-n", socket};
    daemon.insert(daemon.end(), limits.begin(), limits.end());
    setUp.daemons.push_back(std::make_shared<Daemon>(Quietly(daemon)));
    for (int tries = 0; ::access(socket.c_str(), F_OK) != 0; ++tries) {
        if (tries == 500) {
            setUp.cannot = "trickled did not start";
            break;
        }
        ::usleep(10'000);
    }
    return setUp;
}

// Of the whole server; both directions have to be given.
SetUp FtpShaper(const World &, const Rate &rate)
{
    const std::string base = std::string(kDirectory) + "/shaper";
    return Proftpd("LoadModule mod_ctrls_admin.c\nLoadModule mod_shaper.c\n"
                   "ControlsEngine on\nControlsSocket " +
                   base + ".socket\nControlsLog " + base + ".log\nShaperEngine on\nShaperLog " +
                   base + ".log\nShaperTable " + base + ".table\nShaperAll downrate " +
                   InKiB(rate) + " uprate " + InKiB(rate) + "\n");
}

// A server in a network of its own, behind a wire that the kernel limits. The two ends speak by a
// pair of sockets: the far one says when its network is there, the near one when the wire is, the
// far one at last the port, or what went wrong.
constexpr const char *kNearHost = "192.0.2.1";
constexpr const char *kFarHost = "192.0.2.2"; // addresses that are kept free for examples

void Tell(int fd, const std::string &text)
{
    ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
}

// Empty at the end.
std::string Told(int fd)
{
    char text[512];
    const ssize_t got = ::recv(fd, text, sizeof text, 0);
    return got > 0 ? std::string(text, static_cast<std::size_t>(got)) : "";
}

// The first command that fails, or nothing.
std::string FirstFailing(const std::vector<Words> &commands)
{
    for (const Words &command : commands)
        if (!Runs(Quietly(command))) return Line(command);
    return "";
}

void FarEnd(int fd, const Rate &rate)
{
    if (::unshare(CLONE_NEWNET) < 0) return;
    Tell(fd, "network");
    if (Told(fd).empty()) return;
    const std::string speed = std::to_string(static_cast<std::uint64_t>(rate.bps * 8)) + "bit";
    const std::string failing = FirstFailing({
        {"ip", "address", "add", std::string(kFarHost) + "/30", "dev", "far"},
        {"ip", "link", "set", "far", "up"},
        {"tc", "qdisc", "add", "dev", "far", "root", "handle", "1:", "htb", "default", "1"},
        {"tc", "class", "add", "dev", "far", "parent", "1:", "classid", "1:1", "htb", "rate", speed,
         "quantum", "60000"},
    });
    if (!failing.empty()) {
        Tell(fd, "'" + failing + "' fails here");
        return;
    }
    // Fairer than a plain queue, where the kernel has it.
    const bool isFair =
        Runs(Quietly({"tc", "qdisc", "add", "dev", "far", "parent", "1:1", "fq_codel"}));
    const Listener listener = Listen(kFarHost);
    Tell(fd, ":" + std::to_string(listener.port) + (isFair ? " fq_codel below" : " pfifo below"));
    Serve(listener.fd);
}

SetUp Htb(const World &world, const Rate &rate)
{
    SetUp setUp;
    setUp.cannot = "this machine permits no network namespace";
    int ends[2];
    if (!world.hasNetwork() || ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) < 0)
        return setUp;
    const auto server = std::make_shared<Daemon>([&] {
        ::close(ends[0]);
        FarEnd(ends[1], rate);
    });
    ::close(ends[1]);
    const std::string pid = std::to_string(server->pid());
    std::string answer = Told(ends[0]);
    if (!answer.empty()) {
        const std::string failing = FirstFailing({
            {"ip", "link", "add", "near", "type", "veth", "peer", "name", "far", "netns", pid},
            {"ip", "address", "add", std::string(kNearHost) + "/30", "dev", "near"},
            {"ip", "link", "set", "near", "up"},
        });
        setUp.leftBehind = std::shared_ptr<void>(nullptr, [](void *) {
            Runs(Quietly({"ip", "link", "delete", "near"})); // by itself it would go only later
        });
        if (failing.empty()) {
            Tell(ends[0], "wire");
            answer = Told(ends[0]);
        } else {
            answer = "'" + failing + "' fails here";
        }
    }
    ::close(ends[0]);
    if (answer.empty()) return setUp;
    if (answer[0] != ':') {
        setUp.cannot = answer;
        return setUp;
    }
    setUp.cannot.clear();
    const auto port = static_cast<std::uint16_t>(std::atoi(answer.c_str() + 1));
    setUp.remark = answer.substr(answer.find(' ') + 1);
    setUp.words = Always(Curl(UrlOf(kFarHost, port)));
    setUp.daemons.push_back(server);
    setUp.limiter = server->pid();
    return setUp;
}

} // namespace

// ---- daemons ----

Daemon::Daemon(const std::vector<std::string> &words) : pid_(Spawn(words, Nowhere(), Nowhere())) {}

Daemon::Daemon(const std::function<void()> &body) : pid_(::fork())
{
    if (pid_ < 0) Die("fork failed");
    if (pid_ > 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    body();
    ::_exit(0);
}

Daemon::~Daemon()
{
    constexpr int kPatience = 100; // times 10 ms
    ::kill(pid_, SIGTERM);
    for (int i = 0; i < kPatience; ++i) {
        if (::waitpid(pid_, nullptr, WNOHANG) != 0) return;
        ::usleep(10'000);
    }
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
}

// ---- the world ----

World::World(const OurTool &tool) : tool_(tool)
{
    if (std::getenv("ZEVOBW_SANDBOX") == nullptr)
        Die("changes rules and starts servers: only in tests/support/sandbox");
    hasNetwork_ = ::unshare(CLONE_NEWNET | CLONE_NEWIPC) == 0;
    // Where administrators' programs are, also for who has them not in his path.
    const char *const path = std::getenv("PATH");
    ::setenv("PATH",
             (std::string(path != nullptr ? path : "/usr/bin:/bin") + ":/usr/sbin:/sbin").c_str(),
             1);
    if (hasNetwork_ && !Runs({"ip", "link", "set", "lo", "up"}))
        Die("cannot bring up the loopback; is the package iproute2 installed?");
    ::mkdir(kDirectory, 0755);
    const int fd = ::open(kZeros, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 || ::ftruncate(fd, kLonger) < 0) Die("cannot make " + std::string(kZeros));
    ::close(fd);
}

SetUp Peer::Prepare(const World &world, const Rate &rate) const
{
    if (program == nullptr || IsInstalled(program)) return set(world, rate);
    SetUp setUp;
    setUp.cannot = std::string(program) + " is not installed";
    return setUp;
}

const std::vector<Peer> &PeersAlone()
{
    static const std::vector<Peer> peers = {
        {kOurs, nullptr, Ours},
        {kPv, "pv", Pv},
        {"cstream -t", "cstream", Cstream},
        {"curl --limit-rate", "curl", LimitedCurl},
        {"rsync --bwlimit", "rsync", Rsync},
        {"trickle -d", "trickle", Trickle},
        {"proftpd TransferRate", "proftpd", FtpUser},
    };
    return peers;
}

const std::vector<Peer> &PeersShared()
{
    static const std::vector<Peer> peers = {
        {kOurs, nullptr, Ours},
        {"trickled -d", "trickled", Trickled},
        {kShaper, "proftpd", FtpShaper},
        {"HTB class", "tc", Htb},
    };
    return peers;
}

// ---- a way to another host ----

int Relay(const std::vector<std::string> &words)
{
    constexpr int kShownTo = 9;
    constexpr std::size_t kPiece = 1 << 16;
    int held[2];
    int given[2];
    if (::pipe2(held, O_CLOEXEC) < 0 || ::pipe2(given, O_CLOEXEC) < 0) Die("no more pipes");
    const pid_t pid = Spawn(words, given[0], STDOUT_FILENO);
    ::close(given[0]);
    for (;;) {
        ssize_t left = ::splice(STDIN_FILENO, nullptr, held[1], nullptr, kPiece, 0);
        if (left <= 0) break;
        while (left > 0) {
            const ssize_t shown = ::tee(held[0], kShownTo, static_cast<std::size_t>(left), 0);
            if (shown <= 0) return 1;
            for (ssize_t passed = 0; passed < shown;) {
                const ssize_t moved = ::splice(held[0], nullptr, given[1], nullptr,
                                               static_cast<std::size_t>(shown - passed), 0);
                if (moved <= 0) return 1;
                passed += moved;
            }
            left -= shown;
        }
    }
    ::close(given[1]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return status == 0 ? 0 : 1;
}

// ---- processor time ----

double ProcessorTime(pid_t pid)
{
    clockid_t clock = 0;
    timespec used = {};
    if (::clock_getcpuclockid(pid, &clock) != 0 || ::clock_gettime(clock, &used) < 0) return 0;
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

namespace {

pid_t ParentOf(const std::string &pid)
{
    std::ifstream file("/proc/" + pid + "/stat");
    std::string line;
    std::getline(file, line);
    const std::size_t afterName = line.rfind(')'); // a name may hold anything
    if (afterName == std::string::npos || line.size() < afterName + 4) return -1;
    return std::atoi(line.c_str() + afterName + 4);
}

} // namespace

std::vector<pid_t> WithDescendants(pid_t pid)
{
    std::map<pid_t, pid_t> parents;
    DIR *const all = ::opendir("/proc");
    if (all == nullptr) return {pid};
    while (const dirent *const entry = ::readdir(all))
        if (const pid_t one = std::atoi(entry->d_name); one > 0)
            parents[one] = ParentOf(entry->d_name);
    ::closedir(all);
    std::vector<pid_t> found = {pid};
    for (std::size_t i = 0; i < found.size(); ++i)
        for (const auto &[child, parent] : parents)
            if (parent == found[i]) found.push_back(child);
    return found;
}

} // namespace bench

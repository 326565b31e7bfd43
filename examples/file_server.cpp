// A small threaded file server over TCP on the loopback, for the files of one user, held to that
// user's limits for FTP. It is an example, without passwords. A client's first line is one of
//
//     get photos.tar      the file, up to the end of the connection: a download
//     put photos.tar      the file from here on, until the client shuts down: an upload
//
// When a transfer is refused, stopped or broken, the server resets the connection; a real protocol
// says why. A client that sends nothing keeps its thread; a real server has a timeout.
//
//     c++ -std=c++11 -pthread -o file_server file_server.cpp -lzevobandwidth -lzevocore
//     ./file_server alice 2121 /srv/files
//     printf 'get photos.tar\n' | nc -q -1 127.0.0.1 2121 >photos.tar
//
// or through CMake, see CMakeLists.txt here.
//
// The name of a transfer's section has the process and the direction, and nothing else. Hence:
//
//  - Each user has a server process: in the status file of a group the transfers of two users in one
//    process would be taken for one, and each would have the group's whole speed.
//  - In each process all downloads are one zevobw::Transfer, and all uploads are another. It is told
//    the bytes of all threads, see Lane. An administrator can only stop all of them together.
//
// After a SIGHUP the transfers read the limits anew. SIGTERM and SIGINT end them and the server, and
// no section is left.
#include <zevobandwidth.hpp>

#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

namespace {

constexpr std::size_t kBlock = 64 * 1024;
constexpr int kThreads = 16;              // so many clients at once; others wait to be accepted
constexpr struct timeval kQuiet = {1, 0}; // so long a thread waits for the network
using Clock = std::chrono::steady_clock;

std::atomic<unsigned> notices{0}; // that limits have changed
std::atomic<bool> isEnding{false};
static_assert(ATOMIC_INT_LOCK_FREE == 2 && ATOMIC_BOOL_LOCK_FREE == 2, "for signal handlers");

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor()
    {
        if (fd_ >= 0) (void)close(fd_);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    explicit operator bool() const { return fd_ >= 0; }
    int get() const { return fd_; }

private:
    const int fd_;
};

// ---- what the threads share ----

// Tells what failed; a stop is no fault.
bool Passes(const zevobw::Outcome &outcome)
{
    if (!outcome && !outcome.error().IsStop())
        (void)std::fprintf(stderr, "file_server: %s\n", outcome.error().Text().c_str());
    return outcome.ok();
}

// All transfers in one direction, which are one for the library. The threads take turns to tell it
// their bytes, in the order in which they come. It begins with the first of them and ends with the
// last.
class Lane {
public:
    Lane(std::uint32_t uid, std::int32_t direction) : uid_(uid), direction_(direction) {}

    bool Join(const std::string &name)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (users_ == 0) {
            auto begun = zevobw::Transfer::Begin(uid_, ZEVO_BW_PROTOCOL_FTP, direction_,
                                                 name.c_str(), &notices);
            transfer_ = std::move(begun.value());
            paid_ = Clock::now();
            if (!Passes(begun)) return false;
        }
        ++users_;
        return true;
    }
    void Leave()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (--users_ == 0) (void)transfer_.End(); // what fails goes stale after 30 seconds
    }
    // Sleeps a block off, and says how large the next one may be: 0 when the transfer has to end.
    std::size_t Moved(std::size_t bytes)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        const unsigned mine = lastTurn_++;
        turn_.wait(lock, [&] { return mine == turnOf_; });
        const unsigned users = users_;
        lock.unlock(); // the others come and go meanwhile, but the transfer is this thread's
        const bool goesOn = !isEnding && Pay(bytes);
        const std::uint64_t next = goesOn ? transfer_.BlockSize(kBlock) / users + 1 : 0;
        lock.lock();
        ++turnOf_;
        turn_.notify_all();
        return static_cast<std::size_t>(next);
    }

private:
    // A payment for nothing keeps the transfer listed, but the time that the others' blocks have been
    // under way counts for nobody then: hence only where nobody else has paid for long.
    bool Pay(std::size_t bytes)
    {
        const Clock::time_point now = Clock::now();
        if (bytes == 0 && now - paid_ < std::chrono::seconds(10)) return !transfer_.stopped();
        paid_ = now;
        return Passes(transfer_.Moved(bytes, 0));
    }

    const std::uint32_t uid_;
    const std::int32_t direction_;
    std::mutex mutex_;
    std::condition_variable turn_;
    unsigned lastTurn_ = 0, turnOf_ = 0;
    unsigned users_ = 0;
    zevobw::Transfer transfer_;
    Clock::time_point paid_;
};

// ---- one connection ----

// Reads the client's first line and nothing after it, because the file may follow. "" when there is
// nothing to do.
std::string ReadRequest(int client)
{
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    std::string line;
    char next = 0;
    while (line.size() < 512 && Clock::now() < deadline && read(client, &next, 1) == 1 &&
           next != '\n')
        line += next;
    const bool isOne = next == '\n' && line.size() > 4 && line[4] != '.' &&
                       line.find('/') == line.npos &&
                       (line.compare(0, 4, "get ") == 0 || line.compare(0, 4, "put ") == 0);
    return isOne ? line : "";
}

// Whether a read or write only timed out, or a notice cut it short: no bytes were moved then.
bool IsQuiet(ssize_t moved)
{
    return moved < 0 && (errno == EAGAIN || errno == EINTR);
}

// Tells the library each part of the block that was sent. Gives the size of the next block, 0 when
// the transfer must end.
std::size_t WriteAll(int to, const char *bytes, std::size_t size, Lane &lane)
{
    std::size_t most = size;
    while (size > 0 && most > 0) {
        const ssize_t written = write(to, bytes, size);
        if (written < 0 && !IsQuiet(written)) return 0;
        const auto part = static_cast<std::size_t>(std::max<ssize_t>(written, 0));
        bytes += part;
        size -= part;
        most = lane.Moved(part);
    }
    return most;
}

// Whether it came to the end of the file.
bool Move(int from, int to, Lane &lane)
{
    char block[kBlock];
    std::size_t most = lane.Moved(0);
    while (most > 0) {
        const ssize_t got = read(from, block, std::min(most, kBlock));
        if (got == 0) return true;
        if (got > 0)
            most = WriteAll(to, block, static_cast<std::size_t>(got), lane);
        else
            most = IsQuiet(got) ? lane.Moved(0) : 0;
    }
    return false;
}

// Whether the whole file has arrived. Only then does it replace the old one.
bool Serve(int client, Lane &downloads, Lane &uploads)
{
    const std::string request = ReadRequest(client);
    if (request.empty()) return false;
    const std::string name = request.substr(4);
    const bool isGet = request[0] == 'g';
    std::string part = "." + name + ".XXXXXX"; // no client can name it
    const Descriptor file(isGet ? open(name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC)
                                : mkostemp(&part[0], O_CLOEXEC));
    Lane &lane = isGet ? downloads : uploads;
    bool isWhole = file && lane.Join(name);
    if (isWhole) {
        isWhole = isGet ? Move(file.get(), client, lane) : Move(client, file.get(), lane);
        lane.Leave();
    }
    if (isGet || !file) return isWhole;
    isWhole = isWhole && fchmod(file.get(), 0644) == 0 && rename(part.c_str(), name.c_str()) == 0;
    if (!isWhole) (void)unlink(part.c_str());
    return isWhole;
}

// Makes close() reset the connection.
void Reset(int client)
{
    const struct linger discard = {1, 0};
    (void)setsockopt(client, SOL_SOCKET, SO_LINGER, &discard, sizeof(discard));
}

// ---- the server ----

void LimitWaits(int socket)
{
    for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO})
        (void)setsockopt(socket, SOL_SOCKET, option, &kQuiet, sizeof(kQuiet));
}

int Listen(std::uint16_t port)
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int yes = 1;
    (void)setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    LimitWaits(listener);
    socklen_t size = sizeof(address);
    const auto any = reinterpret_cast<struct sockaddr *>(&address);
    if (bind(listener, any, size) != 0 || listen(listener, SOMAXCONN) != 0 ||
        getsockname(listener, any, &size) != 0)
        return -1;
    (void)std::printf("listening on 127.0.0.1:%d\n", ntohs(address.sin_port));
    (void)std::fflush(stdout);
    return listener;
}

// Each thread accepts connections, and looks from time to time whether the server must end.
void Run(int listener, std::uint32_t uid)
{
    Lane downloads(uid, ZEVO_BW_TRANSFER_DOWNLOAD);
    Lane uploads(uid, ZEVO_BW_TRANSFER_UPLOAD);
    std::thread threads[kThreads];
    for (std::thread &thread : threads)
        thread = std::thread([&] {
            while (!isEnding) {
                const Descriptor client(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
                LimitWaits(client.get());
                if (client && !Serve(client.get(), downloads, uploads)) Reset(client.get());
            }
        });
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace

int main(int argc, char *argv[])
{
    const struct passwd *const user = argc == 4 ? getpwnam(argv[1]) : nullptr;
    const int port = argc == 4 ? std::atoi(argv[2]) : -1;
    if (user == nullptr || port < 0 || port > 65535) {
        (void)std::fprintf(stderr, "usage: file_server USER PORT DIRECTORY, PORT 0 for any\n");
        return 2;
    }
    // Where this is more than an example it becomes that user here: initgroups(), setgid(), setuid().
    const bool isThere = chdir(argv[3]) == 0;
    const Descriptor listener(isThere ? Listen(static_cast<std::uint16_t>(port)) : -1);
    if (!listener) {
        std::perror(isThere ? "file_server: 127.0.0.1" : argv[3]);
        return 1;
    }
    (void)std::signal(SIGHUP, [](int) { ++notices; });
    for (const int signal : {SIGINT, SIGTERM})
        (void)std::signal(signal, [](int) { isEnding = true; });
    (void)std::signal(SIGPIPE, SIG_IGN);
    Run(listener.get(), user->pw_uid);
    return 0;
}

// A small file server over TCP on the loopback, held to the users' limits for FTP. The client's
// first line says who wants what; there are no passwords, it is an example:
//
//     alice get photos.tar      the file, up to the end of the connection: a download
//     alice put photos.tar      the file from here on, until the client shuts down: an upload
//
//     c++ -std=c++11 -pthread -o file_server file_server.cpp -lzevobandwidth -lzevocore
//     ./file_server 2121 /srv/files
//     printf 'alice get photos.tar\n' | nc -q -1 127.0.0.1 2121 >photos.tar
//
// or through CMake, see CMakeLists.txt here.
//
// Several transfers in one process. A transfer's section bears the process and the direction, so
// that all downloads of one process and user are one to the library, and in the file of a group
// even those of different users are. Hence:
//
//  - Each user has a worker process of his own: in the files of the groups that are charged his
//    transfers stand apart from those of others.
//  - In it all downloads are one zevobw::Transfer, and all uploads another, which is told of the
//    bytes of all of them: see Lane. They come to the limit together, and share it evenly. What an
//    administrator stops are all of them.
//
// SIGHUP to the server has all transfers read the limits anew; SIGTERM and SIGINT end it, with no
// section left.
#include <zevobandwidth.hpp>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace {

constexpr std::int32_t kProtocol = ZEVO_BW_PROTOCOL_FTP;
constexpr std::uint64_t kBlock = 64 * 1024;
constexpr int kQuietMs = 1000; // so often at least a transfer without bytes is looked after

std::atomic<unsigned> notices{0}; // that limits have changed; written by the handler
std::atomic<bool> isEnding{false};
static_assert(ATOMIC_INT_LOCK_FREE == 2 && ATOMIC_BOOL_LOCK_FREE == 2, "for signal handlers");

void OnNotice(int)
{
    ++notices;
}
void OnEnding(int)
{
    isEnding = true;
}

void Handle(int signal, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler; // no flags: it cuts a sleep, or an accept(), short
    (void)sigaction(signal, &action, nullptr);
}

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() { Close(); }
    Descriptor(Descriptor &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Descriptor &operator=(Descriptor &&) = delete;
    explicit operator bool() const { return fd_ >= 0; }
    int get() const { return fd_; }
    void Close()
    {
        if (fd_ >= 0) (void)close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

// ---- what the threads of a worker share ----

// All transfers of a worker in one direction: one to the library. A thread that has moved a block
// hands its bytes in; whoever finds nobody paying sleeps for all that have come together, and the
// others wait for it. So everybody moves one block a round.
class Lane {
public:
    Lane(std::uint32_t uid, std::int32_t direction) : uid_(uid), direction_(direction) {}

    bool Join(const std::string &name)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (users_ == 0 && !Begin(name)) return false;
        ++users_;
        return true;
    }
    void Leave()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (--users_ == 0) (void)transfer_.End(); // what fails goes stale after 30 seconds
    }
    std::size_t BlockSize()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<std::size_t>(std::max<std::uint64_t>(1, block_ / users_));
    }
    // False when the transfers have been stopped or can no longer be held to the limit.
    bool Moved(std::uint64_t bytes)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        const std::uint64_t mine = told_ += bytes;
        do {
            if (!isPaying_)
                Pay(lock);
            else
                turn_.wait(lock);
        } while (paid_ < mine);
        return goesOn_;
    }

private:
    bool Begin(const std::string &name)
    {
        auto begun = zevobw::Transfer::Begin(uid_, kProtocol, direction_, name.c_str(), &notices);
        if (!begun) (void)std::fprintf(stderr, "file_server: %s\n", begun.error().Text().c_str());
        transfer_ = std::move(begun.value());
        block_ = transfer_.BlockSize(kBlock);
        goesOn_ = begun.ok();
        return goesOn_;
    }
    // The transfer belongs to the one thread that pays.
    void Pay(std::unique_lock<std::mutex> &lock)
    {
        const std::uint64_t upTo = told_;
        const std::uint64_t bytes = upTo - paid_;
        isPaying_ = true;
        lock.unlock();
        const zevobw::Outcome paid = transfer_.Moved(bytes, 0);
        const std::uint64_t block = transfer_.BlockSize(kBlock);
        lock.lock();
        isPaying_ = false;
        paid_ = upTo;
        block_ = block;
        goesOn_ = goesOn_ && paid;
        turn_.notify_all();
    }

    const std::uint32_t uid_;
    const std::int32_t direction_;
    std::mutex mutex_;
    std::condition_variable turn_;
    zevobw::Transfer transfer_;
    std::uint64_t told_ = 0, paid_ = 0; // bytes
    std::uint64_t block_ = kBlock;      // for all of them together
    unsigned users_ = 0;
    bool isPaying_ = false;
    bool goesOn_ = true;
};

// A thread's place in a lane.
class Place {
public:
    Place(Lane &lane, const std::string &name) : lane_(lane), isTaken_(lane.Join(name)) {}
    ~Place()
    {
        if (isTaken_) lane_.Leave();
    }
    Place(const Place &) = delete;
    Place &operator=(const Place &) = delete;
    explicit operator bool() const { return isTaken_; }

private:
    Lane &lane_;
    const bool isTaken_;
};

// ---- one connection ----

struct Request {
    std::string user, verb, name;
};

// Reads up to the line's end and no further, for what follows may be the file.
bool Read(int fd, Request &request)
{
    std::string line;
    char next = 0;
    while (line.size() < 512 && read(fd, &next, 1) == 1 && next != '\n')
        line += next;
    const std::size_t verb = line.find(' ');
    const std::size_t name = line.find(' ', verb + 1);
    if (next != '\n' || verb == line.npos || name == line.npos) return false;
    request = {line.substr(0, verb), line.substr(verb + 1, name - verb - 1), line.substr(name + 1)};
    return !request.name.empty() && request.name[0] != '.' && request.name.find('/') == line.npos &&
           (request.verb == "get" || request.verb == "put");
}

bool WriteAll(int fd, const char *bytes, std::size_t size)
{
    while (size > 0) {
        const ssize_t written = write(fd, bytes, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

// Waits for the other end, and keeps a transfer whose client is slow from going stale.
bool IsReady(int fd, short events, Lane &lane)
{
    struct pollfd one = {fd, events, 0};
    int ready = 0;
    while (ready == 0 && !isEnding) {
        ready = poll(&one, 1, kQuietMs);
        if (ready < 0 && errno == EINTR) ready = 0;
        if (ready == 0 && !lane.Moved(0)) return false;
    }
    return ready > 0 && !isEnding;
}

void Serve(const Descriptor &client, const Request &request, int directory, Lane &lane)
{
    const bool isGet = request.verb == "get";
    const int flags = isGet ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC;
    const Descriptor file(
        openat(directory, request.name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, 0666));
    const Place place(lane, request.name);
    if (!file || !place) return;
    std::string block(kBlock, '\0');
    const int from = isGet ? file.get() : client.get();
    const int to = isGet ? client.get() : file.get();
    for (;;) {
        if (!IsReady(client.get(), isGet ? POLLOUT : POLLIN, lane)) return;
        const ssize_t size = read(from, &block[0], std::min(block.size(), lane.BlockSize()));
        if (size <= 0 || !WriteAll(to, block.data(), static_cast<std::size_t>(size))) return;
        if (!lane.Moved(static_cast<std::uint64_t>(size))) return;
    }
}

// ---- the worker of one user ----

// The threads at work; the last one out lets the process end.
class Crew {
public:
    template <class Job> void Start(Job job)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::thread([this, job] {
            job();
            const std::lock_guard<std::mutex> done(mutex_);
            --size_;
            ended_.notify_all();
        }).detach();
        ++size_;
    }
    void Wait()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        ended_.wait(lock, [this] { return size_ == 0; });
    }

private:
    std::mutex mutex_;
    std::condition_variable ended_;
    unsigned size_ = 0;
};

// A connection on its way to the worker: the request's words, and the descriptor beside them.
union Control {
    char bytes[CMSG_SPACE(sizeof(int))];
    struct cmsghdr header; // for its alignment
};

struct msghdr Message(struct iovec &part, Control &control)
{
    struct msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof(control.bytes);
    return message;
}

bool HandOver(int socket, const Request &request, int client)
{
    std::string text = request.verb + " " + request.name;
    struct iovec part = {&text[0], text.size()};
    Control control = {};
    const struct msghdr message = Message(part, control);
    control.header.cmsg_level = SOL_SOCKET;
    control.header.cmsg_type = SCM_RIGHTS;
    control.header.cmsg_len = CMSG_LEN(sizeof(client));
    std::memcpy(CMSG_DATA(&control.header), &client, sizeof(client));
    return sendmsg(socket, &message, MSG_NOSIGNAL) > 0;
}

// -1 when the server has gone.
int TakeOver(int socket, Request &request)
{
    char text[1024];
    struct iovec part = {text, sizeof(text)};
    Control control = {};
    struct msghdr message = Message(part, control);
    ssize_t size = 0;
    do
        size = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    while (size < 0 && errno == EINTR);
    if (size <= 4 || control.header.cmsg_type != SCM_RIGHTS) return -1;
    request.verb.assign(text, 3); // "get" or "put"
    request.name.assign(text + 4, static_cast<std::size_t>(size) - 4);
    int client = -1;
    std::memcpy(&client, CMSG_DATA(&control.header), sizeof(client));
    return client;
}

// Here a server of real users gives up its privileges: setgroups(), setgid() and setuid(), before
// the first thread.
[[noreturn]] void Work(int inbox, std::uint32_t uid, int directory)
{
    Lane downloads(uid, ZEVO_BW_TRANSFER_DOWNLOAD);
    Lane uploads(uid, ZEVO_BW_TRANSFER_UPLOAD);
    Crew crew;
    Request request;
    for (int fd = TakeOver(inbox, request); fd >= 0; fd = TakeOver(inbox, request)) {
        const auto client = std::make_shared<Descriptor>(fd);
        Lane *const lane = request.verb == "get" ? &downloads : &uploads;
        crew.Start([=] { Serve(*client, request, directory, *lane); });
    }
    isEnding = true;
    crew.Wait();
    _exit(0);
}

// ---- the server ----

class Server {
public:
    Server(int listener, int directory) : listener_(listener), directory_(directory) {}

    void Run()
    {
        sigset_t held; // everywhere but in the wait, so that none slips in before it
        sigemptyset(&held);
        for (const int signal : {SIGHUP, SIGINT, SIGTERM})
            sigaddset(&held, signal);
        (void)sigprocmask(SIG_BLOCK, &held, &inWaits_);
        unsigned told = 0;
        while (!isEnding) {
            struct pollfd one = {listener_.get(), POLLIN, 0};
            const bool isCalled = ppoll(&one, 1, nullptr, &inWaits_) == 1;
            if (told != notices) Tell();
            told = notices;
            if (isCalled) Accept();
        }
        for (auto &worker : workers_)
            worker.second.inbox.Close();
        for (const auto &worker : workers_)
            (void)waitpid(worker.second.pid, nullptr, 0);
    }

private:
    struct Worker {
        pid_t pid;
        Descriptor inbox;
    };

    void Tell() const
    {
        for (const auto &worker : workers_)
            (void)kill(worker.second.pid, SIGHUP);
    }

    // A client has two seconds to say what it wants: the others wait meanwhile.
    void Accept()
    {
        Descriptor client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        const struct timeval forRequest = {2, 0}, forBlock = {10, 0};
        (void)setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &forRequest, sizeof(forRequest));
        (void)setsockopt(client.get(), SOL_SOCKET, SO_SNDTIMEO, &forBlock, sizeof(forBlock));
        Request request;
        if (!client || !Read(client.get(), request)) return;
        const struct passwd *const user = getpwnam(request.user.c_str());
        if (user == nullptr) return;
        Worker *const worker = WorkerOf(user->pw_uid, client);
        if (worker == nullptr || HandOver(worker->inbox.get(), request, client.get())) return;
        (void)waitpid(worker->pid, nullptr, 0); // it has died; the client asks again
        workers_.erase(user->pw_uid);
    }

    Worker *WorkerOf(std::uint32_t uid, Descriptor &client)
    {
        const auto found = workers_.find(uid);
        if (found != workers_.end()) return &found->second;
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return nullptr;
        Descriptor ours(pair[0]), theirs(pair[1]);
        const pid_t pid = fork();
        if (pid < 0) return nullptr;
        if (pid == 0) { // what it kept open would not end when the others close it
            workers_.clear();
            for (Descriptor *const descriptor : {&listener_, &client, &ours})
                descriptor->Close();
            Handle(SIGINT, SIG_IGN); // the server says when to end
            Handle(SIGTERM, SIG_IGN);
            (void)sigprocmask(SIG_SETMASK, &inWaits_, nullptr);
            Work(theirs.get(), uid, directory_);
        }
        return &workers_.emplace(uid, Worker{pid, std::move(ours)}).first->second;
    }

    Descriptor listener_;
    const int directory_;
    std::map<std::uint32_t, Worker> workers_;
    sigset_t inWaits_ = {};
};

int Listen(std::uint16_t port)
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int yes = 1;
    (void)setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    socklen_t size = sizeof(address);
    const auto any = reinterpret_cast<struct sockaddr *>(&address);
    if (bind(listener, any, size) != 0 || listen(listener, SOMAXCONN) != 0 ||
        getsockname(listener, any, &size) != 0)
        return -1;
    (void)std::printf("listening on 127.0.0.1:%d\n", ntohs(address.sin_port));
    (void)std::fflush(stdout);
    return listener;
}

} // namespace

int main(int argc, char *argv[])
{
    const int port = argc == 3 ? std::atoi(argv[1]) : -1;
    if (port < 0 || port > 65535) {
        (void)std::fprintf(stderr, "usage: file_server PORT DIRECTORY, PORT 0 for any\n");
        return 2;
    }
    const int directory = open(argv[2], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int listener = directory < 0 ? -1 : Listen(static_cast<std::uint16_t>(port));
    if (listener < 0) {
        std::perror(directory < 0 ? argv[2] : "file_server: 127.0.0.1");
        return 1;
    }
    Handle(SIGHUP, OnNotice);
    Handle(SIGINT, OnEnding);
    Handle(SIGTERM, OnEnding);
    Handle(SIGPIPE, SIG_IGN);
    Server(listener, directory).Run();
    return 0;
}

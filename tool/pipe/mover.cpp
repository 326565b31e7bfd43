// A blocking pipe is opened a second time through /proc, without blocking. If that is not
// permitted, it is polled first, and written in pieces that a ready pipe takes whole.
#include "pipe/mover.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "failure.hpp"
#include "pipe/signal.hpp"

namespace tool {

namespace {

constexpr std::size_t kMaxAtOnce = 1U << 20;
constexpr std::size_t kBufferBytes = 256U << 10;
constexpr int kPipeBytes = 1 << 20;

// A shorter wait does not count: only the processor was busy.
constexpr std::int64_t kNoWaitUs = 50;

[[noreturn]] void FailWith(const char *what)
{
    throw Failure(kFailed, std::string(what) + " failed: " + std::strerror(errno));
}

} // namespace

Mover::End Mover::Open(int fd, bool forReading)
{
    End end = {.fd = fd, .most = kMaxAtOnce};
    struct stat info = {};
    if (::fstat(fd, &info) < 0) FailWith(forReading ? "standard input" : "standard output");
    end.isPipe = S_ISFIFO(info.st_mode);
    end.isSocket = S_ISSOCK(info.st_mode);
    end.pollFirst = end.isSocket || S_ISCHR(info.st_mode);
    if (::isatty(fd) != 0) end.most = PIPE_BUF;
    if (!end.isPipe) return end;
    // Larger pipes need fewer calls. A refusal does no harm.
    static_cast<void>(::fcntl(fd, F_SETPIPE_SZ, kPipeBytes));
    const int own = ::open(("/proc/self/fd/" + std::to_string(fd)).c_str(),
                           (forReading ? O_RDONLY : O_WRONLY) | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (own >= 0) {
        end.fd = own;
        end.owned = true;
    } else if ((::fcntl(fd, F_GETFL) & O_NONBLOCK) == 0) {
        end.pollFirst = true;
        end.most = PIPE_BUF;
    }
    return end;
}

Mover::Mover(int input, int output) : in_(Open(input, true)), out_(Open(output, false))
{
    // splice() into a blocking socket blocks.
    canSplice_ = (in_.isPipe || out_.isPipe) && !out_.isSocket;
}

Mover::~Mover()
{
    for (const End &end : {in_, out_})
        if (end.owned) ::close(end.fd);
}

Moved Mover::Move(std::uint64_t most, std::int64_t untilUs)
{
    Moved moved;
    while (moved.bytes < most) {
        Step step = Advance(most - moved.bytes, &moved.bytes);
        const bool isStuck = step > Step::kReaderGone;
        if (isStuck) step = WaitFor(step, untilUs, &moved.heldUpUs);
        if (step == Step::kEndOfInput)
            moved.end = MoveEnd::kEndOfInput;
        else if (step == Step::kReaderGone)
            moved.end = MoveEnd::kReaderGone;
        else if (isStuck && (ReloadNoticePending() || EndingSignal() != 0))
            moved.end = MoveEnd::kSignal;
        else if (NowUs() >= untilUs)
            moved.end = MoveEnd::kTime;
        if (moved.end != MoveEnd::kFull) break;
    }
    return moved;
}

Mover::Step Mover::Advance(std::uint64_t most, std::uint64_t *pMoved)
{
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(most, kMaxAtOnce));
    if (canSplice_) {
        const Step step = Splice(size, pMoved);
        if (canSplice_) return step;
    }
    if (head_ == tail_) {
        const Step step = Fill(size);
        if (step != Step::kMoved) return step;
    }
    return Drain(pMoved);
}

Mover::Step Mover::Splice(std::size_t most, std::uint64_t *pMoved)
{
    if (in_.pollFirst && WaitForOne(true, 0) != Step::kMoved) return Step::kInputEmpty;
    const ssize_t moved = ::splice(in_.fd, nullptr, out_.fd, nullptr, most,
                                   SPLICE_F_NONBLOCK | SPLICE_F_MOVE | SPLICE_F_MORE);
    if (moved > 0) {
        *pMoved += static_cast<std::uint64_t>(moved);
        return Step::kMoved;
    }
    if (moved == 0) return Step::kEndOfInput;
    if (errno == EAGAIN || errno == EINTR) return Step::kEitherStuck;
    if (errno == EPIPE) return Step::kReaderGone;
    if (errno != EINVAL && errno != ENOSYS) FailWith("moving the data");
    canSplice_ = false;
    return Step::kMoved;
}

Mover::Step Mover::Fill(std::size_t most)
{
    if (in_.pollFirst && WaitForOne(true, 0) != Step::kMoved) return Step::kInputEmpty;
    buffer_.resize(kBufferBytes);
    const std::size_t size = std::min(most, buffer_.size());
    const ssize_t got = in_.isSocket ? ::recv(in_.fd, buffer_.data(), size, MSG_DONTWAIT)
                                     : ::read(in_.fd, buffer_.data(), size);
    if (got == 0) return Step::kEndOfInput;
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return Step::kInputEmpty;
    if (got < 0) FailWith("reading the data");
    head_ = 0;
    tail_ = static_cast<std::size_t>(got);
    return Step::kMoved;
}

Mover::Step Mover::Drain(std::uint64_t *pMoved)
{
    if (out_.pollFirst && WaitForOne(false, 0) != Step::kMoved) return Step::kOutputFull;
    const std::size_t size = std::min(tail_ - head_, out_.most);
    const char *from = buffer_.data() + head_;
    const ssize_t put = out_.isSocket ? ::send(out_.fd, from, size, MSG_DONTWAIT | MSG_NOSIGNAL)
                                      : ::write(out_.fd, from, size);
    if (put < 0 && (errno == EAGAIN || errno == EINTR)) return Step::kOutputFull;
    if (put < 0 && (errno == EPIPE || errno == ECONNRESET)) return Step::kReaderGone;
    if (put < 0) FailWith("writing the data");
    head_ += static_cast<std::size_t>(put);
    *pMoved += static_cast<std::uint64_t>(put);
    return Step::kMoved;
}

// splice() does not tell which end it waits for: poll the input first, then the output.
Mover::Step Mover::WaitFor(Step stuck, std::int64_t untilUs, std::int64_t *pHeldUpUs)
{
    const std::int64_t beganUs = NowUs();
    Step step = Step::kMoved;
    if (stuck != Step::kOutputFull) step = WaitForOne(true, untilUs);
    if (step == Step::kMoved && stuck != Step::kInputEmpty) step = WaitForOne(false, untilUs);
    const std::int64_t endedUs = NowUs();
    if (endedUs - beganUs > kNoWaitUs) *pHeldUpUs = endedUs;
    return step == Step::kReaderGone ? step : Step::kMoved;
}

// Waits for one end. A wait for the input also notices that the reader has gone.
Mover::Step Mover::WaitForOne(bool forInput, std::int64_t untilUs)
{
    pollfd fds[2] = {{.fd = out_.fd, .events = 0, .revents = 0},
                     {.fd = in_.fd, .events = POLLIN, .revents = 0}};
    if (!forInput) fds[0].events = POLLOUT;
    WaitReady(fds, forInput ? 2 : 1, untilUs);
    if ((fds[0].revents & (POLLERR | POLLHUP)) != 0 && (out_.isPipe || out_.isSocket))
        return Step::kReaderGone;
    const short ready = forInput ? fds[1].revents : fds[0].revents;
    return ready != 0 ? Step::kMoved : (forInput ? Step::kInputEmpty : Step::kOutputFull);
}

} // namespace tool

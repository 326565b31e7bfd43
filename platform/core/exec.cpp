// Running a program as a child of the host. Of the host only its environment reaches the program. A
// host that reaps all its children may take the exit status away, see zevocore.h.
#include <cerrno>
#include <csignal>
#include <initializer_list>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/descriptor.hpp"
#include "platform/internal/frame.hpp"

namespace zevo {
namespace {

// What a program starts with: /dev/null as its three standard streams, no other descriptor, and every
// signal at its default and not blocked.
class Surroundings {
public:
    Surroundings() noexcept
    {
        ::posix_spawn_file_actions_init(&files_);
        ::posix_spawnattr_init(&signals_);
    }
    ~Surroundings()
    {
        ::posix_spawnattr_destroy(&signals_);
        ::posix_spawn_file_actions_destroy(&files_);
    }
    Surroundings(const Surroundings &) = delete;
    Surroundings &operator=(const Surroundings &) = delete;

    // 0 with the process id, or an errno value.
    int Start(pid_t &pid, const char *const *argv) noexcept
    {
        if (const int error = Prepare(); error != 0) return error;
        return ::posix_spawn(&pid, argv[0], &files_, &signals_, const_cast<char *const *>(argv),
                             environ);
    }

private:
    int Prepare() noexcept
    {
        sigset_t all;
        sigset_t none;
        ::sigfillset(&all);
        ::sigemptyset(&none);
        ::posix_spawnattr_setsigdefault(&signals_, &all);
        ::posix_spawnattr_setsigmask(&signals_, &none);
        ::posix_spawnattr_setflags(&signals_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
        int error = 0;
        for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
            if (error == 0)
                error = ::posix_spawn_file_actions_addopen(&files_, fd, "/dev/null", O_RDWR, 0);
        if (error != 0) return error;
        return ::posix_spawn_file_actions_addclosefrom_np(&files_, STDERR_FILENO + 1);
    }

    posix_spawn_file_actions_t files_;
    posix_spawnattr_t signals_;
};

// Waits for the program's end and returns its result. The kernel knows no child any more where the
// host has reaped it, or ignores SIGCHLD: the program has ended then, and nothing else is known.
int ResultOf(pid_t pid) noexcept
{
    int status = 0;
    if (RetryInterrupted([&] { return ::waitpid(pid, &status, 0); }) < 0)
        return errno == ECHILD ? 0 : ZEVO_FAIL(kCannotOpen);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace
} // namespace zevo

int VLIBCExec(const char *szProgram, const char *szArg1, const char *szArg2, const char *szArg3,
              const char *szArg4) noexcept
{
    if (szProgram == nullptr) return ZEVO_FAIL(zevo::kBadArgument);
    const zevo::CancelScope cancel;
    const char *const argv[] = {szProgram, szArg1, szArg2, szArg3, szArg4, nullptr};
    pid_t pid = 0;
    if (const int error = zevo::Surroundings().Start(pid, argv); error != 0) {
        errno = error;
        return ZEVO_FAIL(zevo::kCannotOpen);
    }
    return zevo::ResultOf(pid);
}

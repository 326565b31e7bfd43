// How a command ends, and how it says that it cannot go on.
#ifndef ZEVOBW_TOOL_FAILURE_HPP
#define ZEVOBW_TOOL_FAILURE_HPP

#include <cerrno>
#include <stdexcept>
#include <string>

namespace tool {

enum ExitStatus {
    kDone = 0,
    kFailed = 1,
    kWrongUsage = 2,
    kNotPermitted = 3,
    kNotFound = 4, // no such user, group, protocol or transfer
    kFindings = 6, // 'check' has found something
};

// The exit status after a failed system call.
inline ExitStatus StatusOf(int error)
{
    return error == EACCES || error == EPERM || error == EROFS ? kNotPermitted : kFailed;
}

// Thrown by a command that cannot go on. main prints the message to standard error, after the
// tool's name, and exits with the status. The message says what was wrong and what to do.
class Failure : public std::runtime_error {
public:
    Failure(ExitStatus status, const std::string &message)
        : std::runtime_error(message), status_(status)
    {
    }
    ExitStatus status() const noexcept { return status_; }

private:
    ExitStatus status_;
};

} // namespace tool

#endif // ZEVOBW_TOOL_FAILURE_HPP

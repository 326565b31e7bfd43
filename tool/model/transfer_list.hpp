// The running transfers, read from the status files. Every limited transfer has a copy in its
// user's file and further ones in those of the groups it is charged to, each with the part that the
// group bears; the users' files alone hold each transfer once.
//
// The files lie where every local user can write, so that their text is nobody's word. Whose file it
// is, its name says.
#ifndef ZEVOBW_TOOL_MODEL_TRANSFER_LIST_HPP
#define ZEVOBW_TOOL_MODEL_TRANSFER_LIST_HPP

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <zevobandwidth.h>

#include "failure.hpp"
#include "output.hpp"

namespace tool {

struct RunningTransfer {
    std::int32_t ownerType = ZEVO_BW_OWNER_USER; // of the file that holds this copy
    std::uint32_t ownerId = 0;
    std::uint32_t uid = 0; // who transfers
    pid_t pid = 0;
    std::int32_t protocol = 0;
    std::int32_t direction = 0;
    std::uint64_t speedBps = 0;
    std::uint64_t allowedBps = 0; // 0 unlimited
    std::uint32_t progress = 0;   // ten-thousandths, as the service gave it
    bool active = true;           // false once it has been asked to end
    std::int64_t timestamp = 0;   // of its last save, seconds since the epoch
    std::string file;             // as it stands in the status file: for Printable()
};

// Names for the tables, each looked up once.
const std::string &OwnerName(const RunningTransfer &transfer);
const std::string &ProtocolOf(const RunningTransfer &transfer);
std::string DirectionOf(const RunningTransfer &transfer);

Json ToJson(const RunningTransfer &transfer);

// Whether the process that runs it is there, whoever it belongs to.
bool IsAlive(pid_t pid);

struct TransferFilter {
    std::optional<std::int32_t> protocol; // exactly this one
    std::uint32_t directions = ZEVO_BW_TRANSFER_ALL;
    pid_t pid = 0; // 0: of every process
    bool merge =
        false; // one for each protocol and direction of an owner, with the sums of the speeds
};

class TransferList {
public:
    explicit TransferList(const TransferFilter &filter = {}) : filter_(filter) {}

    // One owner's file. One that is not there holds no transfers. Throws as ReadAll().
    void Read(std::int32_t ownerType, std::uint32_t id);
    // The files of all users, or of all groups. Throws Failure when their directory cannot be read.
    void ReadAll(std::int32_t ownerType);

    // By owners' names, then by protocol, direction and process.
    void Sort();

    const std::vector<RunningTransfer> &all() const noexcept { return all_; }
    // What could not be read, and what to do about it: one line for each file.
    const std::vector<std::string> &complaints() const noexcept { return complaints_; }
    // With what a command ends that had to complain: kNotPermitted when that was all that was
    // missing for one of the files.
    ExitStatus status() const noexcept { return status_; }

private:
    void Complain(const std::string &path);
    bool Passes(const RunningTransfer &transfer) const;

    TransferFilter filter_;
    std::vector<RunningTransfer> all_;
    std::vector<std::string> complaints_;
    ExitStatus status_ = kFailed;
};

// "/tmp/bandwidth/user-2001".
std::string StatusFile(std::int32_t ownerType, std::uint32_t id);

// Whether this user may replace files in their directory.
bool MayChangeStatusFiles();

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_TRANSFER_LIST_HPP

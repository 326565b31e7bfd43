// The running transfers, read from the status files. Every limited transfer has a section in its
// user's file, and a copy in the file of each group that it is charged to. The copy holds the part
// that the group is charged. So the users' files together hold each transfer once.
//
// Every local user can write these files, so the owner is taken from the file's name, not from its
// text.
#ifndef ZEVOBW_TOOL_MODEL_TRANSFER_LIST_HPP
#define ZEVOBW_TOOL_MODEL_TRANSFER_LIST_HPP

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <zevobandwidth.h>

#include "failure.hpp"
#include "model/store.hpp"
#include "output.hpp"

namespace tool {

struct RunningTransfer {
    std::int32_t ownerType = ZEVO_BW_OWNER_USER; // of the file that holds this copy
    std::uint32_t ownerId = 0;
    std::uint32_t uid = 0; // the transferring user
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

// What the administrator can do when the library failed on a file.
inline constexpr const char *kMendFiles =
    "'zevobandwidth check' says what is wrong with the files of the limits and "
    "in " ZEVO_BW_STATUS_DIRECTORY "; a full disk needs room, and the system log has the details";

// Names for the tables. Each is looked up once.
const std::string &OwnerName(const RunningTransfer &transfer);
const std::string &ProtocolOf(const RunningTransfer &transfer);
std::string DirectionOf(const RunningTransfer &transfer);

Json ToJson(const RunningTransfer &transfer);

// Whether the process exists, whatever user it runs as.
bool IsAlive(pid_t pid);

struct TransferFilter {
    std::optional<std::int32_t> protocol; // exactly this one
    std::uint32_t directions = ZEVO_BW_TRANSFER_ALL;
    pid_t pid = 0;      // 0: of every process
    bool merge = false; // one sum for each protocol and direction of an owner
};

class TransferList {
public:
    explicit TransferList(const TransferFilter &filter = {}) : filter_(filter) {}

    // Reads one owner's file, which need not exist. Throws as ReadAll().
    void Read(std::int32_t ownerType, std::uint32_t id);
    // Reads the files of all users, or of all groups. Throws Failure if the directory is
    // unreadable.
    void ReadAll(std::int32_t ownerType);

    // Reads the owner's file; without one those of all users, and merged those of all groups, too.
    // Sorts.
    void ReadChosen(const std::optional<Owner> &owner);

    // By owners' names, then by protocol, direction and process.
    void Sort();

    const std::vector<RunningTransfer> &all() const noexcept { return all_; }
    // What could not be read, and what to do about it: one line for each file.
    const std::vector<std::string> &complaints() const noexcept { return complaints_; }
    void PrintComplaints() const;
    // The exit status after complaints: kNotPermitted if a file could not be read for want of
    // permission.
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

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_TRANSFER_LIST_HPP

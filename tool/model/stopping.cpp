#include "model/stopping.hpp"

#include <algorithm>

#include "failure.hpp"

namespace tool {

namespace {

// A process has at most one upload and one download of a user.
bool IsSame(const RunningTransfer &a, const RunningTransfer &b)
{
    return a.pid == b.pid && a.direction == b.direction;
}

std::vector<RunningTransfer> List(const Account &user, const TransferFilter &which)
{
    TransferList list(which);
    list.Read(ZEVO_BW_OWNER_USER, user.id);
    if (!list.complaints().empty()) throw Failure(list.status(), list.complaints().front());
    return list.all();
}

} // namespace

Stopping::Stopping(const Account &user, const TransferFilter &which)
    : user_(user), which_(which), found_(List(user, which)), left_(found_)
{
}

// Transfers that began later are left alone.
std::vector<RunningTransfer> Stopping::Look() const
{
    std::vector<RunningTransfer> left;
    for (const RunningTransfer &transfer : List(user_, which_))
        if (std::any_of(found_.begin(), found_.end(),
                        [&](const RunningTransfer &one) { return IsSame(one, transfer); }))
            left.push_back(transfer);
    return left;
}

void Stopping::Mark(const RunningTransfer &transfer) const
{
    const char *const name = user_.name.c_str();
    // Fails for a transfer that is gone; the next look tells whether the mark was kept.
    if (transfer.active)
        static_cast<void>(
            ZEVOBandwidthStatusSetActiveByUserName(name, transfer.direction, transfer.pid, 0));
    // No process is left to see the mark.
    else if (!IsAlive(transfer.pid))
        static_cast<void>(ZEVOBandwidthStatusForceRemoveAllByUserName(
            name, static_cast<std::uint32_t>(transfer.direction), transfer.pid));
}

bool Stopping::IsMarked() const
{
    return std::none_of(left_.begin(), left_.end(),
                        [](const RunningTransfer &one) { return one.active; });
}

void Stopping::Step()
{
    if (began_ == Clock::time_point{}) began_ = Clock::now();
    for (const RunningTransfer &transfer : left_)
        Mark(transfer);
    left_ = Look();
    looked_ = Clock::now();
}

std::chrono::milliseconds Stopping::Took() const
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(looked_ - began_);
}

} // namespace tool

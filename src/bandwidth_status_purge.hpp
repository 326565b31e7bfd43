// Clearing a status file of the sections that dead transfers have left behind, all in one rewrite.
#ifndef BANDWIDTH_STATUS_PURGE_HPP
#define BANDWIDTH_STATUS_PURGE_HPP

#include "bandwidth_guard.hpp"

#include <ctime>

#include <sys/stat.h>

namespace bandwidth {

constexpr int64_t kStaleAfterSeconds = ZEVO_BW_STALE_AFTER_SECONDS;

inline bool IsStale(const ZEVO_BANDWIDTH_STATUS &status, int64_t now) noexcept
{
    return status.timestamp < now - kStaleAfterSeconds;
}

// The listing notes what it finds stale; Run() drops that, unless a save has come in time.
class Purge {
public:
    // Before the listing.
    Purge(const char *szFile, int64_t now) noexcept : szFile_(szFile), now_(now)
    {
        (void)::clock_gettime(CLOCK_REALTIME_COARSE, &begun_); // the clock of the files' stamps
    }

    // Takes over the names of the listed sections, in file order.
    void SetNames(List names) noexcept { names_ = std::move(names); }
    int32_t count() const noexcept { return names_->nItem; }
    const char *name(int32_t i) const noexcept { return ::VLIBCSzListGet(names_.get(), i); }

    // false without memory.
    bool Note(int32_t i) noexcept;
    // 0, also when others rewrite the file so often that the next listing must do it; -1 when the
    // file cannot be rewritten, the code recorded.
    int Run() noexcept;
    // The sections that Run() meant to drop.
    int32_t noted() const noexcept { return nNoted_; }
    const char *NotedName(int32_t i) const noexcept
    {
        return name(noted_[static_cast<std::size_t>(i)]);
    }

private:
    int Decide(std::string_view oldText) noexcept;
    int DecideOn(const char *szCopy) noexcept;
    bool Split(std::string_view oldText, zevo::Pieces &kept, zevo::Pieces &dropped) const noexcept;
    bool IsUntouched(const struct stat &state) const noexcept;
    int Compose(std::string_view oldText, zevo::Pieces &newText, const struct stat &state) noexcept;

    const char *szFile_;
    const int64_t now_;
    struct timespec begun_ = {};
    List names_;
    Array<int32_t> noted_; // indices of names, ascending
    int32_t nNoted_ = 0;
};

} // namespace bandwidth

#endif // BANDWIDTH_STATUS_PURGE_HPP

// Removing the stale sections of a status file, all in one rewrite.
#ifndef INTERNAL_STATUS_PURGE_HPP
#define INTERNAL_STATUS_PURGE_HPP

#include "internal/guard.hpp"

#include "base/replace_file.hpp"

namespace bandwidth {

inline bool IsStale(const ZEVO_BANDWIDTH_STATUS &status, int64_t now) noexcept
{
    return status.timestamp < now - ZEVO_BW_STALE_AFTER_SECONDS;
}

// Removes what is stale in the text that is rewritten, which may be newer than the listed one.
class Purge final : public zevo::Composer {
public:
    // now: the moment of the listing, seconds since the epoch.
    Purge(const char *szFile, int64_t now) noexcept : szFile_(szFile), now_(now) {}

    // 0, also when other writers were faster each time: then the next listing does it. -1 when the
    // file cannot be rewritten, with the code recorded.
    int Run() noexcept;

private:
    // One occurrence of a section: a name may stand in a status file twice.
    struct Section {
        size_t begin; // of its header in the text, bytes
        size_t cbHeader;
        bool isStale;
    };

    zevo::Change Compose(std::string_view oldText, zevo::Pieces &newText) noexcept override;
    zevo::Fault Split(std::string_view text) noexcept;
    zevo::Fault NumberSections(std::string_view text, zevo::Bytes &headers,
                               zevo::Pieces &copy) noexcept;
    zevo::Fault FindStale(std::string_view text) noexcept;
    zevo::Fault FindStaleInCopy(const char *szCopy) noexcept;
    size_t EndOf(size_t i, std::string_view text) noexcept
    {
        return i + 1 < sections_.size() ? sections_[i + 1].begin : text.size();
    }

    const char *szFile_;
    const int64_t now_;
    zevo::Records<Section> sections_; // in file order
};

} // namespace bandwidth

#endif // INTERNAL_STATUS_PURGE_HPP

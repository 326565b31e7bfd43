// The rewrite that drops stale sections. Between the listing and the rewrite an owner may have saved
// his section again, or another listing have dropped it; so what was decided holds only for the file
// that was listed. Any other is listed anew before anything of it goes, and is left to the next
// listing where it changes faster than that.

#include "bandwidth_status_purge.hpp"

#include "bandwidth_frame.hpp"
#include "bandwidth_status_text.hpp"

namespace bandwidth {

Purge::Purge(const char *szFile, int64_t now) noexcept
    : szFile_(szFile), now_(now), file_(zevo::OpenAt(AT_FDCWD, szFile, O_PATH))
{
    if (file_ && ::fstat(file_.get(), &listed_) < 0) file_ = zevo::Fd();
}

bool Purge::Note(int32_t i) noexcept
{
    if (!noted_) noted_ = AllocateArray<int32_t>(static_cast<size_t>(count()));
    if (!noted_) return false;
    noted_[nNoted_++] = i;
    return true;
}

bool Purge::IsAsListed() const noexcept
{
    struct stat now = {};
    return file_ && ::lstat(szFile_, &now) == 0 && zevo::IsSameFile(now, listed_) &&
           now.st_size == listed_.st_size && now.st_mtim.tv_sec == listed_.st_mtim.tv_sec &&
           now.st_mtim.tv_nsec == listed_.st_mtim.tv_nsec;
}

// A section that cannot be read is not stale for sure and stays. false when there is nothing to decide
// on, the notes as they were: they tell what has not gone.
bool Purge::DecideAgain() noexcept
{
    const Hash hash;
    if (!hash) return false;
    VLIB_SZ_LIST *pNames = ::VLIBCSzListAlloc(kListSize);
    const int sections = pNames == nullptr ? -1 : ::VLIBCFileEnumSection(szFile_, &pNames);
    List names(pNames);
    if (sections < 0) return false;
    auto noted = AllocateArray<int32_t>(static_cast<size_t>(sections));
    if (!noted) return false;
    names_ = std::move(names);
    noted_ = std::move(noted);
    nNoted_ = 0;
    for (int32_t i = 0; i < count(); ++i) {
        VLIB_SZ_HASH *pHash = hash.get();
        (void)::VLIBCHashRemoveAll(pHash);
        ZEVO_BANDWIDTH_STATUS status = {};
        if (::VLIBCFileGetSection(szFile_, name(i), &pHash) <= 0 ||
            ::ZEVOBandwidthInitStatusFromHash(&status, pHash) < 0 || !IsStale(status, now_))
            continue;
        noted_[nNoted_++] = i;
    }
    return true;
}

// The sections to go stand in the file in the order of their names. As with any removal the comments
// in them stay.
int Purge::Compose(std::string_view oldText, zevo::Bytes &newText) noexcept
{
    if (!IsAsListed() && !DecideAgain()) return zevo::kComposeFailed;
    int32_t next = 0;
    bool inside = false;
    Lines lines(oldText);
    for (std::string_view line; lines.Next(line);) {
        if (next < nNoted_ || inside) {
            const Line kind = Recognise(line, next < nNoted_ ? NotedName(next) : "");
            if (kind == Line::kOurHeader && next < nNoted_) {
                inside = true;
                ++next;
            } else if (kind != Line::kOther) {
                inside = false;
            }
        }
        if (inside && line.front() != ';' && line.front() != '#') continue;
        if (!newText.Append(line)) return zevo::kComposeFailed;
    }
    return next > 0 ? 1 : 0;
}

int Purge::Run() noexcept
{
    if (nNoted_ == 0) return 0;
    const zevo::RewriteResult done = zevo::RewriteFile(
        szFile_,
        [&](std::string_view oldText, zevo::Bytes &newText) { return Compose(oldText, newText); },
        zevo::IfBeaten::kGiveUp);
    return done.result < 0 ? BW_FAIL(done.code) : 0;
}

} // namespace bandwidth

// The rewrite that drops stale sections. Between the listing and the rewrite an owner may have saved
// his section again; what was decided then holds no more. Then the sections that are to go are taken
// out of the very text that is being rewritten and read once more, by the platform, from a copy beside
// the file that nobody else knows. A file that changes faster than that is left to the next listing.
//
// What was decided holds where the file that is being rewritten was changed last before the listing
// began: each change, that of its names included, stamps it, so that it was this file, in this state,
// which the listing read. Stamps are those of the last tick of the clock that this machine shares with
// its own file systems, hence the same tick does not count.

#include "bandwidth_status_purge.hpp"

#include "bandwidth_frame.hpp"
#include "bandwidth_status_text.hpp"
#include "bandwidth_status_walk.hpp"

namespace bandwidth {

bool Purge::Note(int32_t i) noexcept
{
    if (!noted_) noted_ = AllocateArray<int32_t>(static_cast<size_t>(count()));
    if (!noted_) return false;
    noted_[static_cast<size_t>(nNoted_++)] = i;
    return true;
}

// Takes the text apart: the lines of the noted sections, which stand in the file in the order of their
// names, and all others. As with any removal the comments in them stay. false without memory.
bool Purge::Split(std::string_view oldText, zevo::Pieces &kept,
                  zevo::Pieces &dropped) const noexcept
{
    const char *pBegin = oldText.data(); // of lines that go the same way
    bool goes = false;
    const auto endAt = [&](const char *pEnd) {
        const std::string_view lines(pBegin, static_cast<size_t>(pEnd - pBegin));
        pBegin = pEnd;
        return goes ? dropped.Append(lines) : kept.Append(lines);
    };
    int32_t next = 0;
    bool inside = false;
    Lines lines(oldText);
    for (std::string_view line; lines.Next(line);) {
        if (IsHeader(line)) {
            inside = next < nNoted_ && IsHeaderOf(line, NotedName(next));
            if (inside) ++next;
        }
        if (goes == (inside && !IsComment(line))) continue;
        if (!endAt(line.data())) return false;
        goes = !goes;
    }
    return endAt(oldText.data() + oldText.size());
}

// Notes what is stale of the copy: 0, or the kCompose... result that says why it cannot be told, the
// notes as they were: they tell what has not gone.
int Purge::DecideOn(const char *szCopy) noexcept
{
    const Hash hash;
    auto noted = AllocateArray<int32_t>(static_cast<size_t>(nNoted_)); // no more are in it
    if (!hash || !noted) return zevo::kComposeFailed;
    VLIB_SZ_LIST *pNames = ::VLIBCSzListAlloc(kListSize);
    if (pNames == nullptr) return zevo::kComposeFailed;
    const int sections = ::VLIBCFileEnumSection(szCopy, &pNames);
    List names(pNames);
    if (sections < 0 || sections > nNoted_) return zevo::kComposeRefused;
    int32_t nNoted = 0;
    ZEVO_BANDWIDTH_STATUS status = {};
    for (int32_t i = 0; i < sections; ++i) {
        VLIB_SZ_HASH *pHash = hash.get();
        (void)::VLIBCHashRemoveAll(pHash);
        ClearButName(status);
        if (::VLIBCFileGetSection(szCopy, ::VLIBCSzListGet(names.get(), i), &pHash) < 0)
            return zevo::kComposeRefused;
        if (StatusFromHash(&status, pHash) == 0 && IsStale(status, now_))
            noted[static_cast<size_t>(nNoted++)] = i;
    }
    names_ = std::move(names);
    noted_ = std::move(noted);
    nNoted_ = nNoted;
    return 0;
}

int Purge::Decide(std::string_view oldText) noexcept
{
    zevo::Pieces others;
    zevo::Pieces text;
    if (!Split(oldText, others, text)) return zevo::kComposeFailed;
    const zevo::Place place(szFile_);
    zevo::TempFile copy(place);
    if (!copy || !copy.Write(text)) {
        BW_RECORD(copy ? ZEVO_BW_ERROR_WRITE : ZEVO_BW_ERROR_OPEN);
        return zevo::kComposeRefused;
    }
    char szCopy[zevo::kPathBytes];
    (void)std::snprintf(szCopy, sizeof(szCopy), "%s%s", szFile_, copy.suffix());
    return DecideOn(szCopy);
}

bool Purge::IsUntouched(const struct stat &state) const noexcept
{
    const struct timespec &changed = state.st_ctim;
    return changed.tv_sec < begun_.tv_sec ||
           (changed.tv_sec == begun_.tv_sec && changed.tv_nsec < begun_.tv_nsec);
}

int Purge::Compose(std::string_view oldText, zevo::Pieces &newText,
                   const struct stat &state) noexcept
{
    if (const int failed = IsUntouched(state) ? 0 : Decide(oldText); failed < 0) return failed;
    zevo::Pieces dropped;
    if (!Split(oldText, newText, dropped)) return zevo::kComposeFailed;
    return nNoted_ > 0 ? 1 : 0;
}

int Purge::Run() noexcept
{
    if (nNoted_ == 0) return 0;
    zevo::Patience patience;
    const zevo::RewriteResult done = zevo::RewriteFile(
        szFile_,
        [&](std::string_view oldText, zevo::Pieces &newText, const struct stat &state) {
            return Compose(oldText, newText, state);
        },
        patience, zevo::IfBeaten::kGiveUp);
    if (done.result >= 0) return 0;
    return done.code == 0 ? BW_PASS_UNLOGGED : BW_FAIL(done.code);
}

} // namespace bandwidth

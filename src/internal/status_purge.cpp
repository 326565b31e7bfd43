// The rewrite that removes stale sections. A transfer may have saved its section since the listing: what
// is stale is decided about the very text that is rewritten. Only the platform can read sections, and
// it reads files. So the text is written to a temporary file beside the status file. There the sections
// are numbered: a name may stand in a status file twice.

#include "internal/status_purge.hpp"

#include "internal/frame.hpp"
#include "internal/status_text.hpp"
#include "internal/status_walk.hpp"

#include <cstring>

namespace bandwidth {

namespace {

// The text with the sections named 0, 1, 2 ...; returns their number in nSections. The platform spells
// one header; a plain name stands in it as it is, so the others differ only by their number.
zevo::Fault NumberSections(std::string_view text, zevo::Bytes &out, int32_t &nSections) noexcept
{
    constexpr char kName[] = "0";
    const Hash noPairs;
    SectionText spelled;
    if (!noPairs) return zevo::kNoMemory;
    if (const zevo::Fault fault = spelled.Compose(kName, noPairs.get())) return fault;
    const std::string_view header = spelled.view();
    const size_t at = header.find(kName);
    nSections = 0;
    Lines lines(text);
    for (std::string_view line; lines.Next(line);) {
        char szHeader[64];
        if (IsHeader(line)) {
            const std::string_view behind = header.substr(at + 1);
            const int cb = std::snprintf(szHeader, sizeof(szHeader), "%.*s%d%.*s",
                                         static_cast<int>(at), header.data(), nSections++,
                                         static_cast<int>(behind.size()), behind.data());
            line = {szHeader, static_cast<size_t>(cb)};
        }
        if (const zevo::Fault fault = out.Append(line)) return fault;
    }
    return zevo::kNoFault;
}

} // namespace

zevo::Fault Purge::FindStaleInCopy(const char *szCopy) noexcept
{
    Hash hash;
    isStale_ = AllocateArray<bool>(static_cast<size_t>(nSections_));
    if (!hash || !isStale_) return zevo::kNoMemory;
    VLIB_SZ_LIST *pNames = ::VLIBCSzListAlloc(kListSize);
    if (pNames == nullptr) return zevo::kNoMemory;
    const int nRead = ::VLIBCFileEnumSection(szCopy, &pNames);
    const List names(pNames);
    if (nRead < 0) return zevo::kRecorded;
    if (nRead != nSections_) return zevo::kCannotRead; // somebody has put another file in its place
    for (int32_t i = 0; i < nSections_; ++i) {
        (void)::VLIBCHashRemoveAll(hash.get());
        if (::VLIBCFileGetSection(szCopy, ::VLIBCSzListGet(names.get(), i), hash.address()) < 0)
            return zevo::kRecorded;
        ZEVO_BANDWIDTH_STATUS status = {};
        isStale_[static_cast<size_t>(i)] =
            StatusFromHash(&status, hash.get()) == 0 && IsStale(status, now_);
    }
    return zevo::kNoFault;
}

zevo::Fault Purge::FindStale(std::string_view oldText) noexcept
{
    zevo::Bytes numbered;
    if (const zevo::Fault fault = NumberSections(oldText, numbered, nSections_)) return fault;
    const zevo::Place place(szFile_);
    zevo::TempFile copy(place);
    if (const zevo::Fault fault = copy.fault()) return fault;
    if (const zevo::Fault fault = copy.Write(numbered.view())) return fault;
    char szCopy[zevo::kPathBytes];
    const int cbDirectory = static_cast<int>(place.name() - szFile_);
    (void)std::snprintf(szCopy, sizeof(szCopy), "%.*s%s", cbDirectory, szFile_, copy.name());
    return FindStaleInCopy(szCopy);
}

// As with any removal the comments of a dropped section stay.
zevo::Change Purge::Compose(std::string_view oldText, zevo::Pieces &newText) noexcept
{
    if (const zevo::Fault fault = FindStale(oldText)) return {fault};
    bool isChanged = false;
    bool isDropping = false;
    size_t nSeen = 0;
    Lines lines(oldText);
    for (std::string_view line; lines.Next(line);) {
        if (IsHeader(line)) isDropping = isStale_[nSeen++];
        isChanged = isChanged || isDropping;
        if (isDropping && !IsComment(line)) continue;
        if (const zevo::Fault fault = newText.Append(line)) return {fault};
    }
    return {zevo::kNoFault, isChanged};
}

int Purge::Run() noexcept
{
    zevo::TurnWait wait;
    const zevo::Change change = zevo::ReplaceFile(szFile_, *this, wait, zevo::IfBeaten::kGiveUp);
    return change.fault ? BW_FAIL_WITH(change.fault) : 0;
}

} // namespace bandwidth

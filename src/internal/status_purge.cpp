// The rewrite that removes stale sections. A transfer may have saved its section since the listing: what
// is stale is decided about the very text that is rewritten. Only the platform can read sections, and
// it reads files. So the text is written to a temporary file beside the status file. There the sections
// are numbered: a name may stand in a status file twice.

#include "internal/status_purge.hpp"

#include "internal/frame.hpp"
#include "internal/status_text.hpp"
#include "internal/status_walk.hpp"

#include <charconv>
#include <iterator>
#include <limits>

namespace bandwidth {

zevo::Fault Purge::Split(std::string_view text) noexcept
{
    sections_.Clear();
    Lines lines(text);
    for (std::string_view header; lines.NextHeader(header);) {
        const auto begin = static_cast<size_t>(header.data() - text.data());
        if (const zevo::Fault fault = sections_.Append({begin, header.size(), false})) return fault;
    }
    return zevo::kNoFault;
}

// The sections under the names 0, 1, 2 ... The platform spells one header; a plain name stands in it
// as it is, so the others differ only by their number.
zevo::Fault Purge::NumberSections(std::string_view text, zevo::Bytes &headers,
                                  zevo::Pieces &copy) noexcept
{
    constexpr char kName[] = "0";
    constexpr size_t kNumberBytes = std::numeric_limits<size_t>::digits10 + 1;
    const Hash noPairs;
    SectionText spelled;
    if (!noPairs) return zevo::kNoMemory;
    if (const zevo::Fault fault = spelled.Compose(kName, noPairs.get())) return fault;
    const std::string_view before = spelled.view().substr(0, spelled.view().find(kName));
    const std::string_view behind = spelled.view().substr(before.size() + 1);
    // All at once, so that the headers stay where they are.
    if (headers.Reserve(sections_.size() * (spelled.view().size() + kNumberBytes)))
        return zevo::kNoMemory;
    for (size_t i = 0; i < sections_.size(); ++i) {
        const size_t at = headers.size();
        char number[kNumberBytes];
        const char *const pEnd = std::to_chars(number, std::end(number), i).ptr;
        if (headers.Append(before) || headers.Append({number, pEnd}) || headers.Append(behind))
            return zevo::kNoMemory;
        const size_t below = sections_[i].begin + sections_[i].cbHeader;
        if (copy.Append(headers.view().substr(at)) ||
            copy.Append(text.substr(below, EndOf(i, text) - below)))
            return zevo::kNoMemory;
    }
    return zevo::kNoFault;
}

zevo::Fault Purge::FindStaleInCopy(const char *szCopy) noexcept
{
    Hash hash;
    if (!hash) return zevo::kNoMemory;
    VLIB_SZ_LIST *pNames = ::VLIBCSzListAlloc(kListSize);
    if (pNames == nullptr) return zevo::kNoMemory;
    const int nRead = ::VLIBCFileEnumSection(szCopy, &pNames);
    const List names(pNames);
    if (nRead < 0) return zevo::kRecorded;
    // Somebody has put another file in its place.
    if (static_cast<size_t>(nRead) != sections_.size()) return zevo::kCannotRead;
    ZEVO_BANDWIDTH_STATUS status = {};
    for (int32_t i = 0; i < nRead; ++i) {
        (void)::VLIBCHashRemoveAll(hash.get());
        if (::VLIBCFileGetSection(szCopy, ::VLIBCSzListGet(names.get(), i), hash.address()) < 0)
            return zevo::kRecorded;
        ClearButName(status);
        sections_[static_cast<size_t>(i)].isStale =
            StatusFromHash(&status, hash.get()) == 0 && IsStale(status, now_);
    }
    return zevo::kNoFault;
}

zevo::Fault Purge::FindStale(std::string_view text) noexcept
{
    zevo::Bytes headers;
    zevo::Pieces numbered;
    if (const zevo::Fault fault = Split(text)) return fault;
    if (const zevo::Fault fault = NumberSections(text, headers, numbered)) return fault;
    const zevo::Place place(szFile_);
    zevo::TempFile copy(place);
    if (const zevo::Fault fault = copy.fault()) return fault;
    if (const zevo::Fault fault = copy.Write(numbered)) return fault;
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
    size_t kept = 0; // what lies before has been dealt with
    for (size_t i = 0; i < sections_.size(); ++i) {
        const size_t begin = sections_[i].begin;
        if (!sections_[i].isStale) continue;
        isChanged = true;
        if (const zevo::Fault fault = newText.Append(oldText.substr(kept, begin - kept)))
            return {fault};
        kept = EndOf(i, oldText);
        Lines lines(oldText.substr(begin, kept - begin));
        for (std::string_view line; lines.Next(line);) {
            if (!IsComment(line)) continue;
            if (const zevo::Fault fault = newText.Append(line)) return {fault};
        }
    }
    return {newText.Append(oldText.substr(kept)), isChanged};
}

int Purge::Run() noexcept
{
    zevo::TurnWait wait;
    const zevo::Change change = zevo::ReplaceFile(szFile_, *this, wait, zevo::IfBeaten::kGiveUp);
    return change.fault ? BW_FAIL_WITH(change.fault) : 0;
}

} // namespace bandwidth

// Appending a section to a status file: in one write, so that the appends of several processes stand
// beside each other, and on a line of its own, so that the torn tail that a dead process left harms
// nobody. When the file was replaced meanwhile the section went to a file without a name: the append
// starts over. A file with a second name, or one that is not open to all, is never changed in place: a
// copy with the section takes its place.

#include "internal/frame.hpp"
#include "internal/guard.hpp"
#include "internal/status_path.hpp"
#include "internal/status_text.hpp"

#include "base/replace_file.hpp"

using namespace bandwidth;

namespace {

bool Holds(std::string_view text, const char *szSection) noexcept
{
    Lines lines(text);
    std::string_view line;
    return lines.NextHeaderOf(szSection, line);
}

// Whether the file may be changed in place: it has no second name, and is open to all, as the library
// makes status files. A private file that somebody has moved there is not.
bool IsOurs(const struct stat &status, nlink_t nNames) noexcept
{
    return nNames == 1 && (status.st_mode & zevo::kPermissionBits) == kStatusFileMode;
}

// Puts a copy with the section in the file's place, unless another writer was faster.
zevo::Change AppendToCopy(const zevo::Place &place, const zevo::RegularFile &file,
                          std::string_view text, std::string_view section) noexcept
{
    zevo::TempFile copy(place);
    if (const zevo::Fault fault = copy.fault()) return {fault};
    zevo::Pieces whole;
    if (const zevo::Fault fault = whole.Append(text)) return {fault};
    if (const zevo::Fault fault = whole.Append(section)) return {fault};
    if (const zevo::Fault fault = copy.Write(whole)) return {fault};
    if (const zevo::Fault fault = copy.Sync()) return {fault};
    if (const zevo::Fault fault = copy.SetMode(file.stat().st_mode & zevo::kPermissionBits))
        return {fault};
    if (!file.IsUnchanged(text.size())) return {};
    return {copy.Replace(), true};
}

// The section as it is appended to a text, on a line of its own.
zevo::Fault Compose(std::string_view text, const char *szSection, const VLIB_SZ_HASH *pHash,
                    SectionText &section) noexcept
{
    if (!text.ends_with('\n')) {
        if (const zevo::Fault fault = section.StartLine()) return fault;
    }
    return section.Compose(szSection, pHash);
}

} // namespace

int ZEVOBandwidthStatusAddSection(const char *szFile, const char *szSection,
                                  const VLIB_SZ_HASH *pHash) noexcept
{
    const CancelScope cancel;
    if (szFile == nullptr || szSection == nullptr || pHash == nullptr)
        return BW_FAIL(ZEVO_BW_ERROR_BAD_ARGUMENT);
    // Opening it with O_CREAT would fail in a sticky directory when another user owns it, even for root.
    if (::VLIBCFileExist(szFile) != 1) (void)::VLIBCFileTouch(szFile); // the open below tells

    const zevo::Place place(szFile);
    if (const zevo::Fault fault = place.fault()) return BW_FAIL_WITH(fault);
    zevo::TurnWait wait;
    bool isWritten = false;
    for (int attempt = 0; attempt <= zevo::kMaxRetries; ++attempt) {
        const zevo::TurnFile file(place, O_RDWR | O_APPEND, wait);
        if (const zevo::Fault fault = file.fault()) return BW_FAIL_WITH(fault);
        const nlink_t nNames = place.CountNames(file.stat());
        if (nNames == 0) continue;
        zevo::Bytes text;
        if (file.ReadWhole(text)) return BW_PASS_UNLOGGED; // no code of its own is promised
        if (Holds(text.view(), szSection)) return isWritten ? 1 : 0;
        SectionText section;
        if (const zevo::Fault fault = Compose(text.view(), szSection, pHash, section))
            return BW_FAIL_WITH(fault);
        if (!IsOurs(file.stat(), nNames)) {
            const zevo::Change change = AppendToCopy(place, file, text.view(), section.view());
            if (change.fault) return BW_FAIL_WITH(change.fault);
            if (change.isMade) return 1;
            continue;
        }
        if (const zevo::Fault fault = zevo::AppendOnce(file.get(), section.view()))
            return BW_FAIL_WITH(fault);
        isWritten = true;
        (void)zevo::Sync(file.get()); // the section stands; how soon on the disk is no promise
        if (place.LeadsTo(file.stat())) break;
    }
    return isWritten ? 1 : BW_FAIL(ZEVO_BW_ERROR_OPEN); // linked or replaced again each time
}

// Appending a section to a status file: in one write, so that the appends of several processes stand
// beside each other, and on a line of its own, so that the torn tail that a dead process left harms
// nobody. When the file was replaced meanwhile the section went to a file without a name: the append
// starts over. A file with a second name is never changed in place but replaced by a copy first.

#include "internal/frame.hpp"
#include "internal/guard.hpp"
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

// Puts a copy in the place of a file that has other names, too.
zevo::Fault ReplaceByCopy(const zevo::Place &place, std::string_view text, mode_t mode) noexcept
{
    zevo::TempFile copy(place);
    if (const zevo::Fault fault = copy.fault()) return fault;
    if (const zevo::Fault fault = copy.Write(text)) return fault;
    if (const zevo::Fault fault = copy.Sync()) return fault;
    if (const zevo::Fault fault = copy.SetMode(mode & zevo::kPermissionBits)) return fault;
    return copy.Replace();
}

// Appends the section behind the text that the file holds by now.
zevo::Fault Append(const zevo::RegularFile &file, std::string_view text, const char *szSection,
                   const VLIB_SZ_HASH *pHash) noexcept
{
    SectionText section;
    if (!text.ends_with('\n')) {
        if (const zevo::Fault fault = section.StartLine()) return fault;
    }
    if (const zevo::Fault fault = section.Compose(szSection, pHash)) return fault;
    return zevo::AppendOnce(file.get(), section.view());
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
        if (nNames > 1) {
            const zevo::Fault fault = ReplaceByCopy(place, text.view(), file.stat().st_mode);
            if (fault) return BW_FAIL_WITH(fault);
            continue;
        }
        if (Holds(text.view(), szSection)) return isWritten ? 1 : 0;
        if (const zevo::Fault fault = Append(file, text.view(), szSection, pHash))
            return BW_FAIL_WITH(fault);
        isWritten = true;
        (void)zevo::Sync(file.get()); // the section stands; how soon on the disk is no promise
        if (place.LeadsTo(file.stat())) break;
    }
    return isWritten ? 1 : BW_FAIL(ZEVO_BW_ERROR_OPEN); // linked or replaced again each time
}

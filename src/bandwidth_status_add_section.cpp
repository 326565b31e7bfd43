// Appending a section to a status file: in one write, so that appends of several processes stand
// beside each other, and on a line of its own, so that the torn tail of a process that died harms
// nobody. When the file has been replaced meanwhile the section went to a file without a name, and
// the work starts over. A file with a second name is never changed in place but replaced first.

#include "bandwidth_frame.hpp"
#include "bandwidth_guard.hpp"
#include "bandwidth_status_text.hpp"

#include <fcntl.h>

using namespace bandwidth;

namespace {

bool Holds(std::string_view text, const char *szSection) noexcept
{
    Lines lines(text);
    std::string_view line;
    return lines.NextHeaderOf(szSection, line);
}

// Puts a copy in the file's place.
zevo::RewriteResult ReplaceByCopy(const char *szFile, zevo::Patience &patience) noexcept
{
    const auto copy = [](std::string_view oldText, zevo::Pieces &newText, const struct stat &) {
        return newText.Append(oldText) ? 1 : zevo::kComposeFailed;
    };
    return zevo::RewriteFile(szFile, copy, patience);
}

} // namespace

int ZEVOBandwidthStatusAddSection(const char *szFile, const char *szSection,
                                  const VLIB_SZ_HASH *pHash) noexcept
{
    const CancelScope cancel;
    if (szFile == nullptr || szSection == nullptr || pHash == nullptr)
        return BW_FAIL(ZEVO_BW_ERROR_BAD_ARGUMENT);
    // O_CREAT on a file that is there fails in a sticky directory, even for root: made apart.
    if (::VLIBCFileExist(szFile) != 1) (void)::VLIBCFileTouch(szFile); // the open below tells

    const zevo::Place place(szFile);
    if (!place) return BW_FAIL(ZEVO_BW_ERROR_OPEN);
    zevo::Patience patience;
    bool written = false;
    for (int attempt = 0; attempt <= zevo::kMostRewriteRetries; ++attempt) {
        const zevo::RegularFile file = zevo::RegularFile(place, O_RDWR | O_APPEND);
        if (!file) return BW_FAIL(file.code());
        const nlink_t nNames = zevo::CountNames(place, file.stat());
        if (nNames == 0) continue;
        if (nNames > 1) {
            if (const auto copied = ReplaceByCopy(szFile, patience); copied.result < 0)
                return BW_FAIL(copied.code);
            continue;
        }
        zevo::Bytes text;
        if (file.ReadWhole(text) != 0) return BW_PASS_UNLOGGED; // no code of its own is promised
        if (Holds(text.view(), szSection)) return written ? 1 : 0;

        const bool ended = text.size() != 0 && text.view().back() == '\n';
        SectionText section;
        if (!ended && !section.StartLine()) return BW_FAIL(ZEVO_BW_ERROR_NO_MEMORY);
        if (const int failed = section.Compose(szSection, pHash); failed < 0)
            return failed == zevo::kComposeRefused ? BW_PASS_UNLOGGED
                                                   : BW_FAIL(ZEVO_BW_ERROR_NO_MEMORY);
        if (!zevo::AppendOnce(file.get(), section.view())) return BW_FAIL(ZEVO_BW_ERROR_WRITE);
        written = true;
        // The section is there; how soon on the disk is no promise.
        (void)zevo::RetryInterrupted([&] { return ::fsync(file.get()); });
        if (zevo::StaysAppended(place, file.stat(), patience)) break;
    }
    return written ? 1 : BW_FAIL(ZEVO_BW_ERROR_OPEN); // linked or replaced again each time
}

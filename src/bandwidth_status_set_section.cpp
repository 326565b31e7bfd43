// Replacing or dropping one section of a status file. The file is read once and written once, to a
// temporary file beside it that is renamed over it; readers see the old file or the new one. When
// another process is faster the work starts over: what that one saved would be lost. Only after
// several such defeats does the later rename win, and the lost section returns with its owner's next
// save.

#include "bandwidth_frame.hpp"
#include "bandwidth_guard.hpp"
#include "bandwidth_status_text.hpp"

using namespace bandwidth;

namespace {

enum Mode { kRemove = 0, kSet = 1 };

// Puts the file's new text together: 1, 0 when it holds no such section, or why it cannot. The new
// section is spelled once, when it is needed, however often a planted file repeats its header.
int Compose(std::string_view oldText, zevo::Pieces &newText, const char *szSection,
            const VLIB_SZ_HASH *pHash, Mode mode, SectionText &section) noexcept
{
    bool inside = false;
    int found = 0;
    const char *pKept = oldText.data(); // where what is to be copied next begins
    const auto copyUpTo = [&](const char *pEnd) {
        return newText.Append({pKept, static_cast<size_t>(pEnd - pKept)});
    };
    Lines lines(oldText);
    std::string_view line;
    while (inside ? lines.Next(line) : lines.NextHeaderOf(szSection, line)) {
        const bool isHeader = !inside || IsHeader(line);
        const bool isOurs = isHeader && (!inside || IsHeaderOf(line, szSection));
        inside = isOurs || !isHeader;
        if (!inside || (!isOurs && IsComment(line))) continue;
        if (!copyUpTo(line.data())) return zevo::kComposeFailed;
        pKept = line.data() + line.size();
        if (!isOurs) continue;
        if (mode == kSet && section.view().empty()) {
            if (const int failed = section.Compose(szSection, pHash); failed < 0) return failed;
        }
        found = 1;
        if (!newText.Append(section.view()) || newText.size() > zevo::kMostFileBytes)
            return zevo::kComposeFailed;
    }
    return copyUpTo(oldText.data() + oldText.size()) ? found : zevo::kComposeFailed;
}

int ZEVOBandwidthIStatusSectionRewrite(const char *szFile, const char *szSection,
                                       const VLIB_SZ_HASH *pHash, Mode mode) noexcept
{
    BW_REQUIRE(szFile != nullptr, "((void *)0) != szFile");
    BW_REQUIRE(szSection != nullptr, "NULL != szSection");
    SectionText section;
    zevo::Patience patience;
    const zevo::RewriteResult rewrite = zevo::RewriteFile(
        szFile,
        [&](std::string_view oldText, zevo::Pieces &newText, const struct stat &) {
            return Compose(oldText, newText, szSection, pHash, mode, section);
        },
        patience);
    if (rewrite.result < 0) return rewrite.code == 0 ? BW_PASS_UNLOGGED : BW_FAIL(rewrite.code);
    if (rewrite.result == 0) BW_RECORD(ZEVO_BW_ERROR_NOT_THERE);
    return rewrite.result;
}

} // namespace

int ZEVOBandwidthStatusSetSection(const char *szFile, const char *szSection,
                                  const VLIB_SZ_HASH *pHash) noexcept
{
    const CancelScope cancel;
    return ZEVOBandwidthIStatusSectionRewrite(szFile, szSection, pHash, kSet);
}

int ZEVOBandwidthStatusRemoveSection(const char *szFile, const char *szSection) noexcept
{
    const CancelScope cancel;
    return ZEVOBandwidthIStatusSectionRewrite(szFile, szSection, nullptr, kRemove);
}

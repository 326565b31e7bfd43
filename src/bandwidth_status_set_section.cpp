// Replacing or dropping one section of a status file. The file is read once and written once, to a
// temporary file beside it that is renamed over it; readers see the old file or the new one. Just
// before the rename the path must still name what was read, else the work starts over: another
// process was faster, and what it saved would be lost. Only after several such defeats does the
// later rename win, and the lost section returns with its owner's next save.

#include "bandwidth_frame.hpp"
#include "bandwidth_guard.hpp"
#include "bandwidth_status_text.hpp"

#include <cstdio>
#include <cstdlib>

namespace bandwidth {

bool AppendSection(zevo::Bytes &out, const char *szSection, const VLIB_SZ_HASH *pHash) noexcept
{
    char *pText = nullptr;
    size_t cbText = 0;
    FILE *const pStream = ::open_memstream(&pText, &cbText);
    if (pStream == nullptr) return false;
    const bool written = ::VLIBCFileHash2File(pStream, szSection, pHash, 0) >= 0;
    const bool closed = std::fclose(pStream) == 0;
    const bool appended = written && closed && out.Append({pText, cbText});
    std::free(pText);
    return appended;
}

} // namespace bandwidth

using namespace bandwidth;

namespace {

enum Mode { kRemove = 0, kSet = 1 };

bool IsComment(std::string_view line) noexcept
{
    return line.front() == ';' || line.front() == '#';
}

// Puts the file's new text together: 1, 0 when it holds no such section, kComposeFailed without
// memory.
int Compose(std::string_view oldText, zevo::Bytes &newText, const char *szSection,
            const VLIB_SZ_HASH *pHash, Mode mode) noexcept
{
    bool inside = false;
    int found = 0;
    while (!oldText.empty()) {
        const std::string_view line = CutLine(oldText);
        const Line kind = Recognise(line, szSection);
        if (kind == Line::kOurHeader) {
            inside = true;
            found = 1;
            if (mode == kSet && !AppendSection(newText, szSection, pHash))
                return zevo::kComposeFailed;
            continue;
        }
        if (kind == Line::kHeader) inside = false;
        if (inside && !IsComment(line)) continue;
        if (!newText.Append(line)) return zevo::kComposeFailed;
    }
    return found;
}

int ZEVOBandwidthIStatusSectionRewrite(const char *szFile, const char *szSection,
                                       const VLIB_SZ_HASH *pHash, Mode mode) noexcept
{
    BW_REQUIRE(szFile != nullptr, "((void *)0) != szFile");
    BW_REQUIRE(szSection != nullptr, "NULL != szSection");
    const zevo::RewriteResult rewrite =
        zevo::RewriteFile(szFile, [&](std::string_view oldText, zevo::Bytes &newText) {
            return Compose(oldText, newText, szSection, pHash, mode);
        });
    if (rewrite.result < 0) return BW_FAIL(rewrite.code);
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

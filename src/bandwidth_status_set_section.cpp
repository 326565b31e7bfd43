// Replacing or removing one section of a status file. The file is read once and written once, to a
// temporary file beside it that is renamed over it; readers see the old file or the new one. How
// writers take turns, and what happens when another one is faster, is told in base/replace_file.hpp.
//
// A transfer's own save leaves its section as it is when that is marked inactive: an administrator may
// have stopped the transfer since it last looked.

#include "internal/frame.hpp"
#include "internal/guard.hpp"
#include "internal/status_save.hpp"
#include "internal/status_text.hpp"

#include "base/replace_file.hpp"

using namespace bandwidth;

namespace {

class SectionRewrite final : public zevo::Composer {
public:
    SectionRewrite(const char *szSection, const VLIB_SZ_HASH *pHash, RewriteMode mode) noexcept
        : szSection_(szSection), pHash_(pHash), mode_(mode)
    {
    }
    bool isStopped() const noexcept { return isStopped_; }

    // The section's lines go, but for comments; in their place comes the new section, once for each
    // header of that name.
    zevo::Change Compose(std::string_view oldText, zevo::Pieces &newText) noexcept override
    {
        if (const zevo::Fault fault = LearnStopLine()) return {fault};
        bool isInside = false;
        bool isFound = false;
        const char *pKept = oldText.data(); // where what is to be copied next begins
        Lines lines(oldText);
        std::string_view line;
        while (isInside ? lines.Next(line) : lines.NextHeaderOf(szSection_, line)) {
            const bool isHeader = !isInside || IsHeader(line);
            const bool isOurs = isHeader && (!isInside || IsHeaderOf(line, szSection_));
            isInside = isOurs || !isHeader;
            isStopped_ = isInside && line == stopLine_;
            if (isStopped_) return {};
            if (!isInside || (!isOurs && IsComment(line))) continue;
            const std::string_view kept(pKept, static_cast<size_t>(line.data() - pKept));
            if (const zevo::Fault fault = newText.Append(kept)) return {fault};
            pKept = line.data() + line.size();
            if (!isOurs) continue;
            isFound = true;
            if (const zevo::Fault fault = AppendNew(newText)) return {fault};
        }
        const char *const pEnd = oldText.data() + oldText.size();
        return {newText.Append({pKept, static_cast<size_t>(pEnd - pKept)}), isFound};
    }

private:
    // Finds out how the platform writes the pair that stops a transfer: it is the last line of a
    // section with this pair alone.
    zevo::Fault LearnStopLine() noexcept
    {
        if (mode_ != RewriteMode::kSetUnlessStopped || !stopLine_.empty()) return zevo::kNoFault;
        Hash hash;
        if (!hash || ::VLIBCSzHashSetValue(hash.address(), "active", "0") < 0)
            return zevo::kNoMemory;
        if (const zevo::Fault fault = stopSection_.Compose(szSection_, hash.get())) return fault;
        Lines lines(stopSection_.view());
        for (std::string_view line; lines.Next(line);)
            stopLine_ = line;
        return zevo::kNoFault;
    }
    // A planted file may repeat the header many times, so the section is spelled once.
    zevo::Fault AppendNew(zevo::Pieces &newText) noexcept
    {
        if (mode_ == RewriteMode::kRemove) return zevo::kNoFault;
        if (section_.view().empty()) {
            if (const zevo::Fault fault = section_.Compose(szSection_, pHash_)) return fault;
        }
        const zevo::Fault fault = newText.Append(section_.view());
        return newText.size() > zevo::kMaxFileBytes ? zevo::kNoMemory : fault;
    }

    const char *const szSection_;
    const VLIB_SZ_HASH *const pHash_;
    const RewriteMode mode_;
    SectionText section_;
    SectionText stopSection_;
    std::string_view stopLine_; // empty: no line is
    bool isStopped_ = false;
};

} // namespace

int bandwidth::ZEVOBandwidthIStatusSectionRewrite(const char *szFile, const char *szSection,
                                                  const VLIB_SZ_HASH *pHash,
                                                  RewriteMode mode) noexcept
{
    BW_REQUIRE(szFile != nullptr, "((void *)0) != szFile");
    BW_REQUIRE(szSection != nullptr, "NULL != szSection");
    SectionRewrite rewrite(szSection, pHash, mode);
    zevo::TurnWait wait;
    const zevo::Change change = zevo::ReplaceFile(szFile, rewrite, wait);
    if (change.fault) return BW_FAIL_WITH(change.fault);
    if (change.isMade) return 1;
    if (rewrite.isStopped()) return kStopped;
    BW_RECORD(ZEVO_BW_ERROR_NOT_THERE);
    return 0;
}

int ZEVOBandwidthStatusSetSection(const char *szFile, const char *szSection,
                                  const VLIB_SZ_HASH *pHash) noexcept
{
    const CancelScope cancel;
    return ZEVOBandwidthIStatusSectionRewrite(szFile, szSection, pHash, RewriteMode::kSet);
}

int ZEVOBandwidthStatusRemoveSection(const char *szFile, const char *szSection) noexcept
{
    const CancelScope cancel;
    return ZEVOBandwidthIStatusSectionRewrite(szFile, szSection, nullptr, RewriteMode::kRemove);
}

// The string hash: pairs, found by an index of their keys. Most hold one section, a dozen pairs.
#include "sz_hash.hpp"

#include <algorithm>
#include <cstring>
#include <new>

#include "base/host.hpp"
#include "platform/internal/frame.hpp"

namespace {

constexpr size_t kUsualPairs = 16;

// The text may be the hash's own.
void CopyText(char *szTo, std::string_view text) noexcept
{
    std::memmove(szTo, text.data(), text.size());
    szTo[text.size()] = '\0';
}

} // namespace

VLIB_SZ_HASH::VLIB_SZ_HASH()
{
    pairs_.reserve(kUsualPairs);
}

zevo::Fault VLIB_SZ_HASH::Set(std::string_view key, std::string_view value) noexcept
{
    const size_t found = keys_.Find(key);
    size_t cbCapacity = value.size() + 1;
    if (found != zevo::TextIndex::kAbsent) {
        const zevo::Pair &old = pairs_[found];
        if (cbCapacity <= old.cbCapacity) {
            CopyText(old.szValue, value);
            return zevo::kNoFault;
        }
        key = old.key;
        cbCapacity =
            std::max(cbCapacity, old.cbCapacity * 2); // or giving up memory would have no end
    }
    const size_t cbKey = found == zevo::TextIndex::kAbsent ? key.size() + 1 : 0;
    char *const pTexts = Allocate(cbKey + cbCapacity);
    if (pTexts == nullptr) return zevo::kNoMemory;
    CopyText(pTexts + cbKey, value);
    if (found == zevo::TextIndex::kAbsent) {
        CopyText(pTexts, key);
        key = {pTexts, key.size()};
    }
    return Put(found, {key, pTexts + cbKey, cbCapacity});
}

const char *VLIB_SZ_HASH::Get(std::string_view key) const noexcept
{
    const size_t found = keys_.Find(key);
    return found == zevo::TextIndex::kAbsent ? nullptr : pairs_[found].szValue;
}

void VLIB_SZ_HASH::RemoveAll() noexcept
{
    keys_.Clear();
    pairs_.clear();
    texts_.release();
}

char *VLIB_SZ_HASH::Allocate(size_t cb) noexcept
try {
    return static_cast<char *>(texts_.allocate(cb, 1));
} catch (const std::bad_alloc &) {
    return nullptr;
}

zevo::Fault VLIB_SZ_HASH::SetAllocated(std::string_view key, char *szValue, size_t cbValue) noexcept
{
    return Put(keys_.Find(key), {key, szValue, cbValue + 1});
}

// Puts the pair in the place of the one found, which has the same key, or behind all others.
zevo::Fault VLIB_SZ_HASH::Put(size_t found, const zevo::Pair &pair) noexcept
try {
    if (found != zevo::TextIndex::kAbsent) {
        pairs_[found].szValue = pair.szValue;
        pairs_[found].cbCapacity = pair.cbCapacity;
        return zevo::kNoFault;
    }
    pairs_.push_back(pair);
    const zevo::Fault fault = keys_.Add(pair.key);
    if (fault) pairs_.pop_back();
    return fault;
} catch (const std::bad_alloc &) {
    return zevo::kNoMemory;
}

VLIB_SZ_HASH *VLIBCSzHashAlloc(int) noexcept
try {
    return new VLIB_SZ_HASH;
} catch (const std::bad_alloc &) {
    ZEVO_FAIL(zevo::kNoMemory);
    return nullptr;
}

void VLIBCSzHashFree(VLIB_SZ_HASH *pHash) noexcept
{
    const zevo::KeepErrno keep;
    delete pHash;
}

int VLIBCSzHashSetValue(VLIB_SZ_HASH **ppHash, const char *szKey, const char *szValue) noexcept
{
    if (ppHash == nullptr || *ppHash == nullptr || szKey == nullptr || szValue == nullptr)
        return ZEVO_FAIL(zevo::kBadArgument);
    const zevo::Fault fault = (*ppHash)->Set(szKey, szValue);
    return fault ? ZEVO_FAIL(fault) : 0;
}

const char *VLIBCSzHashGetValue(const VLIB_SZ_HASH *pHash, const char *szKey) noexcept
{
    return pHash == nullptr || szKey == nullptr ? nullptr : pHash->Get(szKey);
}

int VLIBCHashRemoveAll(VLIB_SZ_HASH *pHash) noexcept
{
    if (pHash == nullptr) return ZEVO_FAIL(zevo::kBadArgument);
    pHash->RemoveAll();
    return 0;
}

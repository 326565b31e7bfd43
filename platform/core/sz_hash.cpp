// The string hash. Most hold one section: a dozen keys, among which a linear search is the quickest.
// In a larger one a tree knows all pairs but the last few. Keys may come from files that strangers
// write; unlike a hash table, a tree stays quick whatever keys they choose.
#include "sz_hash.hpp"

#include <algorithm>
#include <cstring>
#include <new>

#include "base/host.hpp"
#include "platform/internal/frame.hpp"

namespace {

constexpr size_t kUsualPairs = 16;
constexpr size_t kMaxUnindexed = 32;

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
    const size_t found = Find(key);
    size_t cbCapacity = value.size() + 1;
    if (found != kAbsent) {
        const zevo::Pair &old = pairs_[found];
        if (cbCapacity <= old.cbCapacity) {
            CopyText(old.szValue, value);
            return zevo::kNoFault;
        }
        key = old.key;
        cbCapacity =
            std::max(cbCapacity, old.cbCapacity * 2); // or giving up memory would have no end
    }
    const size_t cbKey = found == kAbsent ? key.size() + 1 : 0;
    char *const pTexts = Allocate(cbKey + cbCapacity);
    if (pTexts == nullptr) return zevo::kNoMemory;
    CopyText(pTexts + cbKey, value);
    if (found == kAbsent) {
        CopyText(pTexts, key);
        key = {pTexts, key.size()};
    }
    return Put(found, {key, pTexts + cbKey, cbCapacity});
}

const char *VLIB_SZ_HASH::Get(std::string_view key) const noexcept
{
    const size_t found = Find(key);
    return found == kAbsent ? nullptr : pairs_[found].szValue;
}

void VLIB_SZ_HASH::RemoveAll() noexcept
{
    index_.clear();
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
    return Put(Find(key), {key, szValue, cbValue + 1});
}

// The number of the pair, or kAbsent.
size_t VLIB_SZ_HASH::Find(std::string_view key) const noexcept
{
    if (const auto found = index_.find(key); found != index_.end()) return found->second;
    for (size_t i = index_.size(); i < pairs_.size(); ++i)
        if (pairs_[i].key == key) return i;
    return kAbsent;
}

// Puts the pair in the place of the one found, which has the same key, or behind all others.
zevo::Fault VLIB_SZ_HASH::Put(size_t found, const zevo::Pair &pair) noexcept
try {
    if (found != kAbsent) {
        pairs_[found].szValue = pair.szValue;
        pairs_[found].cbCapacity = pair.cbCapacity;
        return zevo::kNoFault;
    }
    if (pairs_.size() - index_.size() >= kMaxUnindexed)
        for (size_t i = index_.size(); i < pairs_.size(); ++i)
            index_.emplace(pairs_[i].key, i);
    pairs_.push_back(pair);
    return zevo::kNoFault;
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

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

// Letters, digits, and spaces between them.
bool IsPlainKey(std::string_view key) noexcept
{
    return !key.empty() && key.front() != ' ' && key.back() != ' ' &&
           std::all_of(key.begin(), key.end(), [](char byte) {
               return byte == ' ' || (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') ||
                      (byte >= 'A' && byte <= 'Z');
           });
}

} // namespace

void zevo::KeyOrder::Note(const TextIndex<Pair> &pairs) noexcept
{
    nKeys_ = 0;
    for (const Pair &pair : pairs) {
        Beginning &line = lines_[nKeys_];
        line.cb = pair.key.size() + 1;
        if (line.cb > sizeof(line.text) || !IsPlainKey(pair.key)) return;
        pair.key.copy(line.text, pair.key.size());
        line.text[pair.key.size()] = '=';
        if (++nKeys_ == kMaxKeys) return;
    }
}

VLIB_SZ_HASH::VLIB_SZ_HASH()
{
    pairs_.Reserve(kUsualPairs);
}

zevo::Fault VLIB_SZ_HASH::Set(std::string_view key, std::string_view value) noexcept
{
    const size_t found = pairs_.Find(key);
    const bool isNew = found == pairs_.kAbsent;
    size_t cbCapacity = value.size() + 1;
    if (!isNew) {
        const zevo::Pair &old = pairs_[found];
        if (cbCapacity <= old.cbCapacity) {
            CopyText(old.szValue, value);
            return zevo::kNoFault;
        }
        // or giving up memory would have no end
        cbCapacity = std::max(cbCapacity, old.cbCapacity * 2);
    }
    const size_t cbKey = isNew ? key.size() + 1 : 0;
    char *const pTexts = Allocate(cbKey + cbCapacity);
    if (pTexts == nullptr) return zevo::kNoMemory;
    CopyText(pTexts + cbKey, value);
    if (isNew) {
        CopyText(pTexts, key);
        key = {pTexts, key.size()};
    }
    return SetAllocated(key, pTexts + cbKey, cbCapacity - 1);
}

const char *VLIB_SZ_HASH::Get(const char *szKey) const noexcept
{
    const size_t next = next_.load(std::memory_order_relaxed);
    if (next < pairs_.size() && std::strcmp(pairs_[next].key.data(), szKey) == 0) {
        next_.store(next + 1, std::memory_order_relaxed);
        return pairs_[next].szValue;
    }
    const size_t found = pairs_.Find(szKey);
    return found == pairs_.kAbsent ? nullptr : pairs_[found].szValue;
}

void VLIB_SZ_HASH::RemoveAll() noexcept
{
    if (!isInOrder_) order_.Note(pairs_);
    isInOrder_ = true;
    next_.store(0, std::memory_order_relaxed);
    pairs_.Clear();
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
    const size_t nBefore = pairs_.size();
    size_t number;
    if (const zevo::Fault fault = pairs_.FindOrAppend(number, key, szValue, cbValue + 1))
        return fault;
    if (number == nBefore) {
        isInOrder_ = false;
        return zevo::kNoFault;
    }
    pairs_[number].szValue = szValue;
    pairs_[number].cbCapacity = cbValue + 1;
    return zevo::kNoFault;
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

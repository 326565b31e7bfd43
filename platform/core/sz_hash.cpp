// The string hash. Keys may come from files that strangers write, so the index is seeded anew in
// every process: nobody can prepare keys that collide.
#include "sz_hash.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <new>

#include <sys/random.h>

#include "zevocore_frame.hpp"

namespace zevo {
namespace {

constexpr size_t kBlockBytes = 4096;
constexpr size_t kFewestSlots = 32;
constexpr size_t kMostHinted = 64; // callers ask for 1024 and set twelve
constexpr size_t kMostPairs = std::numeric_limits<uint32_t>::max() / 4;

struct Seed {
    uint64_t k0 = 0;
    uint64_t k1 = 0;

    Seed() noexcept
    {
        // Early at boot there may be no randomness yet: then the address layout has to do.
        if (::getrandom(this, sizeof(*this), GRND_NONBLOCK) != sizeof(*this))
            k0 ^= reinterpret_cast<uintptr_t>(this);
    }
};

uint64_t LittleEndian(const char *pBytes, size_t cb) noexcept
{
    uint64_t word = 0;
    for (size_t i = 0; i < cb; ++i)
        word |= uint64_t{static_cast<unsigned char>(pBytes[i])} << (8 * i);
    return word;
}

// SipHash-1-3: as strong as needed against chosen keys, and quick on short ones.
class Sip {
public:
    explicit Sip(const Seed &seed) noexcept
        : v0_(seed.k0 ^ 0x736f6d6570736575), v1_(seed.k1 ^ 0x646f72616e646f6d),
          v2_(seed.k0 ^ 0x6c7967656e657261), v3_(seed.k1 ^ 0x7465646279746573)
    {
    }

    void Add(uint64_t word) noexcept
    {
        v3_ ^= word;
        Round();
        v0_ ^= word;
    }

    uint64_t Finish() noexcept
    {
        v2_ ^= 0xff;
        for (int i = 0; i < 3; ++i)
            Round();
        return v0_ ^ v1_ ^ v2_ ^ v3_;
    }

private:
    void Round() noexcept
    {
        v0_ += v1_, v1_ = std::rotl(v1_, 13) ^ v0_, v0_ = std::rotl(v0_, 32);
        v2_ += v3_, v3_ = std::rotl(v3_, 16) ^ v2_;
        v0_ += v3_, v3_ = std::rotl(v3_, 21) ^ v0_;
        v2_ += v1_, v1_ = std::rotl(v1_, 17) ^ v2_, v2_ = std::rotl(v2_, 32);
    }

    uint64_t v0_, v1_, v2_, v3_;
};

const Seed seed; // made when the library is loaded: a forked child must not wait for its making

uint64_t HashOf(std::string_view text) noexcept
{
    Sip sip(seed);
    const size_t cbWhole = text.size() & ~size_t{7};
    for (size_t i = 0; i < cbWhole; i += 8)
        sip.Add(LittleEndian(text.data() + i, 8));
    sip.Add(LittleEndian(text.data() + cbWhole, text.size() - cbWhole) | uint64_t{text.size()}
                                                                             << 56);
    return sip.Finish();
}

void CopyText(char *szTo, std::string_view text) noexcept
{
    if (!text.empty()) std::memmove(szTo, text.data(), text.size()); // it may be the hash's own
    szTo[text.size()] = '\0';
}

} // namespace

char *TextStore::Take(size_t cb)
{
    while (current_ < blocks_.size() && blocks_[current_].cb - used_ < cb) {
        ++current_;
        used_ = 0;
    }
    if (current_ == blocks_.size()) {
        const size_t cbBlock = std::max(cb, kBlockBytes);
        blocks_.push_back({std::unique_ptr<char[]>(new char[cbBlock]), cbBlock});
    }
    char *const pTaken = blocks_[current_].bytes.get() + used_;
    used_ += cb;
    return pTaken;
}

} // namespace zevo

VLIB_SZ_HASH::VLIB_SZ_HASH(size_t nHint)
{
    pairs_.reserve(std::min(nHint, zevo::kMostHinted));
    Index(std::max(std::bit_ceil(pairs_.capacity() * 2), zevo::kFewestSlots));
}

bool VLIB_SZ_HASH::Set(std::string_view key, std::string_view value) noexcept
try {
    const uint64_t hash = zevo::HashOf(key);
    if (const uint32_t number = slots_[SlotOf(key, hash)]; number != 0) {
        Replace(pairs_[number - 1], value);
    } else {
        Insert(key, value, hash);
    }
    return true;
} catch (const std::bad_alloc &) {
    return false;
}

const char *VLIB_SZ_HASH::Get(std::string_view key) const noexcept
{
    const uint32_t number = slots_[SlotOf(key, zevo::HashOf(key))];
    return number == 0 ? nullptr : pairs_[number - 1].szValue;
}

void VLIB_SZ_HASH::RemoveAll() noexcept
{
    pairs_.clear();
    std::fill(slots_.begin(), slots_.end(), 0U);
    texts_.DropAll();
}

// The slot that holds the key, or the free one where it belongs.
size_t VLIB_SZ_HASH::SlotOf(std::string_view key, uint64_t hash) const noexcept
{
    const size_t mask = slots_.size() - 1;
    for (size_t slot = hash & mask;; slot = (slot + 1) & mask) {
        if (slots_[slot] == 0) return slot;
        const zevo::Pair &pair = pairs_[slots_[slot] - 1];
        if (pair.hash == hash && pair.key == key) return slot;
    }
}

void VLIB_SZ_HASH::Replace(zevo::Pair &pair, std::string_view value)
{
    if (value.size() >= pair.cbRoom) {
        // Old room is lost until all is removed; doubling keeps that below what is in use.
        const size_t cbRoom = std::max(value.size() + 1, pair.cbRoom * 2);
        char *const szValue = texts_.Take(cbRoom);
        zevo::CopyText(szValue, value);
        pair.szValue = szValue;
        pair.cbRoom = cbRoom;
        return;
    }
    zevo::CopyText(pair.szValue, value);
}

// Whatever can fail comes first: nothing has changed when it throws.
void VLIB_SZ_HASH::Insert(std::string_view key, std::string_view value, uint64_t hash)
{
    if (pairs_.size() >= zevo::kMostPairs) throw std::bad_alloc();
    if (pairs_.size() == pairs_.capacity()) pairs_.reserve(pairs_.size() * 2 + 8);
    if ((pairs_.size() + 1) * 2 > slots_.size()) Index(slots_.size() * 2);
    char *const szKey = texts_.Take(key.size() + 1);
    char *const szValue = texts_.Take(value.size() + 1);
    zevo::CopyText(szKey, key);
    zevo::CopyText(szValue, value);
    slots_[SlotOf(key, hash)] = static_cast<uint32_t>(pairs_.size() + 1);
    pairs_.push_back({{szKey, key.size()}, szValue, value.size() + 1, hash});
}

void VLIB_SZ_HASH::Index(size_t nSlots)
{
    std::vector<uint32_t> slots(nSlots, 0U);
    slots_.swap(slots);
    for (size_t i = 0; i < pairs_.size(); ++i)
        slots_[SlotOf(pairs_[i].key, pairs_[i].hash)] = static_cast<uint32_t>(i + 1);
}

VLIB_SZ_HASH *VLIBCSzHashAlloc(int size) noexcept
try {
    return new VLIB_SZ_HASH(static_cast<size_t>(std::max(size, 0)));
} catch (const std::bad_alloc &) {
    ZEVO_FAIL(zevo::kFileNoMemory);
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
    return (*ppHash)->Set(szKey, szValue) ? 0 : ZEVO_FAIL(zevo::kFileNoMemory);
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

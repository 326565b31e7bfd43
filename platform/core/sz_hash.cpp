// The string hash. Most hold one section, a dozen keys that are set and asked for in one order: these
// need no index, for the key that is wanted is the next one. Where there are more, the index is seeded
// anew in every process, since keys may come from files that strangers write: nobody can prepare keys
// that collide.
#include "sz_hash.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>

#include <sys/random.h>

#include "base/host.hpp"
#include "platform/internal/frame.hpp"

namespace zevo {
namespace {

constexpr size_t kBlockBytes = 4096;
constexpr size_t kMostHinted = 16; // callers ask for 1024 and set twelve
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

template <class Word> uint64_t Load(const char *pBytes) noexcept
{
    Word word;
    std::memcpy(&word, pBytes, sizeof(word));
    return word;
}

// Fewer than eight bytes as a number, in which each stands at its own place; some may be read twice.
uint64_t LoadRest(const char *pBytes, size_t cb) noexcept
{
    if (cb >= 4) return Load<uint32_t>(pBytes) | Load<uint32_t>(pBytes + cb - 4) << (8 * (cb - 4));
    if (cb == 0) return 0;
    return Load<uint8_t>(pBytes) | Load<uint8_t>(pBytes + cb / 2) << (8 * (cb / 2)) |
           Load<uint8_t>(pBytes + cb - 1) << (8 * (cb - 1));
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

void CopyText(char *szTo, std::string_view text) noexcept
{
    if (!text.empty()) std::memmove(szTo, text.data(), text.size()); // it may be the hash's own
    szTo[text.size()] = '\0';
}

} // namespace

uint64_t HashOf(std::string_view text) noexcept
{
    Sip sip(seed);
    const size_t cbWhole = text.size() & ~size_t{7};
    for (size_t i = 0; i < cbWhole; i += 8)
        sip.Add(Load<uint64_t>(text.data() + i));
    sip.Add(LoadRest(text.data() + cbWhole, text.size() - cbWhole) | uint64_t{text.size()} << 56);
    return sip.Finish();
}

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

namespace {

bool IsShapely(std::string_view key) noexcept
{
    if (key.empty() || key.size() >= Shape::kKeyBytes) return false;
    if (key.front() == ' ' || key.back() == ' ' || key.find_first_of("=\"[;#") != key.npos)
        return false;
    return std::all_of(key.begin(), key.end(),
                       [](char byte) { return static_cast<unsigned char>(byte) >= ' '; });
}

} // namespace

void Shape::Note(const std::vector<Pair> &pairs) noexcept
{
    nKeys_ = 0;
    for (const Pair &pair : pairs) {
        if (nKeys_ == std::size(keys_) || !IsShapely(pair.key)) return;
        Key &key = keys_[nKeys_++];
        key = {};
        key.cb = pair.key.size();
        key.mark = zevo::MarkOf(pair.key);
        char text[kKeyBytes] = {};
        char mask[kKeyBytes] = {};
        pair.key.copy(text, sizeof(text));
        text[key.cb] = '=';
        std::memset(mask, 0xFF, key.cb + 1);
        std::memcpy(key.text, text, sizeof(text));
        std::memcpy(key.mask, mask, sizeof(mask));
    }
}

} // namespace zevo

VLIB_SZ_HASH::VLIB_SZ_HASH(size_t nHint)
{
    pairs_.reserve(std::min(nHint, zevo::kMostHinted));
}

bool VLIB_SZ_HASH::Set(std::string_view key, std::string_view value) noexcept
try {
    if (const size_t found = Find(key); found != kAbsent) {
        Replace(pairs_[found], value);
        return true;
    }
    char *const szKey = texts_.Take(key.size() + 1);
    char *const szValue = texts_.Take(value.size() + 1);
    zevo::CopyText(szKey, key);
    zevo::CopyText(szValue, value);
    Insert({{szKey, key.size()}, szValue, value.size() + 1});
    return true;
} catch (const std::bad_alloc &) {
    return false;
}

char *VLIB_SZ_HASH::Room(size_t cb) noexcept
try {
    return texts_.Take(cb);
} catch (const std::bad_alloc &) {
    return nullptr;
}

bool VLIB_SZ_HASH::Adopt(std::string_view key, char *szValue, size_t cbValue) noexcept
try {
    if (const size_t found = Find(key); found != kAbsent) {
        pairs_[found].szValue = szValue;
        pairs_[found].cbRoom = cbValue + 1;
        return true;
    }
    Insert({key, szValue, cbValue + 1});
    return true;
} catch (const std::bad_alloc &) {
    return false;
}

[[gnu::noinline]] const char *VLIB_SZ_HASH::LookUp(const char *szKey) const noexcept
{
    if (pairs_.empty()) return nullptr;
    // A transfer's time stamp, which stands last and is asked for among the others.
    if (std::strcmp(pairs_.back().key.data(), szKey) == 0) return pairs_.back().szValue;
    const size_t found = Find(szKey);
    if (found == kAbsent) return nullptr;
    if (found == next_ + 1) next_ = found + 1; // one was passed over; a leap is no new order
    return pairs_[found].szValue;
}

void VLIB_SZ_HASH::RemoveAll() noexcept
{
    pairs_.clear();
    slots_.clear();
    marks_ = 0;
    next_ = 0;
    texts_.DropAll();
}

// The number of the pair, or kAbsent.
size_t VLIB_SZ_HASH::Find(std::string_view key) const noexcept
{
    if ((marks_ & zevo::MarkOf(key)) == 0) return kAbsent;
    if (!slots_.empty()) return size_t{slots_[SlotOf(key)]} - 1; // 0 is free
    for (size_t i = 0; i < pairs_.size(); ++i)
        if (pairs_[i].key == key) return i;
    return kAbsent;
}

// The slot that holds the key, or the free one where it belongs.
size_t VLIB_SZ_HASH::SlotOf(std::string_view key) const noexcept
{
    const size_t mask = slots_.size() - 1;
    for (size_t slot = zevo::HashOf(key) & mask;; slot = (slot + 1) & mask)
        if (slots_[slot] == 0 || pairs_[slots_[slot] - 1].key == key) return slot;
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
void VLIB_SZ_HASH::Insert(const zevo::Pair &pair)
{
    if (pairs_.size() >= zevo::kMostPairs) throw std::bad_alloc();
    if (pairs_.size() == pairs_.capacity()) pairs_.reserve(pairs_.size() * 2 + 8);
    if (pairs_.size() >= kMostUnindexed && (pairs_.size() + 1) * 2 > slots_.size())
        Index(std::max(std::bit_ceil(pairs_.size() + 1) * 2, slots_.size() * 2));
    if (!slots_.empty()) slots_[SlotOf(pair.key)] = static_cast<uint32_t>(pairs_.size() + 1);
    pairs_.push_back(pair);
    marks_ |= zevo::MarkOf(pair.key);
}

void VLIB_SZ_HASH::Index(size_t nSlots)
{
    std::vector<uint32_t> slots(nSlots, 0U);
    slots_.swap(slots);
    for (size_t i = 0; i < pairs_.size(); ++i)
        slots_[SlotOf(pairs_[i].key)] = static_cast<uint32_t>(i + 1);
}

VLIB_SZ_HASH *VLIBCSzHashAlloc(int size) noexcept
try {
    return new VLIB_SZ_HASH(static_cast<size_t>(std::max(size, 0)));
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
    return (*ppHash)->Set(szKey, szValue) ? 0 : ZEVO_FAIL(zevo::kNoMemory);
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

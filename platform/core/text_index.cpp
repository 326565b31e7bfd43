// Among a few texts, such as the keys of one transfer, a linear search is the quickest. More of them
// get a hash table with open addressing. The texts come from files that strangers write: the hash is
// seeded anew in every process, so that nobody can prepare texts that collide.
#include "text_index.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <new>

#include <sys/random.h>

namespace zevo {
namespace {

constexpr size_t kMaxUnindexed = 32;

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

// Made when the library is loaded: a forked child must not wait for another thread to make it.
const Seed seed;

// SipHash-1-3: strong enough against chosen texts, and quick on short ones.
class Sip {
public:
    void Add(uint64_t word) noexcept
    {
        v3_ ^= word;
        Round();
        v0_ ^= word;
    }
    uint64_t Finish() noexcept
    {
        v2_ ^= 0xFF;
        Round();
        Round();
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

    uint64_t v0_ = seed.k0 ^ 0x736F6D6570736575;
    uint64_t v1_ = seed.k1 ^ 0x646F72616E646F6D;
    uint64_t v2_ = seed.k0 ^ 0x6C7967656E657261;
    uint64_t v3_ = seed.k1 ^ 0x7465646279746573;
};

uint32_t HashOf(std::string_view text) noexcept
{
    Sip sip;
    const uint64_t length = text.size();
    uint64_t word = 0;
    for (; text.size() >= sizeof(word); text.remove_prefix(sizeof(word))) {
        std::memcpy(&word, text.data(), sizeof(word));
        sip.Add(word);
    }
    word = length << 56;
    text.copy(reinterpret_cast<char *>(&word), text.size());
    sip.Add(word);
    return static_cast<uint32_t>(sip.Finish());
}

} // namespace

TextIndex::TextIndex()
{
    texts_.reserve(kMaxUnindexed);
}

size_t TextIndex::FindIndexed(std::string_view text) const noexcept
{
    const uint32_t hash = HashOf(text);
    const size_t mask = slots_.size() - 1;
    for (size_t at = hash & mask; slots_[at].number != 0; at = (at + 1) & mask)
        if (slots_[at].hash == hash && texts_[slots_[at].number - 1] == text)
            return slots_[at].number - 1;
    return kAbsent;
}

Fault TextIndex::Add(std::string_view text) noexcept
try {
    const size_t number = texts_.size() + 1;
    if (number > std::numeric_limits<uint32_t>::max()) return kNoMemory;
    if (number > kMaxUnindexed && number * 4 > slots_.size() * 3) Widen();
    texts_.push_back(text);
    if (!slots_.empty()) Insert({HashOf(text), static_cast<uint32_t>(number)});
    return kNoFault;
} catch (const std::bad_alloc &) {
    return kNoMemory;
}

void TextIndex::Clear() noexcept
{
    texts_.clear();
    slots_.clear();
}

void TextIndex::Widen()
{
    std::vector<Slot> old(std::max(slots_.size() * 2, kMaxUnindexed * 4));
    old.swap(slots_);
    for (const Slot &slot : old)
        if (slot.number != 0) Insert(slot);
    if (!old.empty()) return;
    for (size_t i = 0; i < texts_.size(); ++i)
        Insert({HashOf(texts_[i]), static_cast<uint32_t>(i + 1)});
}

void TextIndex::Insert(Slot slot) noexcept
{
    const size_t mask = slots_.size() - 1;
    size_t at = slot.hash & mask;
    while (slots_[at].number != 0)
        at = (at + 1) & mask;
    slots_[at] = slot;
}

} // namespace zevo

// Entries numbered in the order in which they were added, and the way from an entry's key to its
// number. Among a few entries, such as the pairs of one transfer, a linear search is the quickest.
// More of them get a hash table with open addressing.
#ifndef TEXT_INDEX_HPP
#define TEXT_INDEX_HPP

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <string_view>
#include <vector>

#include "base/fault.hpp"

namespace zevo {

// Keys come from files that strangers write: the hash is seeded anew in every process, so that nobody
// can prepare keys that collide.
uint32_t SeededHash(std::string_view text) noexcept;

// Entry begins with a std::string_view `key`, whose text has to outlive the index.
template <class Entry> class TextIndex {
public:
    static constexpr size_t kAbsent = ~size_t{0};

    // The number of the entry with that key, or kAbsent.
    size_t Find(std::string_view key) const noexcept
    {
        return Search(key, slots_.empty() ? 0 : SeededHash(key));
    }
    // Finds the entry with that key, or appends it, made of key and rest. Changes nothing on failure.
    template <class... Rest>
    Fault FindOrAppend(size_t &number, std::string_view key, Rest... rest) noexcept
    {
        const uint32_t hash = slots_.empty() ? 0 : SeededHash(key);
        number = Search(key, hash);
        if (number != kAbsent) return kNoFault;
        number = size();
        return AppendHashed(hash, key, rest...);
    }
    // Appends an entry whose key is known to be absent.
    template <class... Rest> Fault Append(std::string_view key, Rest... rest) noexcept
    {
        return AppendHashed(slots_.empty() ? 0 : SeededHash(key), key, rest...);
    }
    void Clear() noexcept
    {
        entries_.clear();
        slots_.clear();
    }
    // Makes room before the first entry; throws std::bad_alloc.
    void Reserve(size_t nEntries)
    {
        entries_.reserve(nEntries);
        if (nEntries > kMaxUnindexed) slots_.resize(std::bit_ceil(nEntries * 2));
    }

    size_t size() const noexcept { return entries_.size(); }
    Entry &operator[](size_t number) noexcept { return entries_[number]; }
    const Entry &operator[](size_t number) const noexcept { return entries_[number]; }
    auto begin() const noexcept { return entries_.begin(); }
    auto end() const noexcept { return entries_.end(); }

private:
    static constexpr size_t kMaxUnindexed = 32;

    // With the hash, few other keys are looked at, and none is hashed again to widen the table.
    struct Slot {
        uint32_t hash;
        uint32_t place; // the entry's number and 1; 0: the slot is free
    };

    size_t Search(std::string_view key, uint32_t hash) const noexcept
    {
        if (!slots_.empty()) return size_t{slots_[SlotOf(key, hash)].place} - 1;
        for (size_t i = 0; i < size(); ++i)
            if (entries_[i].key == key) return i;
        return kAbsent;
    }
    // The slot of the entry with that key, or the free slot where it would be.
    size_t SlotOf(std::string_view key, uint32_t hash) const noexcept
    {
        size_t at = hash;
        for (;; ++at) {
            const Slot &slot = slots_[at &= slots_.size() - 1];
            if (slot.place == 0) return at;
            if (slot.hash == hash && entries_[slot.place - 1].key == key) return at;
        }
    }

    template <class... Rest>
    Fault AppendHashed(uint32_t hash, std::string_view key, Rest... rest) noexcept
    try {
        const size_t place = size() + 1;
        if (place > std::numeric_limits<uint32_t>::max()) return kNoMemory;
        if (place > kMaxUnindexed && place * 4 > slots_.size() * 3) {
            if (slots_.empty()) hash = SeededHash(key);
            Widen();
        }
        entries_.emplace_back(key, rest...);
        if (!slots_.empty()) Place({hash, static_cast<uint32_t>(place)});
        return kNoFault;
    } catch (const std::bad_alloc &) {
        return kNoMemory;
    }

    void Place(Slot slot) noexcept
    {
        slots_[SlotOf(entries_[slot.place - 1].key, slot.hash)] = slot;
    }

    void Widen() // throws std::bad_alloc
    {
        std::vector<Slot> old(std::max(slots_.size() * 2, kMaxUnindexed * 4));
        old.swap(slots_);
        for (uint32_t i = 0; old.empty() && i < size(); ++i)
            Place({SeededHash(entries_[i].key), i + 1});
        for (const Slot &slot : old)
            if (slot.place != 0) Place(slot);
    }

    std::vector<Entry> entries_;
    std::vector<Slot> slots_; // none for few entries; else a power of two, a quarter of them free
};

} // namespace zevo

#endif // TEXT_INDEX_HPP

// The string hash from the inside: pairs in the order in which their keys were first set, texts in
// a store that never moves them, and an index from keys to pairs.
#ifndef SZ_HASH_HPP
#define SZ_HASH_HPP

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "zevocore.h"

namespace zevo {

// Keeps texts where they are until all are dropped together; the memory stays for the next ones.
class TextStore {
public:
    char *Take(size_t cb); // throws std::bad_alloc
    void DropAll() noexcept { current_ = used_ = 0; }

private:
    struct Block {
        std::unique_ptr<char[]> bytes;
        size_t cb;
    };

    std::vector<Block> blocks_;
    size_t current_ = 0; // the block being filled; those before it are full enough
    size_t used_ = 0;    // bytes taken of it
};

struct Pair {
    std::string_view key; // with a NUL behind it
    char *szValue;
    size_t cbRoom; // bytes szValue may grow to in place
};

// One of 64 bits. Quick, and as good as it is: who collides is looked for.
inline uint64_t MarkOf(std::string_view key) noexcept
{
    if (key.empty()) return 1;
    const auto first = static_cast<unsigned char>(key.front());
    const auto last = static_cast<unsigned char>(key.back());
    return uint64_t{1} << ((key.size() * 5 + first * 3U + last) & 63);
}

// A dozen short keys in their order, those that stand in a section as they are: without quotes.
class Shape {
public:
    static constexpr size_t kKeyBytes = 16; // with the '='

    struct Key {
        uint64_t text[2];
        uint64_t mask[2];
        size_t cb;
        uint64_t mark;

        // Whether a line begins with the key and a '='. Beyond its end kKeyBytes can be read.
        bool Begins(const char *pLine, size_t cbLine) const noexcept
        {
            if (cbLine <= cb) return false;
            uint64_t line[2];
            std::memcpy(line, pLine, sizeof(line));
            return (((line[0] ^ text[0]) & mask[0]) | ((line[1] ^ text[1]) & mask[1])) == 0;
        }
    };

    void Note(const std::vector<Pair> &pairs) noexcept;
    const Key *begin() const noexcept { return keys_; }
    const Key *end() const noexcept { return keys_ + nKeys_; }

private:
    Key keys_[16];
    size_t nKeys_ = 0;
};

// Seeded anew in every process: nobody can prepare texts that collide.
uint64_t HashOf(std::string_view text) noexcept;

} // namespace zevo

struct VLIB_SZ_HASH {
public:
    explicit VLIB_SZ_HASH(size_t nHint); // throws std::bad_alloc

    // false, with the hash as it was, without memory.
    bool Set(std::string_view key, std::string_view value) noexcept;
    // nullptr when the key is absent. Most ask for one key after the other, in their order.
    const char *Get(const char *szKey) const noexcept
    {
        if (next_ < pairs_.size() && std::strcmp(pairs_[next_].key.data(), szKey) == 0)
            return pairs_[next_++].szValue;
        return LookUp(szKey);
    }
    void RemoveAll() noexcept;

    // Room for texts that stay as long as the hash's own; nullptr without memory.
    char *Room(size_t cb) noexcept;
    // Set() for texts within such room that a NUL ends: they are not copied.
    bool Adopt(std::string_view key, char *szValue, size_t cbValue) noexcept;
    // The same for the next key of the shape, where all before it are of the shape, too.
    bool AdoptAlike(const zevo::Shape::Key &key, const char *szKey, char *szValue,
                    size_t cbValue) noexcept
    {
        if (pairs_.size() == pairs_.capacity()) return Adopt({szKey, key.cb}, szValue, cbValue);
        marks_ |= key.mark;
        pairs_.push_back({{szKey, key.cb}, szValue, cbValue + 1});
        return true;
    }

    // The keys that the last section had: the next one mostly has the same.
    const zevo::Shape &shape() const noexcept { return shape_; }
    void NoteShape() noexcept { shape_.Note(pairs_); }

    const std::vector<zevo::Pair> &pairs() const noexcept { return pairs_; }

private:
    static constexpr size_t kAbsent = ~size_t{0};
    static constexpr size_t kMostUnindexed = 16;

    const char *LookUp(const char *szKey) const noexcept;
    size_t Find(std::string_view key) const noexcept;
    size_t SlotOf(std::string_view key) const noexcept;
    void Replace(zevo::Pair &pair, std::string_view value);
    void Insert(const zevo::Pair &pair);
    void Index(size_t nSlots);

    std::vector<zevo::Pair> pairs_;
    std::vector<uint32_t>
        slots_;          // open addressing; a pair's number + 1, 0 is free; few pairs have none
    uint64_t marks_ = 0; // of the keys; a key whose mark is missing is absent
    mutable size_t next_ = 0; // the pair behind the one that was asked for last
    zevo::TextStore texts_;
    zevo::Shape shape_;
};

#endif // SZ_HASH_HPP

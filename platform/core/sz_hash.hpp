// The string hash from the inside: pairs in the order in which their keys were first set, texts in
// a store that never moves them, and an index from keys to pairs.
#ifndef SZ_HASH_HPP
#define SZ_HASH_HPP

#include <cstddef>
#include <cstdint>
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
    std::string_view key;
    char *szValue;
    size_t cbRoom; // bytes szValue may grow to in place
    uint64_t hash;
};

} // namespace zevo

struct VLIB_SZ_HASH {
public:
    explicit VLIB_SZ_HASH(size_t nHint); // throws std::bad_alloc

    // false, with the hash as it was, without memory.
    bool Set(std::string_view key, std::string_view value) noexcept;
    // nullptr when the key is absent.
    const char *Get(std::string_view key) const noexcept;
    void RemoveAll() noexcept;

    const std::vector<zevo::Pair> &pairs() const noexcept { return pairs_; }

private:
    size_t SlotOf(std::string_view key, uint64_t hash) const noexcept;
    void Replace(zevo::Pair &pair, std::string_view value);
    void Insert(std::string_view key, std::string_view value, uint64_t hash);
    void Index(size_t nSlots);

    std::vector<zevo::Pair> pairs_;
    std::vector<uint32_t> slots_; // open addressing; a pair's number + 1, 0 is free
    zevo::TextStore texts_;
};

#endif // SZ_HASH_HPP

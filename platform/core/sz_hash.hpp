// The string hash from the inside: pairs in the order in which their keys were first set. Their texts
// stay where they are until the hash is emptied.
#ifndef SZ_HASH_HPP
#define SZ_HASH_HPP

#include <cstddef>
#include <memory_resource>
#include <string_view>
#include <vector>

#include "text_index.hpp"
#include "zevocore.h"

namespace zevo {

struct Pair {
    std::string_view key; // with a NUL behind it
    char *szValue;
    size_t cbCapacity; // how long szValue may become in place, with its NUL
};

} // namespace zevo

struct VLIB_SZ_HASH {
public:
    VLIB_SZ_HASH(); // throws std::bad_alloc

    // Leaves the hash as it was on failure.
    zevo::Fault Set(std::string_view key, std::string_view value) noexcept;
    // nullptr when the key is absent.
    const char *Get(std::string_view key) const noexcept;
    void RemoveAll() noexcept;
    const std::vector<zevo::Pair> &pairs() const noexcept { return pairs_; }

    // Memory for texts, which lives until the hash is emptied; nullptr without memory.
    char *Allocate(size_t cb) noexcept;
    // Set() without copying: both texts stand in such memory, each with its NUL.
    zevo::Fault SetAllocated(std::string_view key, char *szValue, size_t cbValue) noexcept;

private:
    zevo::Fault Put(size_t found, const zevo::Pair &pair) noexcept;

    char firstTexts_[4000]; // enough for most hashes
    std::pmr::monotonic_buffer_resource texts_{firstTexts_, sizeof(firstTexts_)};
    std::vector<zevo::Pair> pairs_;
    zevo::TextIndex keys_; // numbered as the pairs are
};

#endif // SZ_HASH_HPP

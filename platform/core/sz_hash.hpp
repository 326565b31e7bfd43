// The string hash from the inside: pairs in the order in which their keys were first set. Their texts
// stay where they are until the hash is emptied.
#ifndef SZ_HASH_HPP
#define SZ_HASH_HPP

#include <atomic>
#include <cstddef>
#include <memory_resource>
#include <string_view>

#include "text_index.hpp"
#include "zevocore.h"

namespace zevo {

struct Pair {
    Pair(std::string_view ownKey, char *szOwnValue, size_t cbOwnCapacity) noexcept
        : key(ownKey), szValue(szOwnValue), cbCapacity(cbOwnCapacity)
    {
    }

    std::string_view key; // with a NUL behind it
    char *szValue;
    size_t cbCapacity; // how long szValue may become in place, with its NUL
};

// The beginnings of the lines, "key=", of a section that has been read, in its order. The next section
// of a listing usually has the same ones.
class KeyOrder {
public:
    // Notes the keys up to the first that does not stand in a line as it is.
    void Note(const TextIndex<Pair> &pairs) noexcept;
    // The beginning of line i, which holds the pair number i; empty: nothing is known of it.
    std::string_view operator[](size_t i) const noexcept
    {
        return i < nKeys_ ? std::string_view(lines_[i].text, lines_[i].cb) : std::string_view();
    }

private:
    static constexpr size_t kMaxKeys = 16;
    struct Beginning {
        size_t cb;
        char text[24];
    };

    Beginning lines_[kMaxKeys];
    size_t nKeys_ = 0;
};

} // namespace zevo

struct VLIB_SZ_HASH {
public:
    VLIB_SZ_HASH(); // throws std::bad_alloc

    // Leaves the hash as it was on failure.
    zevo::Fault Set(std::string_view key, std::string_view value) noexcept;
    // nullptr when the key is absent.
    const char *Get(const char *szKey) const noexcept;
    void RemoveAll() noexcept;
    const zevo::TextIndex<zevo::Pair> &pairs() const noexcept { return pairs_; }

    // Memory for texts, which lives until the hash is emptied; nullptr without memory.
    char *Allocate(size_t cb) noexcept;
    // Set() without copying: both texts stand in such memory, each with its NUL.
    zevo::Fault SetAllocated(std::string_view key, char *szValue, size_t cbValue) noexcept;

    // As long as the keys come in the order of those that the hash held before it was emptied: how the
    // next one's line begins. Else empty.
    std::string_view ExpectedLine() const noexcept
    {
        return isInOrder_ ? order_[pairs_.size()] : std::string_view();
    }
    // SetAllocated() for the expected key: it need not be searched for.
    zevo::Fault SetExpected(std::string_view key, char *szValue, size_t cbValue) noexcept
    {
        return pairs_.Append(key, szValue, cbValue + 1);
    }

private:
    char firstTexts_[4000]; // enough for most hashes
    std::pmr::monotonic_buffer_resource texts_{firstTexts_, sizeof(firstTexts_)};
    zevo::TextIndex<zevo::Pair> pairs_;
    zevo::KeyOrder order_;
    mutable std::atomic<size_t> next_{0}; // the number of the key that is probably asked for next
    bool isInOrder_ = true;               // so far all keys came in this order
};

#endif // SZ_HASH_HPP

// Texts numbered in the order in which they were added, and the way back from a text to its number.
#ifndef TEXT_INDEX_HPP
#define TEXT_INDEX_HPP

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "base/fault.hpp"

namespace zevo {

class TextIndex {
public:
    static constexpr size_t kAbsent = ~size_t{0};

    TextIndex(); // throws std::bad_alloc

    // The number of the text, or kAbsent.
    size_t Find(std::string_view text) const noexcept
    {
        if (!slots_.empty()) return FindIndexed(text);
        for (size_t i = 0; i < texts_.size(); ++i)
            if (texts_[i] == text) return i;
        return kAbsent;
    }
    // Numbers a text that is absent; it has to outlive the index. Changes nothing on failure.
    Fault Add(std::string_view text) noexcept;
    void Clear() noexcept;

private:
    // With the hash, few other texts are looked at, and none is hashed again to widen the table.
    struct Slot {
        uint32_t hash;
        uint32_t number; // from 1 on; 0: the slot is free
    };

    size_t FindIndexed(std::string_view text) const noexcept;
    void Widen();
    void Insert(Slot slot) noexcept;

    std::vector<std::string_view> texts_;
    std::vector<Slot> slots_; // none for few texts; else a power of two, a quarter of them free
};

} // namespace zevo

#endif // TEXT_INDEX_HPP

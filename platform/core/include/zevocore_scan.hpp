// The lines of a text, a block of bytes at a time: for who looks at each line of a file. Header-only,
// like the careful access to files beside it.
#ifndef ZEVOCORE_SCAN_HPP
#define ZEVOCORE_SCAN_HPP

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace zevo {

// Finds one byte after the other that ends a line. A search of its own for each costs more than the
// lines' bytes, which are few.
class LineEnds {
public:
    explicit LineEnds(std::string_view text) noexcept : text_(text) { Look(); }

    // Where the next "\n" stands; the length of the text when there is none left.
    size_t Next() noexcept
    {
        while (found_ == 0) {
            if (text_.size() - at_ <= kBlock) return text_.size();
            at_ += kBlock;
            Look();
        }
        const size_t end = at_ + static_cast<size_t>(std::countr_zero(found_));
        found_ &= found_ - 1;
        return end;
    }

private:
    static constexpr size_t kBlock = 64;

    void Look() noexcept
    {
        const size_t cbLeft = text_.size() - at_;
        if (cbLeft >= kBlock) {
            found_ = Find(text_.data() + at_);
            return;
        }
        char rest[kBlock] = {};
        text_.copy(rest, cbLeft, at_);
        found_ = Find(rest);
    }

    // A bit for each byte of the block.
    static uint64_t Find(const char *pBlock) noexcept
    {
        uint64_t found = 0;
#ifdef __SSE2__
        constexpr size_t kWord = 16;
        const __m128i ends = _mm_set1_epi8('\n');
        for (size_t i = 0; i < kBlock; i += kWord) {
            const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i *>(pBlock + i));
            const int word = _mm_movemask_epi8(_mm_cmpeq_epi8(bytes, ends));
            found |= uint64_t{static_cast<unsigned>(word)} << i;
        }
#else
        for (size_t i = 0; i < kBlock; ++i)
            found |= uint64_t{pBlock[i] == '\n'} << i;
#endif
        return found;
    }

    std::string_view text_;
    size_t at_ = 0;
    uint64_t found_ = 0; // in the block at at_, without those that were told
};

} // namespace zevo

#endif // ZEVOCORE_SCAN_HPP

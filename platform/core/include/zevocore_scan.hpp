// Searches a text for a word, a block of bytes at a time. Header-only, like the access to files beside
// it.
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

constexpr size_t kScanBlock = 64;

// A bit for each byte of a block that is the wanted one.
inline uint64_t FindInBlock(const char *pBlock, char wanted) noexcept
{
    uint64_t found = 0;
#ifdef __SSE2__
    constexpr size_t kWord = 16;
    const __m128i pattern = _mm_set1_epi8(wanted);
    for (size_t i = 0; i < kScanBlock; i += kWord) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i *>(pBlock + i));
        const int word = _mm_movemask_epi8(_mm_cmpeq_epi8(bytes, pattern));
        found |= uint64_t{static_cast<unsigned>(word)} << i;
    }
#else
    for (size_t i = 0; i < kScanBlock; ++i)
        found |= uint64_t{pBlock[i] == wanted} << i;
#endif
    return found;
}

// Where the word stands first, npos when nowhere. It is looked for by one of its bytes, a mark rather
// than a letter or a digit, for those are everywhere.
inline size_t FindWord(std::string_view text, std::string_view word) noexcept
{
    const auto isMark = [](char c) {
        return (c < '0' || c > '9') && ((c | 32) < 'a' || (c | 32) > 'z');
    };
    size_t pivot = 0;
    while (pivot + 1 < word.size() && !isMark(word[pivot]))
        ++pivot;
    size_t at = pivot; // where the pivot may stand
    for (; at + kScanBlock + word.size() <= text.size(); at += kScanBlock)
        for (uint64_t found = FindInBlock(text.data() + at, word[pivot]); found != 0;
             found &= found - 1) {
            const char *const pFound = text.data() + at + std::countr_zero(found);
            if (pivot != 0 && pFound[-1] != word[pivot - 1]) continue; // as in most numbered names
            const char *const pBegin = pFound - pivot;
            if (std::memcmp(pBegin, word.data(), word.size()) == 0)
                return static_cast<size_t>(pBegin - text.data());
        }
    return text.find(word, at - pivot);
}

} // namespace zevo

#endif // ZEVOCORE_SCAN_HPP

// Searches for one byte of the word, in blocks of 64 bytes, and compares the word only where that byte
// stands. A mark, neither letter nor digit, serves best: a status file has few of each.
#include "scan.hpp"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace zevo {

namespace {

constexpr size_t kBlockBytes = 64;

// A bit for each byte of a block that is the wanted one.
uint64_t FindInBlock(const char *pBlock, char wanted) noexcept
{
    uint64_t found = 0;
#ifdef __SSE2__
    constexpr size_t kStep = 16;
    const __m128i pattern = _mm_set1_epi8(wanted);
    for (size_t i = 0; i < kBlockBytes; i += kStep) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i *>(pBlock + i));
        const int equal = _mm_movemask_epi8(_mm_cmpeq_epi8(bytes, pattern));
        found |= uint64_t{static_cast<unsigned>(equal)} << i;
    }
#else
    for (size_t i = 0; i < kBlockBytes; ++i)
        found |= uint64_t{pBlock[i] == wanted} << i;
#endif
    return found;
}

bool IsMark(char byte) noexcept
{
    return (byte < '0' || byte > '9') && ((byte | 32) < 'a' || (byte | 32) > 'z');
}

} // namespace

size_t FindWord(std::string_view text, std::string_view word) noexcept
{
    const auto mark = std::find_if(word.begin(), word.end(), IsMark);
    const size_t pivot = mark == word.end() ? 0 : static_cast<size_t>(mark - word.begin());
    size_t at = pivot; // where the pivot may stand
    for (; at + kBlockBytes + word.size() <= text.size(); at += kBlockBytes) {
        uint64_t found = FindInBlock(text.data() + at, word[pivot]);
        for (; found != 0; found &= found - 1) {
            const char *const pFound = text.data() + at + std::countr_zero(found);
            const char *const pBegin = pFound - pivot;
            // The byte before the pivot tells most numbered names apart.
            if (pivot != 0 && pFound[-1] != word[pivot - 1]) continue;
            if (std::memcmp(pBegin, word.data(), word.size()) == 0)
                return static_cast<size_t>(pBegin - text.data());
        }
    }
    return text.find(word, at - pivot);
}

} // namespace zevo

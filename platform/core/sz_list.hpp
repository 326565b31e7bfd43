// The string list from the inside: what adds to it.
#ifndef SZ_LIST_HPP
#define SZ_LIST_HPP

#include <string_view>

#include "zevocore.h"

namespace zevo {

// Appends a copy of the text; false, with the list as it was, without memory.
bool ListAppend(VLIB_SZ_LIST &list, std::string_view text) noexcept;

// Appends copies of texts that stand one behind the other, each with its NUL; false, with the list as
// it was, without memory.
bool ListAppendAll(VLIB_SZ_LIST &list, std::string_view texts, size_t nTexts) noexcept;

// Drops the items from nItem on.
void ListCut(VLIB_SZ_LIST &list, int32_t nItem) noexcept;

} // namespace zevo

#endif // SZ_LIST_HPP

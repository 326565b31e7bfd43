// The string list from the inside: what adds to it.
#ifndef SZ_LIST_HPP
#define SZ_LIST_HPP

#include <string_view>

#include "base/fault.hpp"
#include "zevocore.h"

namespace zevo {

// Appends a copy of the text; leaves the list as it was on failure.
Fault ListAppend(VLIB_SZ_LIST &list, std::string_view text) noexcept;

// Has onFree called with the list, once, when it is freed.
using FreeHook = void (*)(const VLIB_SZ_LIST *pList) noexcept;
void ListOnFree(VLIB_SZ_LIST &list, FreeHook onFree) noexcept;

} // namespace zevo

#endif // SZ_LIST_HPP

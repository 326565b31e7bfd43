// The string list. Callers read its header directly, so it is plain C storage.
#include "sz_list.hpp"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "base/host.hpp"
#include "platform/internal/frame.hpp"

namespace {

// What VLIBCSzListAlloc() makes: the public header and what only this file knows.
struct WholeList : VLIB_SZ_LIST {
    zevo::FreeHook onFree;
};

WholeList &WholeOf(VLIB_SZ_LIST &list) noexcept
{
    return static_cast<WholeList &>(list);
}

constexpr int32_t kMaxItems = std::numeric_limits<int32_t>::max();

// Makes room for that many items.
zevo::Fault Widen(VLIB_SZ_LIST &list, int32_t nCapacity) noexcept
{
    if (nCapacity <= list.nCapacity) return zevo::kNoFault;
    void *const pItems =
        std::realloc(list.ppszItem, static_cast<size_t>(nCapacity) * sizeof(list.ppszItem[0]));
    if (pItems == nullptr) return zevo::kNoMemory;
    list.ppszItem = static_cast<char **>(pItems);
    list.nCapacity = nCapacity;
    return zevo::kNoFault;
}

} // namespace

namespace zevo {

Fault ListAppend(VLIB_SZ_LIST &list, std::string_view text) noexcept
{
    if (list.nItem == kMaxItems) return kNoMemory;
    if (list.nItem == list.nCapacity) {
        const int32_t nCapacity = list.nCapacity > kMaxItems / 2 ? kMaxItems : list.nCapacity * 2;
        if (const Fault fault = Widen(list, std::max(nCapacity, 16))) return fault;
    }
    char *const szItem = static_cast<char *>(std::malloc(text.size() + 1));
    if (szItem == nullptr) return kNoMemory;
    text.copy(szItem, text.size());
    szItem[text.size()] = '\0';
    list.ppszItem[list.nItem++] = szItem;
    return kNoFault;
}

void ListCut(VLIB_SZ_LIST &list, int32_t nItem) noexcept
{
    while (list.nItem > nItem)
        std::free(list.ppszItem[--list.nItem]);
}

void ListOnFree(VLIB_SZ_LIST &list, FreeHook onFree) noexcept
{
    WholeOf(list).onFree = onFree;
}

} // namespace zevo

VLIB_SZ_LIST *VLIBCSzListAlloc(int capacity) noexcept
{
    auto *const pList = static_cast<WholeList *>(std::calloc(1, sizeof(WholeList)));
    if (pList != nullptr && !Widen(*pList, capacity)) return pList;
    std::free(pList);
    ZEVO_FAIL(zevo::kNoMemory);
    return nullptr;
}

const char *VLIBCSzListGet(const VLIB_SZ_LIST *pList, int index) noexcept
{
    return pList != nullptr && index >= 0 && index < pList->nItem ? pList->ppszItem[index]
                                                                  : nullptr;
}

void VLIBCSzListFree(VLIB_SZ_LIST *pList) noexcept
{
    if (pList == nullptr) return;
    const zevo::KeepErrno keep;
    if (const zevo::FreeHook onFree = WholeOf(*pList).onFree) onFree(pList);
    zevo::ListCut(*pList, 0);
    std::free(pList->ppszItem);
    std::free(pList);
}

// The string list. Callers read its header directly, so it is plain C storage.
#include "sz_list.hpp"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory_resource>
#include <new>

#include "base/host.hpp"
#include "platform/internal/frame.hpp"

namespace {

// What VLIBCSzListAlloc() makes: the public header and what only this file knows.
struct WholeList : VLIB_SZ_LIST {
    zevo::FreeHook onFree = nullptr;
    std::pmr::monotonic_buffer_resource texts; // of all items
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
try {
    if (list.nItem == kMaxItems) return kNoMemory;
    if (list.nItem == list.nCapacity) {
        const int32_t nCapacity = list.nCapacity > kMaxItems / 2 ? kMaxItems : list.nCapacity * 2;
        if (const Fault fault = Widen(list, std::max(nCapacity, 16))) return fault;
    }
    auto *const szItem = static_cast<char *>(WholeOf(list).texts.allocate(text.size() + 1, 1));
    text.copy(szItem, text.size());
    szItem[text.size()] = '\0';
    list.ppszItem[list.nItem++] = szItem;
    return kNoFault;
} catch (const std::bad_alloc &) {
    return kNoMemory;
}

void ListOnFree(VLIB_SZ_LIST &list, FreeHook onFree) noexcept
{
    WholeOf(list).onFree = onFree;
}

} // namespace zevo

VLIB_SZ_LIST *VLIBCSzListAlloc(int capacity) noexcept
{
    auto *const pList = new (std::nothrow) WholeList{};
    if (pList != nullptr && !Widen(*pList, capacity)) return pList;
    delete pList;
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
    std::free(pList->ppszItem);
    delete &WholeOf(*pList);
}

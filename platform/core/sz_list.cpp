// The string list. Its header is read by callers directly, so it is plain C storage.
#include "sz_list.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>

#include "section_listing.hpp"
#include "zevocore_frame.hpp"

namespace {

// What stands behind the header: many items' texts may lie in one block.
struct WholeList : VLIB_SZ_LIST {
    char *pTexts;
    size_t cbTexts;
};

WholeList &WholeOf(VLIB_SZ_LIST &list) noexcept
{
    return static_cast<WholeList &>(list); // every list comes from VLIBCSzListAlloc()
}

constexpr int32_t kMostItems = std::numeric_limits<int32_t>::max();

bool Widen(VLIB_SZ_LIST &list, int32_t nCapacity) noexcept
{
    if (nCapacity <= list.nCapacity) return true;
    void *const pItems =
        std::realloc(list.ppszItem, static_cast<size_t>(nCapacity) * sizeof(list.ppszItem[0]));
    if (pItems == nullptr) return false;
    list.ppszItem = static_cast<char **>(pItems);
    list.nCapacity = nCapacity;
    return true;
}

} // namespace

namespace zevo {

bool ListAppend(VLIB_SZ_LIST &list, std::string_view text) noexcept
{
    if (list.nItem == kMostItems) return false;
    if (list.nItem == list.nCapacity) {
        const int32_t nCapacity = list.nCapacity > kMostItems / 2 ? kMostItems : list.nCapacity * 2;
        if (!Widen(list, std::max(nCapacity, 16))) return false;
    }
    char *const szItem = static_cast<char *>(std::malloc(text.size() + 1));
    if (szItem == nullptr) return false;
    text.copy(szItem, text.size());
    szItem[text.size()] = '\0';
    list.ppszItem[list.nItem++] = szItem;
    return true;
}

bool ListAppendAll(VLIB_SZ_LIST &list, std::string_view texts, size_t nTexts) noexcept
{
    WholeList &whole = WholeOf(list);
    if (whole.pTexts != nullptr || nTexts > static_cast<size_t>(kMostItems - list.nItem))
        return false;
    if (nTexts == 0) return true;
    char *const pTexts = static_cast<char *>(std::malloc(texts.size()));
    if (pTexts == nullptr || !Widen(list, list.nItem + static_cast<int32_t>(nTexts))) {
        std::free(pTexts);
        return false;
    }
    texts.copy(pTexts, texts.size());
    whole.pTexts = pTexts;
    whole.cbTexts = texts.size();
    for (char *szText = pTexts; nTexts > 0; --nTexts) {
        list.ppszItem[list.nItem++] = szText;
        szText += std::strlen(szText) + 1;
    }
    return true;
}

void ListCut(VLIB_SZ_LIST &list, int32_t nItem) noexcept
{
    const WholeList &whole = WholeOf(list);
    const std::less<> isBelow;
    while (list.nItem > nItem) {
        char *const szItem = list.ppszItem[--list.nItem];
        const bool isInBlock = whole.pTexts != nullptr && !isBelow(szItem, whole.pTexts) &&
                               isBelow(szItem, whole.pTexts + whole.cbTexts);
        if (!isInBlock) std::free(szItem);
    }
}

} // namespace zevo

VLIB_SZ_LIST *VLIBCSzListAlloc(int capacity) noexcept
{
    auto *const pList = static_cast<WholeList *>(std::calloc(1, sizeof(WholeList)));
    if (pList != nullptr && Widen(*pList, capacity)) return pList;
    std::free(pList);
    ZEVO_FAIL(zevo::kFileNoMemory);
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
    zevo::Listing::GiveBack(pList);
    zevo::ListCut(*pList, 0);
    std::free(static_cast<WholeList *>(pList)->pTexts);
    std::free(pList->ppszItem);
    std::free(pList);
}

#include "model/section.hpp"

#include <new>

namespace tool {

Hash NewHash()
{
    Hash hash(VLIBCSzHashAlloc(0), &VLIBCSzHashFree);
    if (!hash) throw std::bad_alloc();
    return hash;
}

std::span<char *const> Items(const List &list)
{
    return {list->ppszItem, static_cast<std::size_t>(list->nItem)};
}

List ListSections(const std::string &path)
{
    VLIB_SZ_LIST *list = VLIBCSzListAlloc(0);
    if (list == nullptr) throw std::bad_alloc();
    const int count = VLIBCFileEnumSection(path.c_str(), &list);
    List guard(list, &VLIBCSzListFree);
    if (count < 0) guard.reset();
    return guard;
}

bool ReadSection(const std::string &path, const char *section, Hash &hash)
{
    static_cast<void>(VLIBCHashRemoveAll(hash.get()));
    VLIB_SZ_HASH *filled = hash.release(); // may be replaced by a larger one
    const bool isThere = VLIBCFileGetSection(path.c_str(), section, &filled) == 1;
    hash.reset(filled);
    return isThere;
}

} // namespace tool

// Section files as the platform reads them, with its lists and hashes under guards.
#ifndef ZEVOBW_TOOL_MODEL_SECTION_HPP
#define ZEVOBW_TOOL_MODEL_SECTION_HPP

#include <memory>
#include <span>
#include <string>

#include <zevocore.h>

namespace tool {

using List = std::unique_ptr<VLIB_SZ_LIST, decltype(&VLIBCSzListFree)>;
using Hash = std::unique_ptr<VLIB_SZ_HASH, decltype(&VLIBCSzHashFree)>;

// Throws std::bad_alloc.
Hash NewHash();

std::span<char *const> Items(const List &list);

// The names of a file's sections in file order, each once; null when they cannot be read (the error
// slot tells). The platform reads the file once for a list and all its sections, if they are read in
// its order while the list lives.
List ListSections(const std::string &path);

// Puts the pairs of a section in place of what the hash holds. False without such a section.
bool ReadSection(const std::string &path, const char *section, Hash &hash);

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_SECTION_HPP

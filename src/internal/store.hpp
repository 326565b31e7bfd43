// What rules and policies have in common on disk: one section of one file in one directory.
#ifndef INTERNAL_STORE_HPP
#define INTERNAL_STORE_HPP

#include "internal/frame.hpp"
#include "internal/guard.hpp"

namespace bandwidth {

constexpr size_t kSectionNameBytes = 512;

// Reads a section into the hash: 1, 0 when the file or the section is not there, -1 on failure.
int LoadSection(const char *szFile, const char *szSection, Hash &hash, Site site) noexcept;

// Replaces or adds a section, making directory and file at need: 0, or -1 on failure.
int StoreSection(const char *szFile, const char *szSection, const Hash &hash, Site site) noexcept;

} // namespace bandwidth

#endif // INTERNAL_STORE_HPP

// Reading and writing one section of a rule file or the global file. Every read opens the file
// anew. The platform locks the file while it is changed. Log lines carry the place of the caller.

#include "internal/store.hpp"

#include "base/write_file.hpp"

#include <sys/stat.h>

namespace bandwidth {

namespace {

// Whatever the host's creation mask: services of all users read limits, and only the owner changes
// them.
constexpr mode_t kFileMode = 0644;
constexpr char kConfDirectory[] = ZEVO_BW_CONF_DIRECTORY "/"; // as log lines name it

int MakeMissing(const char *szFile, Site site) noexcept
{
    struct stat status = {};
    if ((::stat(kConfDirectory, &status) < 0 || !S_ISDIR(status.st_mode)) &&
        ::ZEVOFSMkdirP(kConfDirectory, 0, 1, 0, 0, -1) < 0)
        return BW_PASS_AT(site, "ZEVOFSMkdirP failed. [%s] ", kConfDirectory);
    if (const zevo::Fault fault = zevo::MakeFile(szFile, kFileMode)) {
        Record(fault.code, site);
        return BW_PASS_AT(site, "VLIBCFileTouch [%s] failed. ", szFile);
    }
    return 0;
}

} // namespace

int LoadSection(const char *szFile, const char *szSection, Hash &hash, Site site) noexcept
{
    if (::VLIBCFileExist(szFile) != 1) return 0;
    const int found = ::VLIBCFileGetSection(szFile, szSection, hash.address());
    if (found < 0)
        return BW_PASS_AT(site, "Get section [%s] from [%s] failed. ", szSection, szFile);
    return found > 0 ? 1 : 0;
}

int StoreSection(const char *szFile, const char *szSection, const Hash &hash, Site site) noexcept
{
    if (::VLIBCFileExist(szFile) != 1 && MakeMissing(szFile, site) < 0) return BW_PASS_UNLOGGED;
    const int replaced = ::VLIBCFileSetSection(szFile, szSection, nullptr, hash.get(), 0);
    if (replaced < 0)
        return BW_PASS_AT(site, "Save section [%s] to [%s] failed. ", szSection, szFile);
    if (replaced == 0 && ::VLIBCFileAddSection(szFile, szSection, hash.get(), 0) < 0)
        return BW_PASS_AT(site, "Add section [%s] to [%s] failed. ", szSection, szFile);
    return 0;
}

} // namespace bandwidth

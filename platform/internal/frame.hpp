// How an exported function of the platform libraries fails. Header-only; internal to platform/.
#ifndef FRAME_HPP
#define FRAME_HPP

#include "zevocore.h"
#include "zevocore_file.hpp"

namespace zevo {

// Beside those of FileError.
constexpr unsigned kBadArgument = 0x0D00;
constexpr unsigned kNotThere = 0x2000;

inline int Fail(unsigned code, const char *szFile, int line) noexcept
{
    VLIBCErrSetEx(code, szFile, line);
    return -1;
}

// Records an error found here; -1. A macro, because file and line must be the caller's.
#define ZEVO_FAIL(code) ::zevo::Fail((code), __FILE_NAME__, __LINE__)

} // namespace zevo

#endif // FRAME_HPP

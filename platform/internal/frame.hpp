// How an exported function of the platform libraries fails: it records the fault in the error slot.
#ifndef PLATFORM_INTERNAL_FRAME_HPP
#define PLATFORM_INTERNAL_FRAME_HPP

#include "base/fault.hpp"
#include "zevocore.h"

namespace zevo {

inline int Fail(Fault fault, const char *szFile, int line) noexcept
{
    VLIBCErrSetEx(fault.code, szFile, line);
    return -1;
}

// Records a fault found here; -1. A macro, because file and line must be the caller's.
#define ZEVO_FAIL(fault) ::zevo::Fail((fault), __FILE_NAME__, __LINE__)

} // namespace zevo

#endif // PLATFORM_INTERNAL_FRAME_HPP

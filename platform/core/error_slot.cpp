// The error slot: the calling thread's last recorded error. It is plain thread-local storage, so that
// recording an error neither allocates nor fails nor changes errno.
#include <cstring>

#include "zevocore.h"

namespace {

constexpr size_t kFileNameBytes = 64; // longer names are cut

struct Slot {
    unsigned code;
    int line;
    char szFile[kFileNameBytes];
};

thread_local Slot slot;

} // namespace

void VLIBCErrSetEx(unsigned int code, const char *szFile, int line) noexcept
{
    slot.code = code;
    slot.line = line;
    if (szFile == nullptr) szFile = "";
    if (const char *const szSlash = std::strrchr(szFile, '/')) szFile = szSlash + 1;
    const size_t cb = ::strnlen(szFile, sizeof(slot.szFile) - 1);
    std::memmove(slot.szFile, szFile, cb); // szFile may be the slot's own
    slot.szFile[cb] = '\0';
}

unsigned int VLIBCErrGet(void) noexcept
{
    return slot.code;
}

const char *VLIBCErrorGetFile(void) noexcept
{
    return slot.szFile;
}

int VLIBCErrorGetLine(void) noexcept
{
    return slot.line;
}

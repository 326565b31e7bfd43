// How a function of this library fails. The only place that knows what a failure looks like: log
// lines go to the system log at error level and begin with file and line; error codes go to the
// platform's error slot, once, where the fault was found.
#ifndef INTERNAL_FRAME_HPP
#define INTERNAL_FRAME_HPP

#include "base/fault.hpp"
#include "zevobandwidth.h"
#include "zevocore.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include <syslog.h>

namespace bandwidth {

// libc's syslog, under that one name in every build: a fortified one calls __syslog_chk otherwise.
extern "C" void WriteLog(int priority, const char *szFormat, ...) noexcept __asm__("syslog")
    __attribute__((format(printf, 2, 3)));

// The place that a log line names and the error slot keeps.
struct Site {
    const char *szFile; // no directory, static storage
    int line;
};

// Logs the place and the text, at most 1 KiB, with what is not printable ASCII escaped.
void LogLine(Site site, const char *szFormat, ...) noexcept __attribute__((format(printf, 2, 3)));

inline void Record(unsigned code, Site site) noexcept
{
    ::VLIBCErrSetEx(code, site.szFile, site.line);
}

inline int Fail(unsigned code, Site site) noexcept
{
    Record(code, site);
    return -1;
}

inline int FailWith(zevo::Fault fault, Site site) noexcept
{
    if (fault.code != zevo::kRecorded.code) Record(fault.code, site);
    return -1;
}

// Bounds on what strangers may cost a thread that walks over a file of theirs: a million sections must
// neither fill the system log nor cost a million searches of the add-on directory. After 64 lines one
// more says that the rest is left out; after 64 searches no other add-on is found. Of nested scopes the
// outermost counts.
class StrangersFileScope {
public:
    explicit StrangersFileScope(const char *szFile) noexcept : szFile_(szFile)
    {
        if (pCurrent == nullptr) pCurrent = this;
    }
    ~StrangersFileScope()
    {
        if (pCurrent == this) pCurrent = nullptr;
    }
    StrangersFileScope(const StrangersFileScope &) = delete;
    StrangersFileScope &operator=(const StrangersFileScope &) = delete;

    static bool MayLog(Site site) noexcept
    {
        if (pCurrent == nullptr || pCurrent->linesLeft_-- > 0) return true;
        if (pCurrent->linesLeft_ == -1)
            LogLine(site, "Too much to log about [%s], the rest is left out", pCurrent->szFile_);
        return false;
    }
    static bool MaySearch(const char *szPattern) noexcept
    {
        if (pCurrent == nullptr) return true;
        return std::strcmp(pCurrent->szMissed_, szPattern) != 0 && pCurrent->searchesLeft_-- > 0;
    }
    // The same search is not made again at once: most sections of a file name the same protocol.
    static void NoteMissed(const char *szPattern) noexcept
    {
        if (pCurrent == nullptr) return;
        const size_t cb = std::string_view(szPattern).copy(pCurrent->szMissed_, kMissedBytes - 1);
        pCurrent->szMissed_[cb] = '\0'; // a pattern that is cut equals no other
    }

private:
    static constexpr size_t kMissedBytes = 256;
    static inline thread_local StrangersFileScope *pCurrent = nullptr; // of the calling thread

    const char *const szFile_;
    int64_t linesLeft_ = 64; // negative once they are used up
    int64_t searchesLeft_ = 64;
    char szMissed_[kMissedBytes] = "";
};

// Cleaning up after a failure: while it lives nothing is logged, and at its end the error slot names
// the first failure again.
class CleanUpScope {
public:
    CleanUpScope() noexcept : code_(::VLIBCErrGet()), line_(::VLIBCErrorGetLine())
    {
        (void)std::snprintf(szFile_, sizeof(szFile_), "%s", ::VLIBCErrorGetFile());
        ++nAlive;
    }
    ~CleanUpScope()
    {
        --nAlive;
        ::VLIBCErrSetEx(code_, szFile_, line_);
    }
    CleanUpScope(const CleanUpScope &) = delete;
    CleanUpScope &operator=(const CleanUpScope &) = delete;

    static bool IsAlive() noexcept { return nAlive > 0; }

private:
    static inline thread_local int nAlive = 0; // of the calling thread

    const unsigned code_;
    const int line_;
    char szFile_[64];
};

inline bool MayLog(Site site) noexcept
{
    return !CleanUpScope::IsAlive() && StrangersFileScope::MayLog(site);
}

} // namespace bandwidth

// Macros, because file and line must be the caller's, and formats literals that the compiler
// checks.
#define BW_HERE (::bandwidth::Site{__FILE_NAME__, __LINE__})

#define BW_LOG_AT(site, fmt, ...)                                                                  \
    (::bandwidth::MayLog(site) ? ::bandwidth::LogLine((site), fmt __VA_OPT__(, ) __VA_ARGS__)      \
                               : void())
#define BW_LOG(fmt, ...) BW_LOG_AT(BW_HERE, fmt __VA_OPT__(, ) __VA_ARGS__)

// The line that passes on what the error slot holds.
#define BW_LOG_SLOT_AT(site, fmt, ...)                                                             \
    BW_LOG_AT(site, fmt "[0x%04X %s:%d]" __VA_OPT__(, ) __VA_ARGS__, ::VLIBCErrGet(),              \
              ::VLIBCErrorGetFile(), ::VLIBCErrorGetLine())
#define BW_LOG_SLOT(fmt, ...) BW_LOG_SLOT_AT(BW_HERE, fmt __VA_OPT__(, ) __VA_ARGS__)

// We found the fault.
#define BW_FAIL(code) ::bandwidth::Fail((code), BW_HERE)
// The same for a fault of base/, unless it is in the slot already.
#define BW_FAIL_WITH(fault) ::bandwidth::FailWith((fault), BW_HERE)
// The same, where the promised order is to record first and to log afterwards.
#define BW_FAIL_AND_LOG(code, fmt, ...)                                                            \
    (::bandwidth::Record((code), BW_HERE), BW_LOG(fmt __VA_OPT__(, ) __VA_ARGS__), -1)
// Nothing fails, but the slot should tell.
#define BW_RECORD(code) ::bandwidth::Record((code), BW_HERE)

// A callee found it.
#define BW_PASS_AT(site, fmt, ...) (BW_LOG_SLOT_AT(site, fmt __VA_OPT__(, ) __VA_ARGS__), -1)
#define BW_PASS(fmt, ...) BW_PASS_AT(BW_HERE, fmt __VA_OPT__(, ) __VA_ARGS__)
// The same with a line that does not tell what the slot holds.
#define BW_LOG_AND_PASS_AT(site, fmt, ...) (BW_LOG_AT(site, fmt __VA_OPT__(, ) __VA_ARGS__), -1)
#define BW_LOG_AND_PASS(fmt, ...) BW_LOG_AND_PASS_AT(BW_HERE, fmt __VA_OPT__(, ) __VA_ARGS__)
// A callee found it, and nothing is to be logged, or no more.
#define BW_PASS_UNLOGGED (-1)

// An argument is wrong. The text is interface and therefore not made from the condition.
#define BW_REQUIRE_AT(site, cond, text)                                                            \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            BW_LOG_AT(site, "Invaild Argument (%s)=[%d]\n", (text), 0);                            \
            return ::bandwidth::Fail(ZEVO_BW_ERROR_BAD_ARGUMENT, (site));                          \
        }                                                                                          \
    } while (0)
#define BW_REQUIRE(cond, text) BW_REQUIRE_AT(BW_HERE, cond, text)

#endif // INTERNAL_FRAME_HPP

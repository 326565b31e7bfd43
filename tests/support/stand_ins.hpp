// Stand-ins for the calls through which the libraries meet time, the disk and the system log. A
// test program defines these calls itself and the dynamic linker prefers them to libc's: hours pass
// in microseconds, log lines are compared word for word and any call fails on demand, while the
// product holds no test code. Until told otherwise every call goes through to the real one; only
// log lines never leave the test.
//
// One state for the whole process, under a mutex: the functions may be called from any thread. A
// forked child goes on with a copy.
#ifndef ZEVOBW_TESTS_STAND_INS_HPP
#define ZEVOBW_TESTS_STAND_INS_HPP

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace standins {

enum class Call {
    Open,   // open, openat
    Write,  // write
    Read,   // read, pread
    Stat,   // stat, lstat, fstat, fstatat
    Chmod,  // fchmod
    Fsync,  // fsync
    Rename, // rename, renameat
    Mkdir,  // mkdir, mkdirat
    Sleep,  // usleep
    Search, // glob
    kCount
};

// Real time, nothing failing, an empty log, all counts 0.
void Reset();

// ---- time ----

// From now on gettimeofday and time tell this time (microseconds since the epoch), which only
// AdvanceClock and usleep move; a sleep takes exactly as long as it was asked to.
void SetClock(int64_t nowUs);
void AdvanceClock(int64_t byUs);
int64_t ClockUs();

// The lengths of all sleeps asked for since the last Reset, in microseconds.
std::vector<int64_t> Sleeps();

// The next sleep is cut short by a signal (EINTR) after that time.
void InterruptNextSleep(int64_t afterUs);

// ---- failing calls ----

// The next call, or the nth from now (1 is the next), fails with that errno and does nothing.
void FailNext(Call call, int error);
void FailNth(Call call, int nth, int error);

// The next write takes only that many bytes.
void CutNextWrite(size_t cbTaken);

// Runs something once, just before the nth such call from now: another process that is faster. What
// it calls itself is not counted.
void Before(Call call, int nth, std::function<void()> action);

// How many such calls there were since the last Reset, failed ones included.
int Count(Call call);

// ---- log ----

// The lines logged since the last Reset or TakeLog, as they were handed to the system log with %m
// put in; a line that is not at error level fails the test.
std::vector<std::string> Log();

// The same, forgotten afterwards, with the numbers of source lines ("a.cpp:17") made '#'.
std::vector<std::string> TakeLog();

// "a.cpp:17 text [0x0900 b.cpp:4]" as "a.cpp:# text [0x0900 b.cpp:#]".
std::string WithoutLineNumbers(std::string_view line);

} // namespace standins

#endif // ZEVOBW_TESTS_STAND_INS_HPP

#include "replace_file.hpp"

#include <ctime>

#include <sys/file.h>

namespace zevo {

bool TurnWait::Sleep() noexcept
{
    constexpr long kMaxWaitUs = 25'000;
    constexpr long kMaxSleepUs = 1'600;
    if (waitedUs_ >= kMaxWaitUs) return false;
    const struct timespec time = {0, nextUs_ * 1000};
    (void)::clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr); // a signal may cut it short
    waitedUs_ += nextUs_;
    if (nextUs_ < kMaxSleepUs) nextUs_ *= 2;
    return true;
}

// The holder of the turn has probably replaced the file. So after a wait the file counts only if the
// place still leads to it; the loop ends when there is no more waiting.
TurnFile::TurnFile(const Place &place, int flags, TurnWait &wait) noexcept
    : RegularFile(place, flags)
{
    while (!fault()) {
        const long waitedUs = wait.waitedUs();
        TakeTurn(wait);
        if (wait.waitedUs() == waitedUs || place.LeadsTo(stat())) return;
        static_cast<RegularFile &>(*this) = RegularFile(place, flags);
    }
}

TurnFile::~TurnFile()
{
    const KeepErrno keep;
    if (!fault()) ::flock(get(), LOCK_UN);
}

void TurnFile::TakeTurn(TurnWait &wait) noexcept
{
    while (::flock(get(), LOCK_EX | LOCK_NB) < 0)
        if (errno != EWOULDBLOCK || !wait.Sleep()) return;
}

namespace {

// Waiting for the disk takes long. Where writers meet, each would wait for all others and be beaten
// in the end: there the data are on their way before the rename, and waited for after it.
Fault Fill(TempFile &temp, Pieces &text, mode_t mode, bool isMeeting) noexcept
{
    if (const Fault fault = temp.Write(text)) return fault;
    if (isMeeting) {
        temp.StartSync();
    } else if (const Fault fault = temp.Sync()) {
        return fault;
    }
    return temp.SetMode(mode);
}

} // namespace

Change ReplaceFile(const char *szPath, Composer &composer, TurnWait &wait,
                   IfBeaten ifBeaten) noexcept
{
    const Place place(szPath);
    if (place.fault()) return {place.fault()};
    Bytes oldText;
    Pieces newText;
    for (int attempt = 0;; ++attempt) {
        const TurnFile in(place, O_RDONLY, wait);
        if (in.fault()) return {in.fault()};
        oldText.Clear();
        newText.Clear();
        if (const Fault fault = in.ReadWhole(oldText)) return {fault};
        const Change composed = composer.Compose(oldText.view(), newText);
        if (composed.fault || !composed.isMade) return composed;

        TempFile temp(place);
        if (temp.fault()) return {temp.fault()};
        const bool isMeeting = attempt > 0 || wait.waitedUs() != 0;
        const mode_t mode = in.stat().st_mode & kPermissionBits;
        if (const Fault fault = Fill(temp, newText, mode, isMeeting)) return {fault};

        const bool isBeaten = !in.IsUnchanged(oldText.size());
        const bool isLast = attempt == kMaxRetries;
        if (isBeaten && !isLast) continue;
        if (isBeaten && ifBeaten == IfBeaten::kGiveUp) return {};
        if (const Fault fault = temp.Replace()) {
            // Somebody has removed the temporary file: whoever may write the directory may do that.
            if (errno == ENOENT && !isLast) continue;
            return {fault};
        }
        if (isMeeting) (void)temp.Sync(); // the file stands: there is no failure to report
        return {kNoFault, true};
    }
}

} // namespace zevo

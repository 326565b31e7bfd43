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

// Waiting for the disk takes long. Where several writers rewrite the file, a writer that waits before
// its rename is overtaken by another one each time. There it only starts writing the data to the disk,
// and waits for that after the rename.
Fault Fill(TempFile &temp, Pieces &text, mode_t mode, bool isContended) noexcept
{
    if (const Fault fault = temp.Write(text)) return fault;
    if (isContended) {
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
        const bool isContended = attempt > 0 || wait.waitedUs() != 0;
        const mode_t mode = in.stat().st_mode & kPermissionBits;
        if (const Fault fault = Fill(temp, newText, mode, isContended)) return {fault};

        const bool isBeaten = !in.IsUnchanged(oldText.size());
        const bool isLast = attempt == kMaxRetries;
        if (isBeaten && !isLast) continue;
        if (isBeaten && ifBeaten == IfBeaten::kGiveUp) return {};
        if (const Fault fault = temp.Replace()) {
            // Any writer of the directory can have removed the temporary file.
            if (errno == ENOENT && !isLast) continue;
            return {fault};
        }
        if (isContended) (void)temp.Sync(); // the new file is in place: nothing failed
        return {kNoFault, true};
    }
}

} // namespace zevo

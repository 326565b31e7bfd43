// Whoever lists a section file asks for its names and then for one section after the other. Each
// thread keeps what its enumeration has read and answers these reads from it. That must not show:
// results and codes are those of reading the file each time, and no later call may see what has
// changed meanwhile. Hence the rules:
//
//  - A listing is one moment, that of its enumeration: as long as the list of names lives, sections
//    that are read in its order come from what was read then. The moment is over when the list is
//    given back, with a read out of order, when the thread asks whether a file exists (as every
//    operation that is not part of the listing does first), when the thread writes a section file,
//    and in any case after a tenth of a second, or ten times as long as reading the file took: a
//    stranger's huge one must not be read again for each of its sections.
//  - Any other answer asks first, by one stat of the path that follows no link, whether the file
//    still is the one that was read: device, inode, size, and both time stamps to the nanosecond. It
//    is kept open, since the inode number of a file that is gone is soon another's. After a change
//    the file is read as ever, and that text answers the rest of the listing.
//  - Time stamps are coarse: a change in place within one tick that keeps the size does not show in
//    them. Our own writers replace or append, so that inode or size differ. For the sake of others
//    no section is answered twice (a second read of it belongs to a later call), and what was read
//    more than a second ago is read again, of a huge file after ten times as long as that took.
//  - Memory and descriptor are given back with the listing's last section and when the thread ends,
//    and when the names are freed although some sections have been read and others have not: whoever
//    does that has failed half-way. (Names that are freed first may have been copied.)
//    Whatever else the thread does to section files ends a listing that was left halfway: what is
//    kept could be the very descriptor that is lacking. Before it writes only the names are kept.
//  - Daemons close all their descriptors, ours among them, and then get its number for something of
//    their own: it is closed only where it still leads to the file that was read.
//  - A forked child has the text and a descriptor of its own, and the rules above hold in it.
//  - Where there is no memory, or no thread key, nothing is kept and each read is one by itself.
#include "section_listing.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <utility>

#include <pthread.h>
#include <sys/stat.h>

#include "sz_list.hpp"
#include "zevocore_frame.hpp"

namespace zevo {
namespace {

constexpr size_t kUsualSectionBytes = 300;
constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr int64_t kAnswersForNs = kNsPerSecond;
constexpr int64_t kAnswersForReads = 10;
constexpr int64_t kMomentNs = kNsPerSecond / 10;

int64_t MonotonicNs() noexcept
{
    struct timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now); // to some milliseconds, which will do
    return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

// For stamps of files: anybody may set them to any number, so that there is no calculating with them.
bool IsSameTime(const struct timespec &a, const struct timespec &b) noexcept
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

Offset StartOf(const Line &line, std::string_view text) noexcept
{
    return static_cast<Offset>(line.whole.data() - text.data());
}

// Where the line after this one begins.
Offset EndOf(const Line &line, std::string_view text) noexcept
{
    return StartOf(line, text) + static_cast<Offset>(line.whole.size());
}

Offset SizeOf(std::string_view text) noexcept
{
    return static_cast<Offset>(text.size());
}

std::optional<std::string_view> LinesOf(std::string_view text, std::string_view section) noexcept
{
    Reader reader(text);
    for (Line line; reader.NextHeader(line);) {
        if (!IsWord(line.name, section)) continue;
        const size_t begin = EndOf(line, text);
        const size_t end = reader.NextHeader(line) ? StartOf(line, text) : text.size();
        return text.substr(begin, end - begin);
    }
    return std::nullopt;
}

// Each thread's listing, ended with it. A thread_local object would read better, but ends the
// process where there is no memory to note its destructor.
class ThreadSlot {
public:
    ThreadSlot() noexcept
        : made_(::pthread_key_create(&key_, [](void *p) { delete static_cast<Listing *>(p); }) == 0)
    {
    }
    Listing *get() const noexcept
    {
        return made_ ? static_cast<Listing *>(::pthread_getspecific(key_)) : nullptr;
    }
    void Set(Listing *pListing) const noexcept
    {
        Listing *const pOld = get();
        const bool isSet = made_ && ::pthread_setspecific(key_, pListing) == 0;
        delete (isSet ? pOld : pListing);
    }

private:
    pthread_key_t key_ = 0;
    bool made_;
};

// Made when the library is loaded: a forked child must not wait for its making.
const ThreadSlot threadSlot;

} // namespace

// ---- snapshot ----

unsigned Snapshot::Read(const char *szPath) noexcept
{
    const CancelScope cancel;
    readAtNs_ = MonotonicNs();
    const Place place(szPath);
    if (!place) return kFileOpen;
    RegularFile file(place, O_RDONLY);
    if (!file) return file.code();
    stat_ = file.stat();
    const unsigned code = file.ReadWhole(text_);
    fd_ = file.Release();
    return code;
}

bool Snapshot::IsCurrent(const char *szPath) const noexcept
{
    struct stat now = {};
    return fd_ && ::lstat(szPath, &now) == 0 && IsSameFile(now, stat_) &&
           now.st_size == stat_.st_size && IsSameTime(now.st_mtim, stat_.st_mtim) &&
           IsSameTime(now.st_ctim, stat_.st_ctim);
}

bool Snapshot::IsFresh() const noexcept
{
    return MonotonicNs() <= answersUntilNs_;
}

void Snapshot::BeginAnswering() noexcept
{
    const int64_t now = MonotonicNs();
    const int64_t longNs = now + kAnswersForReads * (now - readAtNs_);
    answersUntilNs_ = std::max(readAtNs_ + kAnswersForNs, longNs);
    momentUntilNs_ = std::max(readAtNs_ + kMomentNs, longNs);
}

bool Snapshot::IsOneMoment() const noexcept
{
    return MonotonicNs() <= momentUntilNs_;
}

void Snapshot::CloseFile() noexcept
{
    const CancelScope cancel;
    fd_ = Fd();
}

void Snapshot::Drop() noexcept
{
    const CancelScope cancel;
    const KeepErrno keep;
    text_ = Bytes();
    struct stat now = {};
    const bool isStat = fd_ && ::fstat(fd_.get(), &now) == 0;
    const bool isGone = !isStat && errno == EBADF; // any other failure is that of a file of ours
    if (fd_ && (isGone || (isStat && !IsSameFile(now, stat_)))) (void)fd_.Release();
    fd_ = Fd();
}

// ---- index ----

namespace {

// What of a hash does not choose the slot.
uint32_t TagOf(uint64_t hash) noexcept
{
    return static_cast<uint32_t>(hash >> 32);
}

// An order of names in which those of processes that have begun one after the other ascend.
bool ComesBefore(std::string_view a, std::string_view b) noexcept
{
    return a.size() != b.size() ? a.size() < b.size() : a < b;
}

} // namespace

std::string_view SectionIndex::NameOf(const Entry &entry) const noexcept
{
    return names_.view().substr(entry.nameAt, entry.cbName);
}

bool SectionIndex::AddName(const Word &word, Entry &entry)
{
    entry.nameAt = SizeOf(names_.view());
    if (!AppendMeaning(names_, word)) return false;
    entry.cbName = SizeOf(names_.view()) - entry.nameAt;
    return names_.Append({"\0", 1});
}

bool SectionIndex::Build(std::string_view text) noexcept
try {
    entries_.reserve(text.size() / kUsualSectionBytes + 1);
    Reader reader(text);
    for (Line line; reader.NextHeader(line);) {
        if (!entries_.empty()) entries_.back().end = StartOf(line, text);
        Entry entry = {0, 0, EndOf(line, text), SizeOf(text), State::kHere};
        if (!AddName(line.name, entry)) return false;
        isAscending_ = isAscending_ &&
                       (entries_.empty() || ComesBefore(NameOf(entries_.back()), NameOf(entry)));
        entries_.push_back(entry);
    }
    if (!isAscending_) DropRepeated();
    nLeft_ = entries_.size();
    return true;
} catch (const std::bad_alloc &) {
    return false;
}

void SectionIndex::DropRepeated()
{
    slots_.assign(std::bit_ceil(entries_.size() * 2 + 2), Slot{});
    size_t nKept = 0;
    for (size_t i = 0; i < entries_.size(); ++i) {
        const uint64_t hash = HashOf(NameOf(entries_[i]));
        Slot &slot = slots_[SlotOf(NameOf(entries_[i]), hash)];
        if (slot.number != 0) continue;
        entries_[nKept++] = entries_[i];
        slot = {static_cast<uint32_t>(nKept), TagOf(hash)};
    }
    hasRepeated_ = nKept != entries_.size();
    entries_.resize(nKept);
}

bool SectionIndex::Renew(std::string_view text) noexcept
{
    for (Entry &entry : entries_)
        if (entry.state == State::kHere) entry.state = State::kAbsent;
    Reader reader(text);
    Bytes name;
    Entry *pLast = nullptr;
    for (Line line; reader.NextHeader(line);) {
        if (pLast != nullptr) pLast->end = StartOf(line, text);
        pLast = nullptr;
        name.Clear();
        if (!AppendMeaning(name, line.name)) return false;
        const uint32_t number = NumberOf(name.view());
        if (number == 0 || entries_[number - 1].state != State::kAbsent) continue;
        pLast = &entries_[number - 1];
        pLast->begin = EndOf(line, text);
        pLast->end = SizeOf(text);
        pLast->state = State::kHere;
    }
    return true;
}

// The slot that holds the name, or the free one where it belongs.
size_t SectionIndex::SlotOf(std::string_view name, uint64_t hash) const noexcept
{
    const size_t mask = slots_.size() - 1;
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
        const Slot slot = slots_[i];
        if (slot.number == 0) return i;
        if (slot.tag == TagOf(hash) && NameOf(entries_[slot.number - 1]) == name) return i;
    }
}

// Of the entry, + 1; 0 when there is none of that name.
uint32_t SectionIndex::NumberOf(std::string_view name) const noexcept
{
    if (isAscending_) {
        const auto found = std::lower_bound(entries_.begin(), entries_.end(), name,
                                            [this](const Entry &entry, std::string_view n) {
                                                return ComesBefore(NameOf(entry), n);
                                            });
        const bool isThere = found != entries_.end() && NameOf(*found) == name;
        return isThere ? static_cast<uint32_t>(found - entries_.begin() + 1) : 0;
    }
    return slots_[SlotOf(name, HashOf(name))].number;
}

size_t SectionIndex::Find(const char *szSection) const noexcept
{
    if (next_ < entries_.size() && entries_[next_].state != State::kTaken &&
        std::strcmp(NameOf(entries_[next_]).data(), szSection) == 0)
        return next_;
    const uint32_t number = NumberOf(szSection);
    return number == 0 || entries_[number - 1].state == State::kTaken ? kNone : number - 1;
}

std::optional<std::string_view> SectionIndex::Take(size_t found, std::string_view text) noexcept
{
    Entry &entry = entries_[found];
    const bool isHere = entry.state == State::kHere;
    entry.state = State::kTaken;
    next_ = found + 1;
    --nLeft_;
    if (!isHere) return std::nullopt;
    return text.substr(entry.begin, entry.end - entry.begin);
}

bool SectionIndex::AppendNames(VLIB_SZ_LIST &list) const noexcept
{
    if (!hasRepeated_ && ListAppendAll(list, names_.view(), entries_.size())) return true;
    const int32_t nBefore = list.nItem;
    for (const Entry &entry : entries_) {
        if (ListAppend(list, NameOf(entry))) continue;
        ListCut(list, nBefore);
        return false;
    }
    return true;
}

// ---- listing ----

void Listing::Begin(const char *szPath, Snapshot &&snapshot, SectionIndex &&index,
                    const VLIB_SZ_LIST &list) noexcept
{
    if (index.left() == 0) return;
    std::unique_ptr<Listing> pListing(new (std::nothrow) Listing);
    if (!pListing || !pListing->path_.Append({szPath, std::strlen(szPath) + 1})) return;
    pListing->snapshot_ = std::move(snapshot);
    pListing->snapshot_.BeginAnswering();
    pListing->index_ = std::move(index);
    pListing->pList_ = &list;
    threadSlot.Set(pListing.release());
}

void Listing::End() noexcept
{
    if (threadSlot.get() != nullptr) threadSlot.Set(nullptr);
}

void Listing::GiveBack(const VLIB_SZ_LIST *pList) noexcept
{
    Listing *const pListing = threadSlot.get();
    if (pListing == nullptr || pListing->pList_ != pList) return;
    pListing->pList_ = nullptr;
    pListing->isMoment_ = false;
    if (pListing->isBegun_) End();
}

void Listing::EndMoment() noexcept
{
    if (Listing *const pListing = threadSlot.get()) pListing->isMoment_ = false;
}

void Listing::Suspend() noexcept
{
    Listing *const pListing = threadSlot.get();
    if (pListing == nullptr) return;
    pListing->isMoment_ = false;
    pListing->snapshot_.Drop();
}

Listing *Listing::Of(const char *szPath, const char *szSection) noexcept
{
    Listing *const pListing = threadSlot.get();
    if (pListing == nullptr) return nullptr;
    if (std::strcmp(pListing->path_.view().data(), szPath) == 0) {
        pListing->found_ = pListing->index_.Find(szSection);
        if (pListing->found_ != SectionIndex::kNone) {
            pListing->CheckMoment();
            return pListing;
        }
    }
    End();
    return nullptr;
}

// Ends the moment where it has passed.
void Listing::CheckMoment() noexcept
{
    if (!snapshot_.IsOneMoment() || !index_.IsNext(found_)) isMoment_ = false;
}

unsigned Listing::Take(const char *szSection, std::optional<std::string_view> &lines) noexcept
{
    const char *const szPath = path_.view().data();
    isBegun_ = true;
    if (!isMoment_ && (!snapshot_.IsFresh() || !snapshot_.IsCurrent(szPath))) {
        snapshot_.Drop();
        if (const unsigned code = snapshot_.Read(szPath); code != 0) return code;
        if (!index_.Renew(snapshot_.text())) {
            index_.Forget(); // the rest finds its way alone
            lines = LinesOf(snapshot_.text(), szSection);
            return 0;
        }
        snapshot_.BeginAnswering();
    }
    lines = index_.Take(found_, snapshot_.text());
    return 0;
}

SectionRead::SectionRead(const char *szPath, const char *szSection) noexcept
    : pListing_(Listing::Of(szPath, szSection))
{
    if (pListing_ != nullptr) {
        code_ = pListing_->Take(szSection, lines_);
        return;
    }
    own_.emplace();
    code_ = own_->Read(szPath);
    own_->CloseFile();
    if (code_ == 0) lines_ = LinesOf(own_->text(), szSection);
}

SectionRead::~SectionRead()
{
    if (pListing_ != nullptr && (code_ != 0 || pListing_->IsDone())) Listing::End();
}

} // namespace zevo

// Whoever lists a section file asks for its names and then for one section after the other. Each
// thread keeps what its enumeration has read and answers these reads from it. That must not show:
// results and codes are those of reading the file each time, and no later call may see what has
// changed meanwhile. Hence the rules:
//
//  - Each answer asks first, by one stat of the path that follows no link, whether the file still
//    is the one that was read: device, inode, size, and both time stamps to the nanosecond. It is
//    kept open, since the inode number of a file that is gone is soon another's. After a change the
//    file is read as ever, and that text answers the rest of the listing.
//  - Time stamps are coarse: a change in place within one tick that keeps the size does not show in
//    them. Our own writers replace or append, so that inode or size differ. For the sake of others
//    no section is answered twice (a second read of it belongs to a later call) and nothing from
//    what was read more than a second ago.
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

#include <cstring>
#include <ctime>
#include <new>
#include <utility>

#include <pthread.h>
#include <sys/stat.h>

#include "section_text.hpp"

namespace zevo {
namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr int64_t kAnswersForNs = kNsPerSecond;

constexpr size_t kTaken = std::string_view::npos;
constexpr size_t kAbsent = kTaken - 1; // of the newer text

int64_t MonotonicNs() noexcept
{
    struct timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

// For stamps of files: anybody may set them to any number, so that there is no calculating with them.
bool IsSameTime(const struct timespec &a, const struct timespec &b) noexcept
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Values of the hash are texts of any bytes: these are the bytes of a number.
std::string_view AsText(const size_t &offset) noexcept
{
    return {reinterpret_cast<const char *>(&offset), sizeof(offset)};
}

size_t AsOffset(const char *szValue) noexcept
{
    size_t offset = kTaken;
    if (szValue != nullptr) std::memcpy(&offset, szValue, sizeof(offset));
    return offset;
}

// Where the line after this one begins.
size_t EndOf(const Line &line, std::string_view text) noexcept
{
    return static_cast<size_t>(line.whole.data() - text.data()) + line.whole.size();
}

std::optional<std::string_view> LinesOf(std::string_view text, std::string_view section) noexcept
{
    Reader reader(text);
    for (Line line; reader.NextHeader(line);)
        if (IsWord(line.name, section)) return text.substr(EndOf(line, text));
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
const ThreadSlot slot;

} // namespace

// ---- snapshot ----

unsigned Snapshot::Read(const char *szPath) noexcept
{
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
    return MonotonicNs() - readAtNs_ <= kAnswersForNs;
}

void Snapshot::Drop() noexcept
{
    const KeepErrno keep;
    text_ = Bytes();
    struct stat now = {};
    const bool isStat = fd_ && ::fstat(fd_.get(), &now) == 0;
    const bool isGone = !isStat && errno == EBADF; // any other failure is that of a file of ours
    if (fd_ && (isGone || (isStat && !IsSameFile(now, stat_)))) (void)fd_.Release();
    fd_ = Fd();
}

// ---- index ----

bool SectionIndex::Build(std::string_view text) noexcept
{
    pHash_.reset(VLIBCSzHashAlloc(0));
    if (!pHash_) return false;
    Reader reader(text);
    Bytes scratch;
    for (Line line; reader.NextHeader(line);) {
        std::string_view name;
        if (!Decode(line.name, scratch, name)) return false;
        if (pHash_->Get(name) != nullptr) continue;
        if (!pHash_->Set(name, AsText(EndOf(line, text)))) return false;
        ++nLeft_;
    }
    return true;
}

// A value that takes the place of another one of its length needs no memory.
bool SectionIndex::Renew(std::string_view text) noexcept
{
    for (const Pair &pair : pairs())
        if (AsOffset(pair.szValue) != kTaken) (void)pHash_->Set(pair.key, AsText(kAbsent));
    Reader reader(text);
    Bytes scratch;
    for (Line line; reader.NextHeader(line);) {
        std::string_view name;
        if (!Decode(line.name, scratch, name)) return false;
        if (AsOffset(pHash_->Get(name)) == kAbsent)
            (void)pHash_->Set(name, AsText(EndOf(line, text)));
    }
    return true;
}

bool SectionIndex::Has(std::string_view section) const noexcept
{
    return AsOffset(pHash_->Get(section)) != kTaken;
}

std::optional<std::string_view> SectionIndex::Take(std::string_view section,
                                                   std::string_view text) noexcept
{
    const size_t offset = AsOffset(pHash_->Get(section));
    (void)pHash_->Set(section, AsText(kTaken));
    --nLeft_;
    if (offset == kAbsent) return std::nullopt;
    return text.substr(offset);
}

// ---- listing ----

void Listing::Begin(const char *szPath, Snapshot &&snapshot, SectionIndex &&index,
                    const VLIB_SZ_LIST &names) noexcept
{
    if (index.left() == 0) return;
    std::unique_ptr<Listing> pListing(new (std::nothrow) Listing);
    if (!pListing || !pListing->path_.Append({szPath, std::strlen(szPath) + 1})) return;
    pListing->snapshot_ = std::move(snapshot);
    pListing->index_ = std::move(index);
    pListing->pNames_ = &names;
    slot.Set(pListing.release());
}

void Listing::End() noexcept
{
    if (slot.get() != nullptr) slot.Set(nullptr);
}

void Listing::Abandon(const VLIB_SZ_LIST *pNames) noexcept
{
    Listing *const pListing = slot.get();
    if (pListing == nullptr || pListing->pNames_ != pNames) return;
    pListing->pNames_ = nullptr;
    if (pListing->isBegun_) End();
}

void Listing::Suspend() noexcept
{
    if (Listing *const pListing = slot.get()) pListing->snapshot_.Drop();
}

Listing *Listing::Of(const char *szPath, const char *szSection) noexcept
{
    Listing *const pListing = slot.get();
    if (pListing == nullptr) return nullptr;
    if (std::strcmp(pListing->path_.view().data(), szPath) == 0 &&
        pListing->index_.Has(szSection) && pListing->snapshot_.IsFresh())
        return pListing;
    End();
    return nullptr;
}

unsigned Listing::Take(const char *szSection, std::optional<std::string_view> &lines) noexcept
{
    const char *const szPath = path_.view().data();
    isBegun_ = true;
    if (!snapshot_.IsCurrent(szPath)) {
        snapshot_.Drop();
        if (const unsigned code = snapshot_.Read(szPath); code != 0) return code;
        if (!index_.Renew(snapshot_.text())) {
            index_.Forget(); // the rest finds its way alone
            lines = LinesOf(snapshot_.text(), szSection);
            return 0;
        }
    }
    lines = index_.Take(szSection, snapshot_.text());
    return 0;
}

SectionRead::SectionRead(const char *szPath, const char *szSection) noexcept
    : pListing_(Listing::Of(szPath, szSection))
{
    if (pListing_ != nullptr) {
        code_ = pListing_->Take(szSection, lines_);
        return;
    }
    code_ = own_.Read(szPath);
    if (code_ == 0) lines_ = LinesOf(own_.text(), szSection);
}

SectionRead::~SectionRead()
{
    if (pListing_ != nullptr && (code_ != 0 || pListing_->IsDone())) Listing::End();
}

} // namespace zevo

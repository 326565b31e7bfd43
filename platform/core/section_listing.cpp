// A caller that lists a section file asks for the names of its sections and then reads one section
// after the other. Each thread keeps the text that its last enumeration has read, and answers these
// reads from it, as long as nobody could tell the difference:
//
//  - While the list of names lives, the sections count as they were when the names were listed, and
//    are answered from memory if they are read in the order of the list.
//  - Before the first of them one lstat compares device, inode, size and both time stamps with those
//    of the file that was read. A file that was changed or removed in between ends the listing.
//  - Any other read of a section, an enumeration, a write to a section file, the question whether a
//    file exists and freeing the list of names end the listing as well. Every later read opens the
//    file.
//
// A listing keeps memory but no descriptor. A forked child has a copy of its own. Where there is no
// memory or no thread key there is no listing, and each read opens the file.
#include "section_listing.hpp"

#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include <pthread.h>

#include "sz_list.hpp"

namespace zevo {
namespace {

constexpr size_t kUsualSectionBytes = 300;

bool IsSameTime(const struct timespec &a, const struct timespec &b) noexcept
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Each thread's listing, deleted when the thread ends. A thread_local object would be shorter, but
// the C++ runtime ends the process when there is no memory to register its destructor.
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

// Made when the library is loaded: a forked child must not wait for another thread to make it.
const ThreadSlot threadSlot;

} // namespace

Fault FileText::Read(const char *szPath) noexcept
{
    const CancelScope cancel;
    const Place place(szPath);
    if (place.fault()) return place.fault();
    const RegularFile file(place, O_RDONLY);
    if (file.fault()) return file.fault();
    stat = file.stat();
    return file.ReadWhole(text);
}

bool FileText::IsCurrent(const char *szPath) const noexcept
{
    struct stat now = {};
    return ::lstat(szPath, &now) == 0 && now.st_dev == stat.st_dev && now.st_ino == stat.st_ino &&
           now.st_size == stat.st_size && IsSameTime(now.st_mtim, stat.st_mtim) &&
           IsSameTime(now.st_ctim, stat.st_ctim);
}

// The names stay where they are: room for all is made at the first.
Fault SectionIndex::NameOf(const Line &header, size_t cbText, std::string_view &name) noexcept
{
    name = header.name.raw;
    if (!header.name.hasEscapes) return kNoFault;
    const size_t at = names_.size();
    if (const Fault fault = names_.Reserve(cbText - at)) return fault;
    if (const Fault fault = AppendMeaning(names_, header.name)) return fault;
    name = names_.view().substr(at);
    return kNoFault;
}

Fault SectionIndex::Build(std::string_view text) noexcept
try {
    sections_.Reserve(text.size() / kUsualSectionBytes + 1);
    bool isFirst = false; // of its name, the header that was read last
    std::string_view before;
    Reader reader(text);
    for (Line header; reader.NextHeader(header, before);) {
        if (isFirst) sections_[sections_.size() - 1].lines = before;
        std::string_view name;
        if (const Fault fault = NameOf(header, text.size(), name)) return fault;
        const size_t nBefore = sections_.size();
        size_t number;
        if (const Fault fault = sections_.FindOrAppend(number, name)) return fault;
        isFirst = number == nBefore;
    }
    if (isFirst) sections_[sections_.size() - 1].lines = before;
    return kNoFault;
} catch (const std::bad_alloc &) {
    return kNoMemory;
}

Fault SectionIndex::AppendNames(VLIB_SZ_LIST &list) const noexcept
{
    const int32_t nBefore = list.nItem;
    for (const Section &section : sections_) {
        if (const Fault fault = ListAppend(list, section.key)) {
            list.nItem = nBefore;
            return fault;
        }
    }
    return kNoFault;
}

void Listing::Begin(const char *szPath, FileText &&file, SectionIndex &&index,
                    VLIB_SZ_LIST &list) noexcept
{
    std::unique_ptr<Listing> pListing(new (std::nothrow) Listing);
    if (!pListing || pListing->path_.Append({szPath, std::strlen(szPath) + 1})) return;
    pListing->file_ = std::move(file);
    pListing->index_ = std::move(index);
    pListing->pList_ = &list;
    ListOnFree(list, &Listing::EndOf);
    threadSlot.Set(pListing.release());
}

void Listing::End() noexcept
{
    if (threadSlot.get() != nullptr) threadSlot.Set(nullptr);
}

void Listing::EndOf(const VLIB_SZ_LIST *pList) noexcept
{
    const Listing *const pListing = threadSlot.get();
    if (pListing != nullptr && pListing->pList_ == pList) End();
}

std::optional<std::string_view> Listing::Take(const char *szPath, const char *szSection) noexcept
{
    Listing *const pListing = threadSlot.get();
    if (pListing == nullptr) return std::nullopt;
    if (pListing->IsNext(szPath, szSection))
        return pListing->index_.sections()[pListing->nTaken_++].lines;
    End();
    return std::nullopt;
}

bool Listing::IsNext(const char *szPath, const char *szSection) const noexcept
{
    return nTaken_ < index_.sections().size() && index_.sections()[nTaken_].key == szSection &&
           std::strcmp(path_.view().data(), szPath) == 0 &&
           (nTaken_ > 0 || file_.IsCurrent(szPath));
}

} // namespace zevo

// What an enumeration of a section file has read, kept for the section reads that follow it: a
// listing opens, reads and scans its file once, not once for each section.
#ifndef SECTION_LISTING_HPP
#define SECTION_LISTING_HPP

#include <limits>
#include <optional>
#include <string_view>
#include <vector>

#include "section_text.hpp"
#include "zevocore_file.hpp"

namespace zevo {

// A file's text, and which file in which state that was. Only what opens, reads or closes the file is
// kept from being cancelled: most sections are read from memory.
class Snapshot {
public:
    // 0, or the error code.
    unsigned Read(const char *szPath) noexcept;
    // Whether the path still names that file in that state.
    bool IsCurrent(const char *szPath) const noexcept;
    bool IsOneMoment() const noexcept;
    // Whether it was read lately, as measured by how long that and what followed took.
    bool IsFresh() const noexcept;
    // It is ready to answer.
    void BeginAnswering() noexcept;
    void CloseFile() noexcept;
    // Gives text and file back, even where the host has taken the descriptor away.
    void Drop() noexcept;
    std::string_view text() const noexcept { return text_.view(); }

private:
    Bytes text_;
    Fd fd_;
    struct stat stat_ = {};
    int64_t readAtNs_ = 0;
    int64_t answersUntilNs_ = 0;
    int64_t momentUntilNs_ = 0;
};

// Within a file, or all that its names mean: no file that is read is as large as this counts.
using Offset = uint32_t;
static_assert(kMostFileBytes < std::numeric_limits<Offset>::max());

// Where in a text each section's lines are; of the first one where a name stands twice.
class SectionIndex {
public:
    static constexpr size_t kNone = ~size_t{0};

    // false without memory.
    bool Build(std::string_view text) noexcept;
    // Looks the sections that were not taken up again in a newer text. false without memory.
    bool Renew(std::string_view text) noexcept;
    // The section, if it was there when the index was built and was not taken since; else kNone.
    size_t Find(const char *szSection) const noexcept;
    // Whether it follows the one that was taken last.
    bool IsNext(size_t found) const noexcept { return found == next_; }
    // Takes a section that was found: its lines, unless the newer text lacks it.
    std::optional<std::string_view> Take(size_t found, std::string_view text) noexcept;
    void Forget() noexcept { nLeft_ = 0; }
    size_t left() const noexcept { return nLeft_; }
    // All names, in the order of the file. false, with the list as it was, without memory.
    bool AppendNames(VLIB_SZ_LIST &list) const noexcept;

private:
    enum class State : uint8_t { kHere, kAbsent, kTaken }; // absent: of the newer text
    struct Entry {
        Offset nameAt;
        Offset cbName;
        Offset begin;
        Offset end;
        State state;
    };
    // Open addressing. Most of a name's hash stands beside the entry's number, so that a name is
    // compared, somewhere else in memory, with its equal only.
    struct Slot {
        uint32_t number; // + 1; 0 is free
        uint32_t tag;
    };
    std::string_view NameOf(const Entry &entry) const noexcept;
    bool AddName(const Word &word, Entry &entry);
    void DropRepeated();
    size_t SlotOf(std::string_view name, uint64_t hash) const noexcept;
    uint32_t NumberOf(std::string_view name) const noexcept;

    Bytes names_; // each with its NUL
    std::vector<Entry> entries_;
    std::vector<Slot> slots_;
    size_t next_ = 0; // the entry behind the one taken last
    size_t nLeft_ = 0;
    bool isAscending_ = true;  // the names, by ComesBefore(): no slots are needed
    bool hasRepeated_ = false; // then names_ holds some that are no entry's
};

// A thread's listing: the file it has enumerated last and the sections it has not yet read of it.
class Listing {
public:
    ~Listing() { snapshot_.Drop(); }

    // Keeps what an enumeration has read; without memory quietly not.
    static void Begin(const char *szPath, Snapshot &&snapshot, SectionIndex &&index,
                      const VLIB_SZ_LIST &list) noexcept;
    static void End() noexcept;
    // When the names are given back: what is read from here on is to be as the file is by then. A
    // listing half-way through them ends.
    static void GiveBack(const VLIB_SZ_LIST *pList) noexcept;
    // When the thread asks for the file in another way, the moment is over, too.
    static void EndMoment() noexcept;
    // Before a thread writes: its sections stay to be read, but anew.
    static void Suspend() noexcept;
    // The thread's listing if it has this section to read; any other ends.
    static Listing *Of(const char *szPath, const char *szSection) noexcept;

    // The section as it is now or, within the listing's moment, was then: from memory or, after a
    // change, from the file. 0, or the error code.
    unsigned Take(const char *szSection, std::optional<std::string_view> &lines) noexcept;
    bool IsDone() const noexcept { return index_.left() == 0; }

private:
    void CheckMoment() noexcept;

    Bytes path_; // with its NUL
    Snapshot snapshot_;
    SectionIndex index_;
    size_t found_ = SectionIndex::kNone;  // what is about to be taken
    const VLIB_SZ_LIST *pList_ = nullptr; // while it lives; the caller's, only compared
    bool isMoment_ = true;
    bool isBegun_ = false;
};

// The read of one section, as part of the thread's listing or by itself. The lines are valid as
// long as the object.
class SectionRead {
public:
    SectionRead(const char *szPath, const char *szSection) noexcept;
    ~SectionRead();
    SectionRead(const SectionRead &) = delete;
    SectionRead &operator=(const SectionRead &) = delete;

    unsigned code() const noexcept { return code_; } // 0, or why it failed
    // What follows the header of the first section of that name, if there is one.
    const std::optional<std::string_view> &lines() const noexcept { return lines_; }

private:
    Listing *pListing_;
    std::optional<Snapshot> own_;
    std::optional<std::string_view> lines_;
    unsigned code_ = 0;
};

} // namespace zevo

#endif // SECTION_LISTING_HPP

// What an enumeration of a section file has read, kept for the section reads that follow it: a
// listing opens, reads and scans its file once, not once for each section.
#ifndef SECTION_LISTING_HPP
#define SECTION_LISTING_HPP

#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "sz_hash.hpp"
#include "zevocore_file.hpp"

namespace zevo {

// A file's text, and which file in which state that was.
class Snapshot {
public:
    // 0, or the error code.
    unsigned Read(const char *szPath) noexcept;
    // Whether the path still names that file in that state.
    bool IsCurrent(const char *szPath) const noexcept;
    bool IsFresh() const noexcept;
    // Gives text and file back, even where the host has taken the descriptor away.
    void Drop() noexcept;
    std::string_view text() const noexcept { return text_.view(); }

private:
    Bytes text_;
    Fd fd_;
    struct stat stat_ = {};
    int64_t readAtNs_ = 0;
};

// Where in a text the lines of each section begin; of the first one where a name stands twice.
class SectionIndex {
public:
    // false without memory.
    bool Build(std::string_view text) noexcept;
    // Looks the sections that were not taken up again in a newer text. false without memory.
    bool Renew(std::string_view text) noexcept;
    // Whether the section was there when the index was built, and was not taken since.
    bool Has(std::string_view section) const noexcept;
    // Takes such a section: its lines, unless the newer text lacks it.
    std::optional<std::string_view> Take(std::string_view section, std::string_view text) noexcept;
    void Forget() noexcept { nLeft_ = 0; }
    size_t left() const noexcept { return nLeft_; }
    // All names, in the order of the file.
    const std::vector<Pair> &pairs() const noexcept { return pHash_->pairs(); }

private:
    struct Free {
        void operator()(VLIB_SZ_HASH *pHash) const noexcept { VLIBCSzHashFree(pHash); }
    };

    std::unique_ptr<VLIB_SZ_HASH, Free> pHash_;
    size_t nLeft_ = 0;
};

// A thread's listing: the file it has enumerated last and the sections it has not yet read of it.
class Listing {
public:
    ~Listing() { snapshot_.Drop(); }

    // Keeps what an enumeration has read; without memory quietly not.
    static void Begin(const char *szPath, Snapshot &&snapshot, SectionIndex &&index,
                      const VLIB_SZ_LIST &names) noexcept;
    static void End() noexcept;
    // The list of names is freed: a listing half-way through it ends.
    static void Abandon(const VLIB_SZ_LIST *pNames) noexcept;
    // Before a thread writes: its sections stay to be read, but anew.
    static void Suspend() noexcept;
    // The thread's listing if it has this section to read; any other ends.
    static Listing *Of(const char *szPath, const char *szSection) noexcept;

    // The section as it is now, from memory or, after a change, from the file. 0, or the error
    // code.
    unsigned Take(const char *szSection, std::optional<std::string_view> &lines) noexcept;
    bool IsDone() const noexcept { return index_.left() == 0; }

private:
    Bytes path_; // with its NUL
    Snapshot snapshot_;
    SectionIndex index_;
    const VLIB_SZ_LIST *pNames_ = nullptr; // while it lives; the caller's
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
    Snapshot own_;
    std::optional<std::string_view> lines_;
    unsigned code_ = 0;
};

} // namespace zevo

#endif // SECTION_LISTING_HPP

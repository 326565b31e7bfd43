// What an enumeration of a section file has read, kept for the section reads that follow it: a
// listing opens, reads and scans its file once, not once for each section.
#ifndef SECTION_LISTING_HPP
#define SECTION_LISTING_HPP

#include <optional>
#include <string_view>

#include <sys/stat.h>

#include "base/regular_file.hpp"
#include "section_text.hpp"
#include "text_index.hpp"

namespace zevo {

// A file's text, and the state in which it was read.
struct FileText {
    Bytes text;
    struct stat stat = {};

    Fault Read(const char *szPath) noexcept;
    // Whether the path still names that file in that state, as far as one look can tell.
    bool IsCurrent(const char *szPath) const noexcept;
};

// The sections of a text in its order; of sections with the same name only the first.
class SectionIndex {
public:
    struct Section {
        explicit Section(std::string_view name) noexcept : key(name) {}

        std::string_view key; // the name
        std::string_view lines;
    };

    // Works through the text, which has to outlive the index.
    Fault Build(std::string_view text) noexcept;
    // Appends all names; leaves the list as it was on failure.
    Fault AppendNames(VLIB_SZ_LIST &list) const noexcept;
    const TextIndex<Section> &sections() const noexcept { return sections_; }

private:
    Fault NameOf(const Line &header, size_t cbText, std::string_view &name) noexcept;

    Bytes names_; // those that are not spelled as they are
    TextIndex<Section> sections_;
};

// The file that a thread enumerated last, and how many of its sections the thread has read since.
class Listing {
public:
    // Starts the thread's listing in place of its last one. Without memory there is none.
    static void Begin(const char *szPath, FileText &&file, SectionIndex &&index,
                      VLIB_SZ_LIST &list) noexcept;
    static void End() noexcept;
    // The lines of the section if it is the next one of the thread's listing; they stay valid until
    // the listing ends. Any other section ends it.
    static std::optional<std::string_view> Take(const char *szPath, const char *szSection) noexcept;

private:
    static void EndOf(const VLIB_SZ_LIST *pList) noexcept;
    bool IsNext(const char *szPath, const char *szSection) const noexcept;

    Bytes path_; // with its NUL
    FileText file_;
    SectionIndex index_;
    size_t nTaken_ = 0;
    const VLIB_SZ_LIST *pList_ = nullptr; // the caller's, only compared
};

} // namespace zevo

#endif // SECTION_LISTING_HPP

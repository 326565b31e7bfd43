// Section files on disk. A reader takes no lock: files are replaced whole, so that it sees either the
// old text or the new one. Enumerating a file and reading its sections then opens it once, see
// section_listing.cpp.
//
// Writers of settings (set, add) must not lose each other's changes. A writer holds a write lock on
// the file from before it reads it until it has put the new file in its place. The lock belongs to the
// open file (OFD): it keeps out other threads of the process as well, and the kernel releases it when
// its holder dies. Each writer leaves another file under the name, so a lock counts only if the name
// still leads to the locked file once the lock is granted. Removing a section also serves files that
// are rewritten many times a second: there it takes its turn like their writers, see
// base/replace_file.hpp.
#include "base/replace_file.hpp"
#include "platform/internal/frame.hpp"
#include "section_listing.hpp"
#include "section_text.hpp"
#include "sz_list.hpp"

namespace zevo {
namespace {

// The file, open for reading and write-locked.
class LockedFile {
public:
    explicit LockedFile(const Place &place) noexcept : file_(place, O_RDWR)
    {
        while (!file_.fault() && Lock(F_OFD_SETLKW, F_WRLCK)) {
            isLocked_ = place.LeadsTo(file_.stat());
            if (isLocked_) return;
            Unlock();
            file_ = RegularFile(place, O_RDWR); // its successor, which another writer has made
        }
    }
    ~LockedFile() { Unlock(); }
    LockedFile(const LockedFile &) = delete;
    LockedFile &operator=(const LockedFile &) = delete;

    Fault fault() const noexcept
    {
        return file_.fault() || isLocked_ ? file_.fault() : kCannotOpen;
    }
    const RegularFile &get() const noexcept { return file_; }

private:
    // Not left to close(): a child that is forked meanwhile holds the lock, too.
    void Unlock() const noexcept
    {
        const KeepErrno keep;
        if (!file_.fault()) Lock(F_OFD_SETLK, F_UNLCK);
    }

    bool Lock(int command, short type) const noexcept
    {
        struct flock lock = {}; // the whole file
        lock.l_type = type;
        lock.l_whence = SEEK_SET;
        return RetryInterrupted([&] { return ::fcntl(file_.get(), command, &lock); }) == 0;
    }

    RegularFile file_;
    bool isLocked_ = false;
};

// Walks over the headers of a text and the lines of one section. All other lines are appended to the
// new text without being read one by one: a file of thousands of rules is rewritten for each of them.
class SectionLines {
public:
    SectionLines(std::string_view oldText, const char *szSection) noexcept
        : reader_(oldText), szSection_(szSection)
    {
    }

    // The next header or line of the section; appends what lies before it to the new text.
    bool Next(Line &line, Pieces &newText) noexcept
    {
        if (isInside_) {
            if (!reader_.Next(line)) return false;
        } else {
            std::string_view before;
            const bool isThere = reader_.NextHeader(line, before);
            fault_ = newText.Append(before);
            if (!isThere || fault_) return false;
        }
        isHeader_ = line.kind == LineKind::kHeader;
        if (isHeader_) isInside_ = IsWord(line.name, szSection_);
        return true;
    }
    bool isInside() const noexcept { return isInside_; } // as of the line that was given last
    bool isOurHeader() const noexcept { return isHeader_ && isInside_; }
    Fault fault() const noexcept { return fault_; }

private:
    Reader reader_;
    const char *szSection_;
    bool isInside_ = false;
    bool isHeader_ = false;
    Fault fault_;
};

// Puts the new pairs in the place of the old ones, below the comments at the section's head. No
// change: there is no such section.
Change SetPairs(std::string_view oldText, const char *szSection, std::string_view pairs,
                Pieces &newText) noexcept
{
    SectionLines lines(oldText, szSection);
    bool isFound = false;
    bool isDue = false; // the pairs are still to be written, below the comments at the head
    for (Line line; lines.Next(line, newText);) {
        const bool isFirst = lines.isOurHeader() && !isFound;
        if (isDue && line.kind != LineKind::kComment) {
            isDue = false;
            if (const Fault fault = newText.Append(pairs)) return {fault};
        }
        const bool isOld = line.kind == LineKind::kHeader || line.kind == LineKind::kPair;
        if (lines.isInside() && isOld && !isFirst) continue;
        if (const Fault fault = newText.Append(line.whole)) return {fault};
        isFound = isFound || isFirst;
        isDue = isDue || isFirst;
    }
    if (lines.fault()) return {lines.fault()};
    if (!isDue) return {kNoFault, isFound};
    if (!oldText.ends_with('\n')) {
        if (const Fault fault = newText.Append("\n")) return {fault};
    }
    return {newText.Append(pairs), true};
}

// Drops a section. Its comments stay: somebody wrote them by hand.
class SectionRemoval final : public Composer {
public:
    explicit SectionRemoval(const char *szSection) noexcept : szSection_(szSection) {}

    Change Compose(std::string_view oldText, Pieces &newText) noexcept override
    {
        SectionLines lines(oldText, szSection_);
        bool isFound = false;
        for (Line line; lines.Next(line, newText);) {
            isFound = isFound || lines.isOurHeader();
            if (lines.isInside() && line.kind != LineKind::kComment) continue;
            if (const Fault fault = newText.Append(line.whole)) return {fault};
        }
        return {lines.fault(), isFound};
    }

private:
    const char *const szSection_;
};

// Puts a file with the new text in the old one's place.
Fault Replace(const Place &place, const struct stat &old, Pieces &text) noexcept
{
    TempFile temp(place);
    if (const Fault fault = temp.fault()) return fault;
    if (const Fault fault = temp.Write(text)) return fault;
    temp.TrySetOwner(old.st_uid, old.st_gid);
    if (const Fault fault = temp.SetMode(old.st_mode & kPermissionBits)) return fault;
    if (const Fault fault = temp.Sync()) return fault;
    if (const Fault fault = temp.Replace()) return fault;
    // The new file stands, so there is no failure to report any more.
    if (const Fd dir = OpenAt(place.dir(), ".", O_RDONLY | O_DIRECTORY)) (void)Sync(dir.get());
    return kNoFault;
}

enum class IfAbsent { kLeave, kAdd };

// No change: the section is not there, and is not to be added.
Change WriteSection(const char *szPath, const char *szSection, const VLIB_SZ_HASH &hash,
                    IfAbsent ifAbsent) noexcept
{
    const CancelScope cancel;
    Listing::End();
    const Place place(szPath);
    if (place.fault()) return {place.fault()};
    const LockedFile file(place);
    if (file.fault()) return {file.fault()};
    Bytes oldText;
    Bytes pairs;
    if (const Fault fault = file.get().ReadWhole(oldText)) return {fault};
    if (const Fault fault = WritePairs(pairs, hash)) return {fault};
    Pieces newText;
    const Change set = SetPairs(oldText.view(), szSection, pairs.view(), newText);
    if (set.fault || (!set.isMade && ifAbsent == IfAbsent::kLeave)) return set;
    Bytes added; // a section below the text, after a blank line
    if (!set.isMade) {
        const std::string_view text = oldText.view();
        if (!text.empty() && !text.ends_with('\n') && added.Append("\n")) return {kNoMemory};
        if (!text.empty() && !text.ends_with("\n\n") && added.Append("\n")) return {kNoMemory};
        if (WriteHeader(added, szSection) || added.Append(pairs.view())) return {kNoMemory};
        if (newText.Append(added.view())) return {kNoMemory};
    }
    const Fault fault = Replace(place, file.get().stat(), newText);
    return {fault, !fault};
}

// The lines of the first section of that name.
std::optional<std::string_view> LinesOf(std::string_view text, std::string_view section) noexcept
{
    Reader reader(text);
    std::string_view lines;
    for (Line header; reader.NextHeader(header, lines);) {
        if (!IsWord(header.name, section)) continue;
        (void)reader.NextHeader(header, lines);
        return lines;
    }
    return std::nullopt;
}

bool MayBeHeader(const char *szLine, int cbLine) noexcept
{
    return szLine != nullptr && cbLine > 0 && *szLine == '[';
}

} // namespace
} // namespace zevo

using namespace zevo;

int VLIBCFileGetSection(const char *szPath, const char *szSection, VLIB_SZ_HASH **ppHash) noexcept
{
    if (szPath == nullptr || szSection == nullptr || ppHash == nullptr || *ppHash == nullptr)
        return ZEVO_FAIL(kBadArgument);
    FileText file; // stays empty when the listing has the lines
    std::optional<std::string_view> lines = Listing::Take(szPath, szSection);
    if (!lines) {
        if (const Fault fault = file.Read(szPath)) return ZEVO_FAIL(fault);
        lines = LinesOf(file.text.view(), szSection);
    }
    if (!lines) return 0;
    const Fault fault = TakePairs(*lines, **ppHash);
    return fault ? ZEVO_FAIL(fault) : 1;
}

int VLIBCFileSetSection(const char *szPath, const char *szSection, const char *,
                        const VLIB_SZ_HASH *pHash, int) noexcept
{
    if (szPath == nullptr || szSection == nullptr || pHash == nullptr)
        return ZEVO_FAIL(kBadArgument);
    const Change change = WriteSection(szPath, szSection, *pHash, IfAbsent::kLeave);
    return change.fault ? ZEVO_FAIL(change.fault) : change.isMade ? 1 : 0;
}

int VLIBCFileAddSection(const char *szPath, const char *szSection, const VLIB_SZ_HASH *pHash,
                        int) noexcept
{
    if (szPath == nullptr || szSection == nullptr || pHash == nullptr)
        return ZEVO_FAIL(kBadArgument);
    const Change change = WriteSection(szPath, szSection, *pHash, IfAbsent::kAdd);
    return change.fault ? ZEVO_FAIL(change.fault) : 0;
}

int VLIBCFileRemoveSection(const char *szPath, const char *szSection) noexcept
{
    if (szPath == nullptr || szSection == nullptr) return ZEVO_FAIL(kBadArgument);
    const CancelScope cancel;
    Listing::End();
    const Place place(szPath);
    if (const Fault fault = place.fault()) return ZEVO_FAIL(fault);
    const LockedFile file(place);
    if (const Fault fault = file.fault()) return ZEVO_FAIL(fault);
    SectionRemoval removal(szSection);
    TurnWait wait;
    const Change change = ReplaceFile(szPath, removal, wait);
    return change.fault ? ZEVO_FAIL(change.fault) : change.isMade ? 1 : 0;
}

int VLIBCFileEnumSection(const char *szPath, VLIB_SZ_LIST **ppList) noexcept
{
    if (szPath == nullptr || ppList == nullptr || *ppList == nullptr)
        return ZEVO_FAIL(kBadArgument);
    const CancelScope cancel;
    Listing::End();
    FileText file;
    if (const Fault fault = file.Read(szPath)) return ZEVO_FAIL(fault);
    VLIB_SZ_LIST &list = **ppList;
    const int32_t nBefore = list.nItem;
    SectionIndex index;
    if (const Fault fault = index.Build(file.text.view())) return ZEVO_FAIL(fault);
    if (const Fault fault = index.AppendNames(list)) return ZEVO_FAIL(fault);
    Listing::Begin(szPath, std::move(file), std::move(index), list);
    return list.nItem - nBefore;
}

int VLIBCFileHash2File(FILE *pFile, const char *szSection, const VLIB_SZ_HASH *pHash, int) noexcept
{
    if (pFile == nullptr || szSection == nullptr || pHash == nullptr)
        return ZEVO_FAIL(kBadArgument);
    const CancelScope cancel;
    Bytes text;
    if (const Fault fault = WriteHeader(text, szSection)) return ZEVO_FAIL(fault);
    if (const Fault fault = WritePairs(text, *pHash)) return ZEVO_FAIL(fault);
    const size_t cbWritten = std::fwrite(text.view().data(), 1, text.size(), pFile);
    return cbWritten == text.size() ? 0 : ZEVO_FAIL(kCannotWrite);
}

int VLIBCIFileIsSection(const char *szLine, int cbLine) noexcept
{
    if (!MayBeHeader(szLine, cbLine)) return 0;
    return ReadLine({szLine, static_cast<size_t>(cbLine)}).kind == LineKind::kHeader ? 1 : 0;
}

int VLIBCIFileMatchSection(const char *szLine, int cbLine, const char *szSection) noexcept
{
    if (!MayBeHeader(szLine, cbLine) || szSection == nullptr) return 0;
    const Line line = ReadLine({szLine, static_cast<size_t>(cbLine)});
    return line.kind == LineKind::kHeader && IsWord(line.name, szSection) ? 1 : 0;
}

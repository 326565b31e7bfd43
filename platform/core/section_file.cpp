// Section files on disk. Reading takes no lock: a file is only ever replaced whole, so whoever
// opens it sees the old text or the new one. Enumerating a file and then reading its sections takes
// one pass, see section_listing.cpp.
//
// Two kinds of writers. Settings (set, add) must not lose each other's changes: they hold a write
// lock on the file itself from before it is read until its successor has taken its place. The lock
// belongs to the open file (OFD), so it excludes threads of one process too, and goes when its
// holder dies. Since every writer leaves another file under the name, a lock counts only if the
// name still leads to the locked file once it is granted. Removing a section also serves files that
// are rewritten many times a second without any lock: it takes part in their way, too, see
// RewriteFile().
#include "section_listing.hpp"
#include "section_text.hpp"
#include "sz_list.hpp"
#include "zevocore_frame.hpp"

namespace zevo {
namespace {

// The file, open for reading and write-locked. false: code() says why.
class LockedFile {
public:
    explicit LockedFile(const Place &place) noexcept : file_(place, O_RDWR)
    {
        while (file_ && Lock(F_OFD_SETLKW, F_WRLCK)) {
            if (NamesSameFile(place, file_.stat(), current_)) return;
            Unlock();
            file_ = RegularFile(place, O_RDWR); // its successor, which another writer has made
        }
        code_ = file_ ? unsigned{kFileOpen} : file_.code();
    }
    ~LockedFile() { Unlock(); }
    LockedFile(const LockedFile &) = delete;
    LockedFile &operator=(const LockedFile &) = delete;

    explicit operator bool() const noexcept { return code_ == 0; }
    unsigned code() const noexcept { return code_; }
    const struct stat &stat() const noexcept { return current_; }
    unsigned ReadWhole(Bytes &bytes) const noexcept
    {
        return file_.ReadWhole(bytes, current_.st_size);
    }

private:
    // Not left to close: a child forked meanwhile would keep the lock until it runs its program.
    void Unlock() const noexcept
    {
        const KeepErrno keep;
        if (file_) Lock(F_OFD_SETLK, F_UNLCK);
    }

    bool Lock(int command, short type) const noexcept
    {
        struct flock lock = {}; // the whole file
        lock.l_type = type;
        lock.l_whence = SEEK_SET;
        return RetryInterrupted([&] { return ::fcntl(file_.get(), command, &lock); }) == 0;
    }

    RegularFile file_;
    struct stat current_ = {}; // as of the time the lock was granted
    unsigned code_ = 0;
};

// The old file's text on its way to the new one. The results: 1 changed, 0 section not there, -1 no
// memory.
template <class Text> class Composer {
public:
    Composer(std::string_view oldText, const char *szSection, Text &out) noexcept
        : reader_(oldText), szSection_(szSection), out_(out)
    {
    }

    // The new pairs take the place of the old ones, below the comments at the section's head.
    int Set(const VLIB_SZ_HASH &hash) noexcept
    {
        const VLIB_SZ_HASH *pAwaited = nullptr;
        for (Line line; Next(line);) {
            const bool isFirst = Enter(line) && !found_;
            if (pAwaited != nullptr && line.kind != LineKind::kComment) {
                if (!WritePairs(out_, *pAwaited)) return -1;
                pAwaited = nullptr;
            }
            const bool isOld = line.kind == LineKind::kHeader || line.kind == LineKind::kPair;
            if ((!inside_ || !isOld || isFirst) && !out_.Append(line.whole)) return -1;
            if (!isFirst) continue;
            found_ = true;
            pAwaited = &hash;
        }
        if (pAwaited != nullptr && !(EndLine(out_) && WritePairs(out_, *pAwaited))) return -1;
        return Result();
    }

    // Of a removed section its comments stay: somebody wrote them by hand.
    int Remove() noexcept
    {
        for (Line line; Next(line);) {
            found_ |= Enter(line);
            if (inside_ && line.kind != LineKind::kComment) continue;
            if (!out_.Append(line.whole)) return -1;
        }
        return Result();
    }

private:
    // The next line of the section or the next header; what lies before a header outside of the
    // section goes over as it is, unread, for a file of thousands of rules is written once for each.
    bool Next(Line &line) noexcept
    {
        if (inside_) return reader_.Next(line);
        std::string_view before;
        const bool isThere = reader_.NextHeader(line, before);
        hasRoom_ = out_.Append(before);
        return isThere && hasRoom_;
    }

    int Result() const noexcept { return !hasRoom_ ? -1 : found_ ? 1 : 0; }

    // Notes whether the line lies inside the section; true for a header of it.
    bool Enter(const Line &line) noexcept
    {
        if (line.kind != LineKind::kHeader) return false;
        return inside_ = IsWord(line.name, szSection_);
    }

    Reader reader_;
    const char *szSection_;
    Text &out_;
    bool inside_ = false;
    bool found_ = false;
    bool hasRoom_ = true; // false once memory has run out
};

// Adds a section below the text, after a blank line.
bool AppendSection(Bytes &out, const char *szSection, const VLIB_SZ_HASH &hash) noexcept
{
    const bool isApart = out.size() == 0 || out.view().ends_with("\n\n");
    return EndLine(out) && (isApart || out.Append("\n")) && WriteHeader(out, szSection) &&
           WritePairs(out, hash);
}

// Puts a file with the new text in the old one's place; 0, or the error code.
unsigned Replace(const Place &place, const struct stat &old, std::string_view text) noexcept
{
    TempFile temp(place);
    if (!temp) return kFileOpen;
    if (!temp.Write(text)) return kFileWrite;
    temp.TryOwner(old.st_uid, old.st_gid);
    if (!temp.SetMode(old.st_mode & kPermissionBits) || !temp.Sync()) return kFileWrite;
    if (!temp.RenameOver()) return kFileRename;
    // The new file stands, so there is no failure to tell any more.
    if (const Fd dir = OpenAt(place.dir(), ".", O_RDONLY | O_DIRECTORY))
        (void)RetryInterrupted([&] { return ::fsync(dir.get()); });
    return 0;
}

enum class IfAbsent { kLeave, kAdd };

// 1 written, 0 not there and left; -1 failed, with the code.
RewriteResult WriteSection(const char *szPath, const char *szSection, const VLIB_SZ_HASH &hash,
                           IfAbsent ifAbsent) noexcept
{
    const CancelScope cancel;
    Listing::End();
    const Place place(szPath);
    if (!place) return {-1, kFileOpen};
    const LockedFile file(place);
    if (!file) return {-1, file.code()};
    Bytes oldText;
    if (const unsigned code = file.ReadWhole(oldText); code != 0) return {-1, code};
    Bytes newText;
    const int found = Composer(oldText.view(), szSection, newText).Set(hash);
    if (found == 0 && ifAbsent == IfAbsent::kLeave) return {0, 0};
    if (found < 0 || (found == 0 && !AppendSection(newText, szSection, hash)))
        return {-1, kFileNoMemory};
    const unsigned code = Replace(place, file.stat(), newText.view());
    return {code == 0 ? 1 : -1, code};
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

// Whoever walks over a file asks about each of its lines: most need no second look, and so not the
// room on the stack that one takes.
bool MayBeHeader(const char *szLine, int cbLine) noexcept
{
    return szLine != nullptr && cbLine > 0 && *szLine == '[';
}

[[gnu::noinline]] int LookForHeader(const char *szLine, int cbLine) noexcept
{
    return ReadLine({szLine, static_cast<size_t>(cbLine)}).kind == LineKind::kHeader ? 1 : 0;
}

[[gnu::noinline]] int LookForHeaderOf(const char *szLine, int cbLine,
                                      const char *szSection) noexcept
{
    return IsHeaderOf({szLine, static_cast<size_t>(cbLine)}, szSection) ? 1 : 0;
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
        if (const unsigned code = file.Read(szPath); code != 0) return ZEVO_FAIL(code);
        lines = LinesOf(file.text.view(), szSection);
    }
    if (!lines) return 0;
    return TakePairs(*lines, **ppHash) ? 1 : ZEVO_FAIL(kFileNoMemory);
}

int VLIBCFileSetSection(const char *szPath, const char *szSection, const char *,
                        const VLIB_SZ_HASH *pHash, int) noexcept
{
    if (szPath == nullptr || szSection == nullptr || pHash == nullptr)
        return ZEVO_FAIL(kBadArgument);
    const RewriteResult done = WriteSection(szPath, szSection, *pHash, IfAbsent::kLeave);
    return done.result < 0 ? ZEVO_FAIL(done.code) : done.result;
}

int VLIBCFileAddSection(const char *szPath, const char *szSection, const VLIB_SZ_HASH *pHash,
                        int) noexcept
{
    if (szPath == nullptr || szSection == nullptr || pHash == nullptr)
        return ZEVO_FAIL(kBadArgument);
    const RewriteResult done = WriteSection(szPath, szSection, *pHash, IfAbsent::kAdd);
    return done.result < 0 ? ZEVO_FAIL(done.code) : 0;
}

int VLIBCFileRemoveSection(const char *szPath, const char *szSection) noexcept
{
    if (szPath == nullptr || szSection == nullptr) return ZEVO_FAIL(kBadArgument);
    const CancelScope cancel;
    Listing::End();
    const Place place(szPath);
    if (!place) return ZEVO_FAIL(kFileOpen);
    const LockedFile file(place);
    if (!file) return ZEVO_FAIL(file.code());
    Patience patience;
    const auto compose = [&](std::string_view oldText, Pieces &newText, const struct stat &) {
        return Composer(oldText, szSection, newText).Remove();
    };
    const RewriteResult done = RewriteFile(szPath, compose, patience);
    return done.result < 0 ? ZEVO_FAIL(done.code) : done.result;
}

int VLIBCFileEnumSection(const char *szPath, VLIB_SZ_LIST **ppList) noexcept
{
    if (szPath == nullptr || ppList == nullptr || *ppList == nullptr)
        return ZEVO_FAIL(kBadArgument);
    const CancelScope cancel;
    Listing::End();
    FileText file;
    if (const unsigned code = file.Read(szPath); code != 0) return ZEVO_FAIL(code);
    VLIB_SZ_LIST &list = **ppList;
    const int32_t nBefore = list.nItem;
    SectionIndex index;
    if (!index.Build(file.text.view()) || !index.AppendNames(list)) return ZEVO_FAIL(kFileNoMemory);
    Listing::Begin(szPath, std::move(file), std::move(index), list);
    return list.nItem - nBefore;
}

int VLIBCFileHash2File(FILE *pFile, const char *szSection, const VLIB_SZ_HASH *pHash, int) noexcept
{
    if (pFile == nullptr || szSection == nullptr || pHash == nullptr)
        return ZEVO_FAIL(kBadArgument);
    const CancelScope cancel;
    Bytes text;
    if (!WriteHeader(text, szSection) || !WritePairs(text, *pHash)) return ZEVO_FAIL(kFileNoMemory);
    const size_t cbWritten = std::fwrite(text.view().data(), 1, text.size(), pFile);
    return cbWritten == text.size() ? 0 : ZEVO_FAIL(kFileWrite);
}

int VLIBCIFileIsSection(const char *szLine, int cbLine) noexcept
{
    return MayBeHeader(szLine, cbLine) ? LookForHeader(szLine, cbLine) : 0;
}

int VLIBCIFileMatchSection(const char *szLine, int cbLine, const char *szSection) noexcept
{
    if (!MayBeHeader(szLine, cbLine) || szSection == nullptr) return 0;
    return LookForHeaderOf(szLine, cbLine, szSection);
}

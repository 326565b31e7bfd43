// Section files: what is written comes back equal, what is not ours stays byte for byte, writers do
// not lose each other's work, and a failure leaves the old file.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/scan.hpp"
#include "box.hpp"
#include "hash.hpp"
#include "stand_ins.hpp"
#include "zevobandwidth.h"
#include "zevocore.h"

namespace fs = std::filesystem;

using standins::Call;
using testing::ElementsAre;

namespace {

constexpr char kThisFile[] = "section_file.cpp";
constexpr char kTwoSections[] =
    "# hand-made\n[user-1]\nstate=enabled\n\n[user-2]\nstate=disabled\n";

class SectionFile : public BoxTest {
protected:
    const char *Path() { return etc.Path("conf"); }
    void Write(std::string_view text) { etc.Write("conf", text); }
    std::string Read() { return etc.Read("conf"); }

    int Set(const char *szSection, const Pairs &pairs)
    {
        return VLIBCFileSetSection(Path(), szSection, nullptr, Hash(pairs).get(), 0);
    }
    int Add(const char *szSection, const Pairs &pairs)
    {
        return VLIBCFileAddSection(Path(), szSection, Hash(pairs).get(), 0);
    }
    std::vector<std::string> Names()
    {
        VLIB_SZ_LIST *pList = VLIBCSzListAlloc(0);
        const int count = VLIBCFileEnumSection(Path(), &pList);
        std::vector<std::string> names;
        for (int i = 0; i < pList->nItem; ++i)
            names.emplace_back(VLIBCSzListGet(pList, i));
        EXPECT_EQ(count, static_cast<int>(names.size()));
        VLIBCSzListFree(pList);
        return names;
    }
};

// What the syntax is made of, what is no text at all, and what is read eight bytes at a time.
std::vector<std::string> AwkwardTexts()
{
    // clang-format off
    std::vector<std::string> texts = {
        "", "  ", "a ", "a\t", " a", "a = b", "[a]", "a]b", "\"a\"", "a\"b", "a\\", "\\n", "\\x41",
        "\"\\", "; c", "# c", "[a]\n[b]\nk=v\n", "\r\n", "\xC3\xA4", "\xC3", "\xA4\xC3", "\xC0\x80",
        "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE2\x82"};
    // clang-format on
    texts.emplace_back(4095, '\n');
    for (int byte = 1; byte < 256; ++byte) {
        const std::string it(1, static_cast<char>(byte));
        texts.insert(texts.end(), {it, "1234567" + it, "1234" + it + "5678", it + "12345678"});
    }
    return texts;
}

struct Writer {
    const char *szFile; // which failures are recorded with
    int (*add)(const char *, const char *, const VLIB_SZ_HASH *);
    int (*set)(const char *, const char *, const VLIB_SZ_HASH *);
    int (*remove)(const char *, const char *);
};

constexpr Writer kWriters[] = {
    {kThisFile,
     [](const char *szPath, const char *szSection, const VLIB_SZ_HASH *pHash) {
         return VLIBCFileAddSection(szPath, szSection, pHash, 0) == 0 ? 1 : -1;
     },
     [](const char *szPath, const char *szSection, const VLIB_SZ_HASH *pHash) {
         return VLIBCFileSetSection(szPath, szSection, nullptr, pHash, 0);
     },
     VLIBCFileRemoveSection},
    {"bandwidth_status_set_section.cpp", ZEVOBandwidthStatusAddSection,
     ZEVOBandwidthStatusSetSection, ZEVOBandwidthStatusRemoveSection},
};

TEST_F(SectionFile, AnyTextComesBackEqualAsNameKeyAndValue)
{
    const std::string before = "# by hand\n[before]\nk=v\n";
    for (const Writer &writer : kWriters) {
        for (const std::string &text : AwkwardTexts()) {
            SCOPED_TRACE(testing::PrintToString(text.substr(0, 20)) + " of " +
                         std::to_string(text.size()) + ", " + writer.szFile);
            Write(before);
            const Hash set({{text, text}, {text + "a", text}});
            ASSERT_EQ(writer.add(Path(), text.c_str(), Hash({{text, "1"}}).get()), 1);
            ASSERT_EQ(writer.set(Path(), text.c_str(), set.get()), 1);
            ASSERT_THAT(Names(), ElementsAre("before", text));
            Hash hash;
            ASSERT_EQ(VLIBCFileGetSection(Path(), text.c_str(), hash.address()), 1);
            ASSERT_EQ(hash[text], text);
            ASSERT_EQ(hash[text + "a"], text);
            const std::string file = Read();
            ASSERT_EQ(file.rfind(before, 0), 0u);
            const std::string own = file.substr(file.find('[', before.size()));
            ASSERT_EQ(std::count(own.begin(), own.end(), '\n'), 3);
            ASSERT_EQ(writer.remove(Path(), text.c_str()), 1);
            ASSERT_THAT(Names(), ElementsAre("before"));
        }
    }
}

TEST_F(SectionFile, OrdinaryTextsStandAsTheyAreAndOthersInQuotes)
{
    Write("");
    ASSERT_EQ(Add("user-1026", {{"upload rate", "500"},
                                {"path", "/vol/M\xC3\xBCller \"x\" [1]=\\2;#"},
                                {"empty", ""},
                                {"", " blanks "},
                                {"#k=1", "two\nlines\t\x07\xFF\x7F\xC2\x85"}}),
              0);
    EXPECT_EQ(Read(), "[user-1026]\n"
                      "upload rate=500\n"
                      "path=/vol/M\xC3\xBCller \"x\" [1]=\\2;#\n"
                      "empty=\n"
                      "\"\"=\" blanks \"\n"
                      "\"#k=1\"=\"two\\nlines\\t\\x07\\xFF\\x7F\\xC2\\x85\"\n");
}

TEST_F(SectionFile, LinesEditedByHandAreReadAsTheirAuthorMeantThem)
{
    constexpr char kAbsent[] = "(absent)";
    const struct {
        std::string line;
        const char *szKey;
        const char *szValue;
    } rows[] = {
        {" upload rate \t=  500 \r", "upload rate", "500"},
        {"\"k\" = \"v\"\r", "k", "v"},
        {"\"k\"=\"\\x4a\\x4A\"", "k", "JJ"},
        {"k=a=b", "k", "a=b"},
        {"k=first\nk=second", "k", "second"},
        {";k=v", "k", kAbsent},
        {"k", "k", kAbsent},
        {"=v", "", kAbsent},
        {"k=\"v", "k", kAbsent},
        {"k=\"v\" w", "k", kAbsent},
        {"k=\"\\q\"", "k", kAbsent},
        {"k=\"\\x0\"", "k", kAbsent},
        {"k=\"\\x00\"", "k", kAbsent},
        {"\"k\" x=v", "k", kAbsent},
        {std::string("k=v\0w", 5), "k", kAbsent},
        {"[k=v", "[k", kAbsent},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.line));
        Write("[ a ]\t\r\n" + row.line + "\n[b]\nk=other\n[a]\nk=again\n");
        Hash hash;
        ASSERT_EQ(VLIBCFileGetSection(Path(), "a", hash.address()), 1);
        EXPECT_EQ(hash[row.szKey], row.szValue);
        Hash expectsK; // since it has held a section with this key
        ASSERT_EQ(VLIBCFileGetSection(Path(), "b", expectsK.address()), 1);
        ASSERT_EQ(VLIBCHashRemoveAll(expectsK.get()), 0);
        ASSERT_EQ(VLIBCFileGetSection(Path(), "a", expectsK.address()), 1);
        EXPECT_EQ(expectsK[row.szKey], row.szValue) << "where the key was expected";
    }
}

TEST_F(SectionFile, AHeaderIsKnownByItsLineAlone)
{
    const struct {
        std::string line;
        const char *szName; // nullptr: no header
    } rows[] = {
        {"[4711-1]\n", "4711-1"}, {"[4711-1]", "4711-1"},    {"[\"a]\\n\"] \r\n", "a]\n"},
        {"[\"\"]\n", ""},         {"[]\n", nullptr},         {" [a]\n", nullptr},
        {"[a]x\n", nullptr},      {"[a\n", nullptr},         {"[\"a]\n", nullptr},
        {"; [a]\n", nullptr},     {"[a=b\n", nullptr},       {"", nullptr},
        {"\n[a]\n", nullptr},     {{"[a\0]\n", 5}, nullptr}, {"[\"\\x34711-1\"]\n", "\\x34711-1"},
    };
    for (const auto &[line, szName] : rows) {
        SCOPED_TRACE(testing::PrintToString(line));
        const int cb = static_cast<int>(line.size());
        EXPECT_EQ(VLIBCIFileIsSection(line.c_str(), cb), szName != nullptr ? 1 : 0);
        EXPECT_EQ(VLIBCIFileMatchSection(line.c_str(), cb, szName == nullptr ? "a" : szName),
                  szName != nullptr ? 1 : 0);
        EXPECT_EQ(VLIBCIFileMatchSection(line.c_str(), cb, "4711-11"), 0);
    }
}

TEST_F(SectionFile, SettingAndAddingReplaceThePairsAndNothingElse)
{
    const struct {
        const char *szOld;
        const char *szNew;
        bool isAdded = false;
    } rows[] = {
        {"[a]\nk=1\n", "[a]\nx=9\n"},
        {"[a]", "[a]\nx=9\n"},
        {"[a]\nk=1", "[a]\nx=9\n"},
        {"[a]\n# why", "[a]\n# why\nx=9\n"},
        {"top\n[z]\r\n k = 1\r\n\n[ a ] \r\n# why\nk=1\n;later\njunk\nl=2\n\n[b]\nk=\"1\"",
         "top\n[z]\r\n k = 1\r\n\n[ a ] \r\n# why\nx=9\n;later\njunk\n\n[b]\nk=\"1\""},
        {"[a]\nk=1\n\n[b]\nk=2\n[a]\n#note\nk=3\n[c]\n", "[a]\nx=9\n\n[b]\nk=2\n#note\n[c]\n"},
        {"[a]\nk=1\n[b]\n", "[a]\nx=9\n[b]\n", true},
        // What is not there yet begins on a line of its own.
        {"", "[a]\nx=9\n", true},
        {"[b]\nk=1\n", "[b]\nk=1\n\n[a]\nx=9\n", true},
        {"[b]\nk=1\n\n", "[b]\nk=1\n\n[a]\nx=9\n", true},
        {"[b]\nk=\"1", "[b]\nk=\"1\n\n[a]\nx=9\n", true},
        {"[b]\n[a", "[b]\n[a\n\n[a]\nx=9\n", true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.szOld));
        Write(row.szOld);
        ASSERT_EQ(::chmod(Path(), 04751), 0);
        EXPECT_EQ(row.isAdded ? Add("a", {{"x", "9"}}) + 1 : Set("a", {{"x", "9"}}), 1);
        EXPECT_EQ(Read(), row.szNew);
        struct stat now = {};
        ASSERT_EQ(::stat(Path(), &now), 0);
        EXPECT_EQ(now.st_mode & 07777, 0751u) << "no set-id bits on a file of ours";
    }
}

TEST_F(SectionFile, ASectionThatIsNotThereIsToldAndNothingIsTouched)
{
    Write(kTwoSections);
    struct stat before = {};
    struct stat after = {};
    ASSERT_EQ(::stat(Path(), &before), 0);
    Hash hash(Pairs{{"state", "kept"}});
    EXPECT_EQ(VLIBCFileGetSection(Path(), "user-3", hash.address()), 0);
    EXPECT_EQ(hash["state"], "kept");
    EXPECT_EQ(Set("user-3", {{"x", "9"}}), 0);
    EXPECT_EQ(VLIBCFileRemoveSection(Path(), "user-3"), 0);
    ASSERT_EQ(::stat(Path(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(Read(), kTwoSections);
}

TEST_F(SectionFile, RemovingKeepsOnlyTheCommentsOfTheSection)
{
    const std::string note("# note\0\n", 8);
    Write("[a]\nk=1\n\n[b]\n" + note + "k=2\njunk\n\n[c]\nk=3\n[b]\nk=4");
    EXPECT_EQ(VLIBCFileRemoveSection(Path(), "b"), 1);
    EXPECT_EQ(Read(), "[a]\nk=1\n\n" + note + "[c]\nk=3\n");
}

TEST_F(SectionFile, RemovingStartsOverWhenAnotherProcessWasFaster)
{
    Write("[a]\nk=1\n");
    standins::Before(Call::Fsync, 1, [&] { Write("[a]\nk=1\n[b]\nk=2\n"); });
    EXPECT_EQ(VLIBCFileRemoveSection(Path(), "a"), 1);
    EXPECT_EQ(Read(), "[b]\nk=2\n");
    EXPECT_EQ(etc.FileCount(), 1);
}

TEST_F(SectionFile, AFailedWriteLeavesTheOldFileAndNoTemporaryOne)
{
    const struct {
        Call call;
        unsigned code;
    } rows[] = {
        {Call::Open, 0x0900},  {Call::Read, 0x0A00},  {Call::Write, 0x0B00},
        {Call::Chmod, 0x0B00}, {Call::Fsync, 0x0B00}, {Call::Rename, 0x2800},
    };
    const Pairs pairs = {{"x", "9"}};
    const std::function<int()> operations[] = {
        [&] { return Set("user-1", pairs); },
        [&] { return Add("user-3", pairs); },
        [&] { return VLIBCFileRemoveSection(Path(), "user-1"); },
    };
    Write(kTwoSections);
    for (const auto &row : rows) {
        for (const auto &operation : operations) {
            SCOPED_TRACE(row.code);
            standins::FailNext(row.call, EIO);
            errno = 0;
            EXPECT_EQ(operation(), -1);
            EXPECT_EQ(errno, EIO);
            ExpectSlot(row.code, kThisFile);
            EXPECT_EQ(Read(), kTwoSections);
            EXPECT_EQ(etc.FileCount(), 1);
        }
    }
}

TEST_F(SectionFile, OnlyRegularFilesOfModerateSizeInRealDirectoriesAreTaken)
{
    Write(kTwoSections);
    const std::string base = etc.c_str();
    ASSERT_EQ(::symlink("conf", etc.Path("link")), 0);
    ASSERT_EQ(::mkfifo(etc.Path("fifo"), 0600), 0);
    ASSERT_EQ(::mkdir(etc.Path("dir"), 0700), 0);
    ASSERT_EQ(::symlink(etc.c_str(), box.Path("linked")), 0);
    etc.Write("huge", "");
    ASSERT_EQ(::truncate(etc.Path("huge"), (off_t{8} << 20) + 1), 0);
    for (const std::string &path :
         {base + "/link", base + "/fifo", base + "/dir", base + "/huge", base + "/missing",
          box.c_str() + std::string("/linked/conf"), box.c_str() + std::string("/linked//conf"),
          base + "/conf/", std::string()}) {
        SCOPED_TRACE(path);
        Hash hash;
        EXPECT_EQ(VLIBCFileGetSection(path.c_str(), "user-1", hash.address()), -1);
        ExpectSlot(0x0900, kThisFile);
        for (const Writer &writer : kWriters) {
            EXPECT_EQ(writer.set(path.c_str(), "user-1", hash.get()), -1);
            ExpectSlot(0x0900, writer.szFile);
            EXPECT_EQ(writer.remove(path.c_str(), "user-1"), -1);
            ExpectSlot(0x0900, writer.szFile);
        }
    }
    EXPECT_EQ(Read(), kTwoSections);
}

TEST_F(SectionFile, ManyWritersAtOnceLoseNothingAndAddNothingTwiceThoughSomeAreKilled)
{
    constexpr int kProcesses = 8;
    constexpr int kRounds = 50;
    Write("# foreign\n[foreign]\nk=v\n");
    const auto store = [&](const std::string &name, int value) {
        const Pairs pairs = {{"value", std::to_string(value)}, {"by", std::to_string(::getpid())}};
        const int set = Set(name.c_str(), pairs);
        return set == 0 ? Add(name.c_str(), pairs) >= 0 : set == 1;
    };
    std::vector<std::unique_ptr<Child>> writers;
    for (int writer = 0; writer < kProcesses; ++writer) {
        writers.push_back(std::make_unique<Child>([&, writer] {
            for (int round = 0; round < kRounds; ++round) {
                const std::string own = std::to_string(writer) + "-" + std::to_string(round % 5);
                if (!store(own, round) || !store("shared", round)) return 2;
            }
            return 0;
        }));
    }
    std::mt19937 random(20);
    for (int kill = 0; kill < 40; ++kill) {
        Child victim([&] {
            for (int round = 0; store("shared", round); ++round) {
            }
            return 2;
        });
        ::usleep(static_cast<useconds_t>(random() % 4'000));
        victim.Signal(SIGKILL);
        EXPECT_EQ(victim.Wait(), 128 + SIGKILL);
    }
    for (const auto &writer : writers)
        EXPECT_EQ(writer->Wait(), 0);

    const std::string file = Read();
    EXPECT_EQ(std::count(file.begin(), file.end(), '['), kProcesses * 5 + 2);
    EXPECT_EQ(file.find("# foreign\n[foreign]\nk=v\n"), 0u);
    for (int section = 0; section < kProcesses * 5; ++section) {
        const std::string name = std::to_string(section / 5) + "-" + std::to_string(section % 5);
        SCOPED_TRACE(name);
        Hash hash;
        EXPECT_EQ(VLIBCFileGetSection(Path(), name.c_str(), hash.address()), 1);
        EXPECT_EQ(hash["value"], std::to_string(kRounds - 5 + section % 5));
    }
}

// A process that holds the write lock on the file, and says so.
std::unique_ptr<Child> LockHolder(const char *szPath)
{
    int ready[2];
    if (::pipe(ready) < 0) std::abort();
    auto holder = std::make_unique<Child>([&] {
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        const int fd = ::open(szPath, O_RDWR);
        if (::fcntl(fd, F_OFD_SETLK, &lock) < 0 || ::write(ready[1], "r", 1) != 1) return 2;
        return ::pause();
    });
    char byte;
    EXPECT_EQ(::read(ready[0], &byte, 1), 1);
    ::close(ready[0]);
    ::close(ready[1]);
    return holder;
}

TEST_F(SectionFile, AWriterWaitsForTheLockWhichDiesWithItsHolderAndTakesAReplacedFilesSuccessor)
{
    for (const bool isReplaced : {false, true}) {
        Write("[user-1]\nk=1\n");
        const auto holder = LockHolder(Path());
        Child writer([&] { return Set("user-1", {{"x", "9"}}) == 1 ? 0 : 2; });
        ::usleep(100'000);
        EXPECT_EQ(Read(), "[user-1]\nk=1\n");
        if (isReplaced) {
            etc.Write("next", "[user-1]\nk=1\n[user-9]\n");
            ASSERT_EQ(::rename(etc.Path("next"), Path()), 0);
        }
        holder->Signal(SIGKILL);
        EXPECT_EQ(writer.Wait(), 0);
        EXPECT_EQ(Read(), isReplaced ? "[user-1]\nx=9\n[user-9]\n" : "[user-1]\nx=9\n");
    }
}

TEST_F(SectionFile, AReadersLockKeepsNobodyWaiting)
{
    Write(kTwoSections);
    const int fd = ::open(Path(), O_RDONLY);
    ASSERT_EQ(::flock(fd, LOCK_EX), 0);
    EXPECT_EQ(Set("user-1", {{"x", "9"}}), 1);
    ::close(fd);
}

// ---- listings: an enumeration and the reads that follow it ----

constexpr int kOpensOfOneRead = 2; // the directory and the file

class Listing : public SectionFile {
protected:
    // The value of the key k in a section, or what became of the read.
    std::string Get(const char *szSection) { return GetFrom(Path(), szSection); }
    static std::string GetFrom(const char *szPath, const char *szSection)
    {
        Hash hash;
        const int found = VLIBCFileGetSection(szPath, szSection, hash.address());
        return found == 1 ? hash["k"] : found == 0 ? "(no section)" : "(failed)";
    }
    // Runs an action while a list of the names lives.
    void WithNames(const std::function<void(VLIB_SZ_LIST *&)> &action)
    {
        VLIB_SZ_LIST *pNames = VLIBCSzListAlloc(0);
        EXPECT_EQ(VLIBCFileEnumSection(Path(), &pNames), 3);
        action(pNames);
        VLIBCSzListFree(pNames);
    }
    static int Opens() { return standins::Count(Call::Open); }
    static int Descriptors()
    {
        return static_cast<int>(
            std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
    }
    void Replace(const char *szText)
    {
        etc.Write("next", szText);
        EXPECT_EQ(::rename(etc.Path("next"), Path()), 0);
    }

    static constexpr char kThree[] = "[a]\nk=1\n[b]\nk=2\n[\"c\\n\"]\nk=3\n[a]\nk=4\n";
    static constexpr char kNew[] = "[a]\nk=5\n[b]\nk=6\n[\"c\\n\"]\nk=7\n";
};

TEST_F(Listing, OpensItsFileOnceAndHoldsNoDescriptor)
{
    Write(kThree);
    const int descriptors = Descriptors();
    const int opens = Opens();
    WithNames([&](VLIB_SZ_LIST *&) {
        for (const char *const szSection : {"a", "b", "c\n"})
            EXPECT_EQ(Get(szSection), szSection[0] == 'a' ? "1" : szSection[0] == 'b' ? "2" : "3");
        EXPECT_EQ(Opens() - opens, kOpensOfOneRead);
        EXPECT_EQ(Descriptors(), descriptors);
    });
}

TEST_F(Listing, NamesThatStandSeveralTimesAreListedOnceWhereTheyStandFirst)
{
    Write(
        "k=[x]\n[b]\nk=1\n[\"\"]\nk=2\n[a]\n;[d]\n [e]\n[b]\nk=3\n[\"\"]\n[\"a\"]\nk=4\n[c]\n[b]");
    EXPECT_THAT(Names(), ElementsAre("b", "", "a", "c"));
    VLIB_SZ_LIST *pNames = VLIBCSzListAlloc(0);
    EXPECT_EQ(VLIBCFileEnumSection(Path(), &pNames), 4);
    for (const char *const szSection : {"b", "", "a", "c"}) {
        const int opens = Opens();
        const std::string listed = Get(szSection);
        EXPECT_EQ(Opens(), opens);
        std::thread([&] { EXPECT_EQ(Get(szSection), listed) << "read by itself"; }).join();
    }
    VLIBCSzListFree(pNames);
}

TEST_F(Listing, EndsWithWhateverElseTheThreadDoesToSectionFiles)
{
    etc.Write("other", "[b]\nk=other\n");
    const struct {
        const char *szWhat;
        std::function<void(VLIB_SZ_LIST *&)> action;
        const char *szB;
    } rows[] = {
        {"nothing else", [](VLIB_SZ_LIST *&) {}, "2"},
        {"the names freed",
         [](VLIB_SZ_LIST *&pNames) {
             VLIBCSzListFree(pNames);
             pNames = nullptr;
         },
         "6"},
        {"another list freed", [](VLIB_SZ_LIST *&) { VLIBCSzListFree(VLIBCSzListAlloc(0)); }, "2"},
        {"a question for the file", [&](VLIB_SZ_LIST *&) { VLIBCFileExist(Path()); }, "6"},
        {"a section out of order", [&](VLIB_SZ_LIST *&) { EXPECT_EQ(Get("c\n"), "7"); }, "6"},
        {"the same section again", [&](VLIB_SZ_LIST *&) { EXPECT_EQ(Get("a"), "5"); }, "6"},
        {"a section of another file",
         [&](VLIB_SZ_LIST *&) { EXPECT_EQ(GetFrom(etc.Path("other"), "b"), "other"); }, "6"},
        {"a failed enumeration",
         [](VLIB_SZ_LIST *&pNames) { EXPECT_EQ(VLIBCFileEnumSection("/tmp/none", &pNames), -1); },
         "6"},
        {"a write",
         [&](VLIB_SZ_LIST *&) {
             EXPECT_EQ(Set("b", {{"k", "8"}}), 1);
         },
         "8"},
        {"a removal", [&](VLIB_SZ_LIST *&) { EXPECT_EQ(VLIBCFileRemoveSection(Path(), "b"), 1); },
         "(no section)"},
        {"another thread's reads",
         [&](VLIB_SZ_LIST *&) { std::thread([&] { EXPECT_EQ(Get("b"), "6"); }).join(); }, "2"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.szWhat);
        Write(kThree);
        WithNames([&](VLIB_SZ_LIST *&pNames) {
            EXPECT_EQ(Get("a"), "1");
            Replace(kNew);
            row.action(pNames);
            EXPECT_EQ(Get("b"), row.szB);
        });
    }
}

TEST_F(Listing, SeesWhatWasChangedBeforeItsFirstRead)
{
    const struct {
        const char *szWhat;
        std::function<void()> change;
        const char *szA;
        const char *szB;
    } rows[] = {
        {"replaced by one of the same length",
         [&] { Replace("[b]\nk=6\n[a]\nk=5\n[\"c\\n\"]\n[a]\nk=\n#\n"); }, "5", "6"},
        {"appended", [&] { std::ofstream(Path(), std::ios::app) << "k=9\n[d]\n"; }, "1", "2"},
        {"changed in place, to the same length",
         [&] {
             ::usleep(20'000); // time stamps have to be able to show it
             Write("[a]\nk=5\n[b]\nk=6\n[\"c\\n\"]\nk=3\n[a]\nk=4\n");
         },
         "5", "6"},
        {"a section removed by another process",
         [&] {
             Child remover([&] { return VLIBCFileRemoveSection(Path(), "a"); });
             EXPECT_EQ(remover.Wait(), 1);
         },
         "(no section)", "2"},
        {"deleted", [&] { ::unlink(Path()); }, "(failed)", "(failed)"},
        {"replaced by a link",
         [&] {
             etc.Write("next", kThree);
             ::unlink(Path());
             EXPECT_EQ(::symlink("next", Path()), 0);
         },
         "(failed)", "(failed)"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.szWhat);
        etc.Make();
        Write(kThree);
        WithNames([&](VLIB_SZ_LIST *&) {
            row.change();
            EXPECT_EQ(Get("a"), row.szA);
            EXPECT_EQ(Get("b"), row.szB);
        });
        if (std::string_view(row.szA) == "(failed)") ExpectSlot(0x0900, kThisFile);
    }
}

TEST_F(Listing, EndsWithItsThreadAndMayGoOnInAForkedChild)
{
    Write(kThree);
    WithNames([&](VLIB_SZ_LIST *&) {
        Child child([&] {
            Replace(kNew);
            return Get("a") == "5" && Get("b") == "6" ? 0 : 2;
        });
        EXPECT_EQ(child.Wait(), 0);
        EXPECT_EQ(Get("a"), "5");
    });
    pthread_attr_t small; // the host's threads may have little stack
    ::pthread_attr_init(&small);
    ::pthread_attr_setstacksize(&small, 64 << 10);
    std::function<void()> body = [&] {
        Names();
        EXPECT_EQ(Get("a"), "5");
    };
    const auto run = [](void *pBody) -> void * {
        (*static_cast<std::function<void()> *>(pBody))();
        return nullptr;
    };
    pthread_t thread;
    ASSERT_EQ(::pthread_create(&thread, &small, run, &body), 0);
    ::pthread_join(thread, nullptr);
}

TEST_F(Listing, SectionsWithDifferentKeysAreReadAsTheyStand)
{
    Write(
        "[a]\nk=1\nlong=x\nz=2\n[b]\nk=\"q\"\nlong = y \nz=3\nk=4\n"
        "[c]\nlong=1\n\nk\nk=5=6\n; z=1\nz=\n[d]\n\"a=b\"=1\nk=2\n[e]\na=b=1\nk=3\n[f]\nk=1\nk=2");
    Hash hash;
    const auto texts = [&](const char *szSection) {
        EXPECT_EQ(VLIBCHashRemoveAll(hash.get()), 0);
        EXPECT_EQ(VLIBCFileGetSection(Path(), szSection, hash.address()), 1);
        return hash["k"] + "|" + hash["long"] + "|" + hash["z"] + "|" + hash["a=b"] + "|" +
               hash["a"];
    };
    const std::string none = "|(absent)";
    EXPECT_EQ(texts("a"), "1|x|2" + none + none);
    EXPECT_EQ(texts("b"), "4|y|3" + none + none);
    EXPECT_EQ(texts("c"), "5=6|1|" + none + none);
    EXPECT_EQ(texts("d"), "2" + none + none + "|1" + none);
    EXPECT_EQ(texts("e"), "3" + none + none + none + "|b=1");
    EXPECT_EQ(texts("f"), "2" + none + none + none + none);
}

TEST_F(SectionFile, TheStreamWriterWritesInOrderAndTellsAFullDisk)
{
    const Hash hash({{"b", "1"}, {"a", "2"}, {"b", "3"}});
    EXPECT_EQ(hash.Text(), "[s]\nb=3\na=2\n");
    FILE *const pFull = std::fopen("/dev/full", "w");
    ASSERT_NE(pFull, nullptr);
    std::setvbuf(pFull, nullptr, _IONBF, 0);
    EXPECT_EQ(VLIBCFileHash2File(pFull, "4711-1", hash.get(), 0), -1);
    EXPECT_EQ(errno, ENOSPC);
    ExpectSlot(0x0B00, kThisFile);
    std::fclose(pFull);
}

// A block of bytes at a time must find what one byte after the other would.
TEST(Scan, FindsTheWordsThatAreThere)
{
    std::mt19937 random(20);
    const auto below = [&](unsigned limit) { return static_cast<std::size_t>(random() % limit); };
    for (int round = 0; round < 20'000; ++round) {
        const std::size_t cb = below(300);
        const char *const szLetters = round % 2 == 0 ? "1-\n" : "0123456789abcdef-\n";
        std::string text;
        while (text.size() < cb)
            text += szLetters[below(static_cast<unsigned>(std::strlen(szLetters)))];
        std::string word = round % 3 == 0 ? "11-1" : "1-";
        if (round % 5 == 0 && cb > 0) word = text.substr(below(static_cast<unsigned>(cb)), 9);
        EXPECT_EQ(zevo::FindWord(text, word), text.find(word)) << text << " has " << word;
    }
}

TEST_F(SectionFile, MissingArgumentsAreRefused)
{
    Hash hash;
    VLIB_SZ_HASH *pNone = nullptr;
    EXPECT_EQ(VLIBCFileGetSection(Path(), "a", &pNone), -1);
    EXPECT_EQ(VLIBCFileSetSection(Path(), nullptr, nullptr, hash.get(), 0), -1);
    EXPECT_EQ(VLIBCFileAddSection(Path(), "a", nullptr, 0), -1);
    EXPECT_EQ(VLIBCFileRemoveSection(nullptr, "a"), -1);
    EXPECT_EQ(VLIBCFileEnumSection(Path(), nullptr), -1);
    EXPECT_EQ(VLIBCFileHash2File(nullptr, "a", hash.get(), 0), -1);
    ExpectSlot(0x0D00, kThisFile);
    EXPECT_EQ(VLIBCIFileIsSection(nullptr, 3), 0);
    EXPECT_EQ(VLIBCIFileMatchSection("[a]", 3, nullptr), 0);
}

} // namespace

// Texts of every byte as names, keys and values of sections, and status files cut off at every byte:
// what is written comes back equal and nothing else does, and a cut costs no section but the one that
// it goes through.
#include "row.hpp"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>

#include "zevobandwidth.h"
#include "zevocore.h"

using namespace torture;

namespace {

constexpr char kDirectory[] = "/tmp/bandwidth";
constexpr std::uint32_t kAlice = 2001;
constexpr std::size_t kLong = 4095;

std::string Shown(std::string_view text)
{
    std::string shown;
    for (const char byte : text.substr(0, 8)) {
        char hex[8];
        std::snprintf(hex, sizeof(hex), "\\x%02X", static_cast<unsigned char>(byte));
        shown += hex;
    }
    return shown + " of " + std::to_string(text.size()) + " bytes";
}

// ---- every byte ----

std::vector<std::string> EveryText()
{
    constexpr std::string_view kSpecial = "\n\r\t []=\"\\;#'\x01\x1B\x7F\x80\x9B\xC3\xE2\xFFxnr0az";
    std::vector<std::string> texts;
    for (int byte = 1; byte < 256; ++byte) {
        const char it = static_cast<char>(byte);
        texts.insert(texts.end(), {{it}, {it, 'a', 'z'}, {'a', it, 'z'}, {'a', 'z', it}});
        texts.emplace_back(kLong, it);
    }
    for (const char first : kSpecial) {
        for (const char second : kSpecial)
            texts.insert(texts.end(), {{first, second}, {'a', first, second, 'z'}});
    }
    return texts;
}

class Hash {
public:
    Hash() : pHash_(VLIBCSzHashAlloc(0))
    {
        if (pHash_ == nullptr) Die("no memory");
    }
    ~Hash() { VLIBCSzHashFree(pHash_); }
    Hash(const Hash &) = delete;
    Hash &operator=(const Hash &) = delete;

    void Set(const std::string &key, const std::string &value)
    {
        if (VLIBCSzHashSetValue(&pHash_, key.c_str(), value.c_str()) < 0) Die("no memory");
    }
    bool Holds(const std::string &key, const std::string &value) const
    {
        const char *const szValue = VLIBCSzHashGetValue(pHash_, key.c_str());
        return szValue != nullptr && value == szValue;
    }
    VLIB_SZ_HASH *get() const { return pHash_; }
    VLIB_SZ_HASH **address() { return &pHash_; }

private:
    VLIB_SZ_HASH *pHash_;
};

std::vector<std::string> Names(const std::string &path)
{
    VLIB_SZ_LIST *pList = VLIBCSzListAlloc(0);
    if (pList == nullptr || VLIBCFileEnumSection(path.c_str(), &pList) < 0) Die("cannot list");
    std::vector<std::string> names;
    for (int i = 0; i < pList->nItem; ++i)
        names.emplace_back(VLIBCSzListGet(pList, i));
    VLIBCSzListFree(pList);
    return names;
}

struct Writer {
    const char *szName;
    int (*add)(const char *, const char *, const VLIB_SZ_HASH *);
    int (*set)(const char *, const char *, const VLIB_SZ_HASH *);
    int (*remove)(const char *, const char *);
};

constexpr Writer kWriters[] = {
    {"rule files",
     [](const char *szPath, const char *szSection, const VLIB_SZ_HASH *pHash) {
         return VLIBCFileAddSection(szPath, szSection, pHash, 0) == 0 ? 1 : -1;
     },
     [](const char *szPath, const char *szSection, const VLIB_SZ_HASH *pHash) {
         return VLIBCFileSetSection(szPath, szSection, nullptr, pHash, 0);
     },
     VLIBCFileRemoveSection},
    {"status files", ZEVOBandwidthStatusAddSection, ZEVOBandwidthStatusSetSection,
     ZEVOBandwidthStatusRemoveSection},
};

// The text as the name of a section, as a key beside another, and as both values.
void TryText(Row &row, const Writer &writer, const std::string &text, const std::string &path)
{
    const std::string before = "# by hand\n[before]\nk=v\n";
    const char *const szText = text.c_str();
    const std::string other = text + "a";
    WriteFile(path, before);
    row.Try();
    const auto violate = [&](const char *szWhat) {
        row.Violate("%s: %s %s", writer.szName, Shown(text).c_str(), szWhat);
    };
    Hash added;
    added.Set(text, "1");
    if (writer.add(path.c_str(), szText, added.get()) != 1) return violate("cannot be added");
    Hash set;
    set.Set(text, text);
    set.Set(other, text);
    if (writer.set(path.c_str(), szText, set.get()) != 1) return violate("is not found again");
    if (Names(path) != std::vector<std::string>{"before", text}) violate("is listed otherwise");
    Hash got;
    if (VLIBCFileGetSection(path.c_str(), szText, got.address()) != 1) violate("cannot be read");
    if (!got.Holds(text, text) || !got.Holds(other, text)) violate("comes back changed");
    const std::string file = ReadFile(path);
    if (file.compare(0, before.size(), before) != 0) violate("changes what stands before it");
    const std::string own = file.substr(file.find('[', before.size()));
    if (std::count(own.begin(), own.end(), '\n') != 3) violate("does not lie on one line");
    if (writer.remove(path.c_str(), szText) != 1 ||
        Names(path) != std::vector<std::string>{"before"})
        violate("cannot be removed");
}

void TryEveryText(Row &row)
{
    const Directory directory("/tmp");
    for (const Writer &writer : kWriters) {
        for (const std::string &text : EveryText())
            TryText(row, writer, text, directory.path() + "/file");
    }
}

// ---- every prefix ----

constexpr int kSections = 5;
constexpr int kFirstPid = 4701;
constexpr int kNewPid = 4800;

void Save(int pid)
{
    ZEVO_BANDWIDTH_STATUS status = {};
    status.pid = pid;
    status.id = status.uid = kAlice;
    status.active = 1;
    status.timestamp = std::time(nullptr) + 86'400; // however long this takes
    status.current_speed = 123'456;
    status.expect_speed = 125'000;
    status.owner_type = ZEVO_BW_OWNER_USER;
    status.protocol_type = ZEVO_BW_PROTOCOL_FTP;
    status.transfer_type = ZEVO_BW_TRANSFER_UPLOAD;
    status.progress = 4'200;
    std::snprintf(status.filename, sizeof(status.filename), "/volume1/[%d-1]\n[%d-1]", pid,
                  pid + 1);
    if (ZEVOBandwidthStatusSave(kAlice, nullptr, &status) < 0) Die("cannot save a transfer");
}

std::vector<int> Listed(Row &row, std::size_t cb)
{
    ZEVO_BANDWIDTH_STATUS *pList = nullptr;
    if (ZEVOBandwidthStatusGetAll(ZEVO_BW_OWNER_USER, kAlice, ZEVO_BW_PROTOCOL_ALL,
                                  ZEVO_BW_TRANSFER_ALL, &pList) < 0)
        row.Violate("cut off at byte %zu: cannot be listed", cb);
    std::vector<int> pids;
    for (const ZEVO_BANDWIDTH_STATUS *p = pList; p != nullptr; p = p->next) {
        if (p->expect_speed != 125'000 || p->uid != kAlice)
            row.Violate("cut off at byte %zu: %d is listed with other numbers", cb, p->pid);
        pids.push_back(p->pid);
    }
    ZEVOBandwidthStatusListFree(&pList);
    std::sort(pids.begin(), pids.end());
    return pids;
}

// A section that lacks nothing but its last line end is whole.
void TryPrefix(Row &row, const std::string &path, const std::string &prefix,
               const std::vector<std::size_t> &ends)
{
    std::vector<int> whole;
    for (int i = 0; i < kSections; ++i)
        if (prefix.size() + 1 >= ends[static_cast<std::size_t>(i)]) whole.push_back(kFirstPid + i);
    const auto check = [&](const char *szWhen) {
        if (Listed(row, prefix.size()) != whole)
            row.Violate("cut off at byte %zu: others are listed %s", prefix.size(), szWhen);
    };
    row.Try();
    WriteFile(path, prefix);
    Save(kNewPid); // while the torn one is still there
    whole.push_back(kNewPid);
    check("behind an append");
    whole.pop_back();
    WriteFile(path, prefix);
    check("at once");
    Save(kNewPid);
    whole.push_back(kNewPid);
    check("after that and an append");
}

void TryEveryPrefix(Row &row)
{
    ::mkdir(kDirectory, 0777);
    const std::string path = kDirectory + std::string("/user-") + std::to_string(kAlice);
    WriteFile(path, "");
    std::vector<std::size_t> ends;
    for (int i = 0; i < kSections; ++i) {
        Save(kFirstPid + i);
        ends.push_back(ReadFile(path).size());
    }
    const std::string text = ReadFile(path);
    for (std::size_t cb = 0; cb <= text.size(); ++cb)
        TryPrefix(row, path, text.substr(0, cb), ends);
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = ParseOptions(argc, argv);
    Table table(options.seed);
    TryEveryText(table.Add("texts of every byte as names, keys and values"));
    TryEveryPrefix(table.Add("prefixes of a status file of five sections"));
    return table.Print();
}

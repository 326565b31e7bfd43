// Section files: any bytes at all are a file. The listing, the reads by name and the two questions about
// a single line must agree on which sections there are; and the writers hold what they promise: every
// byte that is not the section's own stays, comments included, and what was written comes back equal.
// What the converters have read of any section survives the way back.
//
// Input: a letter for the writer and the section's name; "key=value" lines up to an empty one; the
// file as it is before.
#include "fuzz.hpp"

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>

#include "zevobandwidth.h"

using namespace fuzz;

namespace {

// The lines that are not of that section, and the comments in it.
std::string Foreign(std::string_view text, const std::string &section)
{
    std::string foreign;
    bool inside = false;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n')); // as the reader takes it
        const std::size_t cbWhole = std::min(line.size() + 1, text.size());
        const int cbLine = static_cast<int>(line.size());
        if (VLIBCIFileIsSection(line.data(), cbLine) != 0)
            inside = VLIBCIFileMatchSection(line.data(), cbLine, section.c_str()) == 1;
        const bool isComment = !line.empty() && (line.front() == ';' || line.front() == '#');
        if (!inside || isComment) foreign += text.substr(0, cbWhole);
        text.remove_prefix(cbWhole);
    }
    return foreign;
}

void RequireAgreement(const File &file, std::string_view text)
{
    const std::vector<std::string> names = Sections(file);
    std::set<std::string> left(names.begin(), names.end());
    Require(left.size() == names.size(), "no section is listed twice");
    for (const std::string &name : names) {
        Hash hash;
        Require(VLIBCFileGetSection(file.path(), name.c_str(), hash.address()) == 1,
                "a listed section can be read");
    }
    while (!text.empty()) {
        const std::string_view line = CutLine(text);
        const int cbLine = static_cast<int>(line.size());
        const auto match = std::find_if(names.begin(), names.end(), [&](const std::string &name) {
            return VLIBCIFileMatchSection(line.data(), cbLine, name.c_str()) == 1;
        });
        Require((VLIBCIFileIsSection(line.data(), cbLine) != 0) == (match != names.end()),
                "a header names one of the listed sections");
        if (match != names.end()) left.erase(*match);
    }
    Require(left.empty(), "each listed section has a header");
}

bool Has(const File &file, const std::string &section)
{
    const std::vector<std::string> names = Sections(file);
    return std::find(names.begin(), names.end(), section) != names.end();
}

void RequireSection(const File &file, const std::string &section,
                    const std::map<std::string, std::string> &pairs)
{
    Hash read;
    Require(VLIBCFileGetSection(file.path(), section.c_str(), read.address()) == 1,
            "a written section can be read");
    for (const auto &[key, value] : pairs) {
        const char *const szValue = VLIBCSzHashGetValue(read.get(), key.c_str());
        Require(szValue != nullptr && value == szValue, "a written pair comes back equal");
    }
}

template <class Record>
void Convert(const Hash &section, int (*pRead)(Record *, const VLIB_SZ_HASH *) noexcept,
             int (*pWrite)(VLIB_SZ_HASH **, const Record *) noexcept)
{
    const auto pRecord = std::make_unique<Record>();
    std::memset(static_cast<void *>(pRecord.get()), 0, sizeof(Record)); // and between fields
    const auto pAgain = std::make_unique<Record>();
    std::memset(static_cast<void *>(pAgain.get()), 0, sizeof(Record));
    if (pRead(pRecord.get(), section.get()) < 0) return;
    Hash hash;
    Require(pWrite(hash.address(), pRecord.get()) == 0, "a record that was read can be written");
    Require(pRead(pAgain.get(), hash.get()) == 0, "what was written can be read");
    Hash rewritten;
    Require(pWrite(rewritten.address(), pAgain.get()) == 0, "and written again");
    // Zeroed before, so that the bytes between the members are equal, too.
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
    Require(std::memcmp(pRecord.get(), pAgain.get(), sizeof(Record)) == 0,
            "a record survives the way through a section");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pBytes, std::size_t cb)
{
    static const File file("/tmp/fuzz/section");
    std::string_view text = Text(pBytes, cb);
    std::string section = CString(CutLine(text));
    if (section.empty()) return 0;
    const char writer = section.front();
    section.erase(0, 1);
    Hash hash;
    const auto pairs = CutPairs(text, hash);
    Convert(hash, ZEVOBandwidthInitConfFromHash, ZEVOBandwidthInitHashFromConf);
    Convert(hash, ZEVOBandwidthInitGlobalConfFromHash, ZEVOBandwidthInitHashFromGlobalConf);
    Convert(hash, ZEVOBandwidthInitStatusFromHash, ZEVOBandwidthInitHashFromStatus);
    file.Write(text);
    RequireAgreement(file, text);
    const bool wasThere = Has(file, section);
    Hash read;
    Require(VLIBCFileGetSection(file.path(), section.c_str(), read.address()) == (wasThere ? 1 : 0),
            "a section is there exactly when it is listed");
    const std::string before = Foreign(text, section);
    const auto require_foreign_kept = [&] {
        Require(Foreign(file.Read(), section) == before, "foreign bytes stay as they are");
    };
    const char *const szSection = section.c_str();

    switch (writer) {
    case 's': // a transfer's section is replaced
        Require(ZEVOBandwidthStatusSetSection(file.path(), szSection, hash.get()) ==
                    (wasThere ? 1 : 0),
                "a section is replaced exactly when it is there");
        require_foreign_kept();
        if (wasThere) RequireSection(file, section, pairs);
        break;
    case 'r':
        Require(ZEVOBandwidthStatusRemoveSection(file.path(), szSection) == (wasThere ? 1 : 0),
                "a section is removed exactly when it is there");
        require_foreign_kept();
        Require(!Has(file, section), "a removed section is gone");
        break;
    case 'a': {
        const int added = ZEVOBandwidthStatusAddSection(file.path(), szSection, hash.get());
        Require(added == (wasThere ? 0 : 1), "a section is appended unless it is there");
        const std::string now = file.Read();
        Require(now.starts_with(text), "an append leaves what is there");
        if (!wasThere) RequireSection(file, section, pairs);
        break;
    }
    case 'R': // a rule is stored as the rule store does it
        if (VLIBCFileSetSection(file.path(), szSection, nullptr, hash.get(), 0) == 0)
            Require(!wasThere && VLIBCFileAddSection(file.path(), szSection, hash.get(), 0) >= 0,
                    "a section is added when it was not there");
        RequireSection(file, section, pairs);
        break;
    default: // a listing's purge
        Require(VLIBCFileRemoveSection(file.path(), szSection) >= 0, "a purge does not fail");
        require_foreign_kept();
        Require(!Has(file, section), "a purged section is gone");
    }
    return 0;
}

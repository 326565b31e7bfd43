// The reader of section files: any bytes at all are a file. The listing, the reads by name and the
// two questions about a single line must agree on which sections there are.
#include "fuzz.hpp"

#include <algorithm>
#include <set>

using namespace fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pBytes, std::size_t cb)
{
    static const File file("/tmp/fuzz/section");
    const std::string_view text = Text(pBytes, cb);
    file.Write(text);
    const std::vector<std::string> names = Sections(file);
    Require(std::set(names.begin(), names.end()).size() == names.size(),
            "no section is listed twice");
    for (const std::string &name : names) {
        Hash hash;
        Require(VLIBCFileGetSection(file.path(), name.c_str(), hash.address()) == 1,
                "a listed section can be read");
    }
    std::set<std::string> found;
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view line = CutLine(rest);
        const int cbLine = static_cast<int>(line.size());
        const bool isHeader = VLIBCIFileIsSection(line.data(), cbLine) != 0;
        const auto names_it = [&](const std::string &name) {
            return VLIBCIFileMatchSection(line.data(), cbLine, name.c_str()) == 1;
        };
        const auto match = std::find_if(names.begin(), names.end(), names_it);
        Require(isHeader == (match != names.end()), "a header names one of the listed sections");
        if (isHeader) found.insert(*match);
    }
    Require(found.size() == names.size(), "each listed section has a header");
    Hash hash;
    const bool isListed = std::find(names.begin(), names.end(), "4711-1") != names.end();
    Require(VLIBCFileGetSection(file.path(), "4711-1", hash.address()) == (isListed ? 1 : 0),
            "a section is there exactly when it is listed");
    return 0;
}

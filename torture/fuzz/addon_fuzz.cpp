// Names and numbers of add-on protocols, as files in the add-on directory announce them and strangers
// write them into status files. Input: the name of a file, then names and numbers to look up, line by
// line.
#include "fuzz.hpp"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <unistd.h>

#include "zevobandwidth.h"

using namespace fuzz;

namespace {

constexpr char kDirectory[] = "/usr/zevo/etc/bandwidth/addon/";

void LookUp(const std::string &line)
{
    char guarded[64 + 1];
    guarded[64] = 'x';
    static_cast<void>(ZEVOBandwidthEnumToValue(ZEVO_BW_PROTOCOL_TYPE_LIST, line.c_str()));
    const auto number = static_cast<std::int32_t>(std::strtol(line.c_str(), nullptr, 10));
    guarded[0] = '\0';
    if (ZEVOBandwidthEnumToName(ZEVO_BW_PROTOCOL_TYPE_LIST, number, guarded, 64) == 1)
        Require(std::memchr(guarded, '\0', 64) != nullptr, "a name ends within its buffer");
    Require(guarded[64] == 'x', "nothing is written behind the buffer");
    char path[PATH_MAX];
    if (ZEVOBandwidthGetAddonConfigPath(number, path, sizeof path) == 0)
        Require(std::strncmp(path, kDirectory, sizeof kDirectory - 1) == 0 &&
                    std::strstr(path, "/../") == nullptr,
                "a path stays in the add-on directory");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pBytes, std::size_t cb)
{
    static const bool made = std::filesystem::create_directories(kDirectory);
    static_cast<void>(made);
    std::string_view text = Text(pBytes, cb);
    const std::string name = CString(CutLine(text));
    const bool isName = !name.empty() && name.find('/') == name.npos && name != "." && name != "..";
    const std::string file = kDirectory + name;
    if (isName) static_cast<void>(std::ofstream(file));
    for (int lines = 0; !text.empty() && lines < 16; ++lines)
        LookUp(CString(CutLine(text)));
    if (isName) static_cast<void>(::unlink(file.c_str())); // not every name can be one
    return 0;
}

// The import: any text is either refused, with a line of it named, or is a configuration whose own
// text reads as the same one.
#include "fuzz.hpp"

#include "model/config_json.hpp"

using namespace fuzz;
using namespace tool;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pBytes, std::size_t cb)
{
    const Configuration first = ConfigFromText(Text(pBytes, cb));
    for (const Remark &fault : first.faults)
        Require(fault.line > 0 && !fault.text.empty(), "a fault names its line");
    if (!first.faults.empty()) return 0;
    const std::string text = ConfigToText(first.settings).text;
    const Configuration second = ConfigFromText(text);
    Require(second.faults.empty(), "an export can be imported");
    Require(ConfigToText(second.settings).text == text, "an import exports as the same text");
    return 0;
}

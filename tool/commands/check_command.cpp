// "check": finds faults in the files of limits and transfers, says what to do, and repairs some.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "check/files.hpp"
#include "command.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

std::string PlaceOf(const Finding &finding)
{
    return finding.file + (finding.line == 0 ? "" : ":" + std::to_string(finding.line));
}

struct CheckArguments {
    bool doesRepair = false;
    bool isDryRun = false;
};

void Repair(std::vector<Finding> &findings)
{
    for (Finding &finding : findings) {
        if (!finding.repair) continue;
        errno = 0;
        finding.isRepaired = finding.repair();
        const int error = errno;
        if (!finding.isRepaired)
            PrintNote("zevobandwidth: " + PlaceOf(finding) +
                      " cannot be repaired: " + std::strerror(error));
    }
}

void PrintText(const std::vector<Finding> &findings, bool isDryRun)
{
    for (const Finding &finding : findings) {
        const Color color = finding.isRepaired ? Color::kGreen
                            : finding.isHint   ? Color::kYellow
                                               : Color::kRed;
        const char *const kind = finding.isRepaired           ? "repaired: "
                                 : isDryRun && finding.repair ? "would be repaired: "
                                 : finding.isHint             ? "hint: "
                                                              : "";
        PrintLine(Paint(Color::kBold, Printable(PlaceOf(finding))) + ": " +
                  Paint(color, kind + Printable(finding.what)));
        if (!finding.isRepaired && !OutputStyle().noLegend)
            PrintLine("    " + Printable(finding.remedy));
    }
}

void PrintAsJson(const std::vector<Finding> &findings)
{
    PrintJson(JsonArray(findings, [](const Finding &finding) -> Json {
        return {{"file", finding.file},
                {"line", finding.line == 0 ? Json(nullptr) : Json(finding.line)},
                {"what", finding.what},
                {"remedy", finding.remedy},
                {"hint", finding.isHint},
                {"repairable", static_cast<bool>(finding.repair)},
                {"repaired", finding.isRepaired}};
    }));
}

void Check(const CheckArguments &arguments)
{
    std::vector<Finding> findings = FindFaults();
    if (arguments.isDryRun)
        PrintNote("dry run: nothing is repaired");
    else if (arguments.doesRepair)
        Repair(findings);
    if (OutputStyle().json)
        PrintAsJson(findings);
    else
        PrintText(findings, arguments.isDryRun);
    const auto left = std::count_if(findings.begin(), findings.end(), [](const Finding &finding) {
        return !finding.isHint && !finding.isRepaired;
    });
    const bool helps =
        !arguments.doesRepair &&
        std::any_of(findings.begin(), findings.end(), [](const Finding &f) { return !!f.repair; });
    if (left != 0)
        throw Failure(kFindings, Counted(static_cast<std::size_t>(left), "finding") +
                                     (helps ? "; 'zevobandwidth check --repair' removes leftovers "
                                              "and sets modes"
                                            : ""));
    if (!OutputStyle().json && !OutputStyle().noLegend && findings.empty())
        PrintLine("nothing found");
}

} // namespace

void AddCheckCommand(CLI::App &app)
{
    const auto [command, arguments] =
        AddCommand(app, "check", "Look for faults in the files of limits and transfers", Check,
                   "Told are sections and lines that nobody reads or that say nothing valid, "
                   "owners and protocols that are gone, add-ons that cannot be used, plans of a "
                   "wrong length, wrong owners and modes, and leftovers of processes that died: "
                   "each with its file, its line and the remedy. A hint is worth knowing, but no "
                   "fault. Exit status 6 when something was found and is not repaired, else 0.\n\n"
                   "Examples:\n"
                   "  zevobandwidth check\n"
                   "  zevobandwidth check --repair --dry-run\n"
                   "  zevobandwidth check --json\n");
    CLI::Option *const repair =
        command.add_flag("--repair", arguments.doesRepair,
                         "Remove leftovers and stale sections and set modes; nothing else");
    AddDryRunFlag(command, arguments.isDryRun)->needs(repair);
    AddOutputOptions(command);
}

} // namespace tool

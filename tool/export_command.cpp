// "export": all rules and policies as one JSON text.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include <zevocore_file.hpp>

#include "command.hpp"
#include "config_json.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

constexpr mode_t kNewFileMode = 0644;

// The file is replaced whole: a backup made once is not lost to a full disk at the next.
void ReplaceFile(const std::string &path, const std::string &text)
{
    const auto fail = [&path](const std::string &why) {
        throw Failure(kFailed, "cannot write " + path + ": " + why + "; the file is as it was");
    };
    const zevo::Place place(path.c_str());
    if (!place) fail(std::strerror(errno));
    struct stat old {};
    const bool exists = ::fstatat(place.dir(), place.name(), &old, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && !S_ISREG(old.st_mode))
        fail("it is no regular file; to write elsewhere redirect standard output");
    zevo::TempFile temp(place);
    const mode_t mode = exists ? old.st_mode & zevo::kPermissionBits : kNewFileMode;
    if (!temp || !temp.Write(text) || !temp.SetMode(mode) || !temp.Sync() || !temp.RenameOver())
        fail(std::strerror(errno));
}

void Export(const std::string &file)
{
    int failures = 0;
    const std::vector<StoredRule> rules = ReadRules(ProtocolsToList(""), failures);
    // An incomplete copy would be found out when it is needed.
    if (failures != 0)
        throw Failure(kFailed, "nothing was exported: " + std::to_string(failures) +
                                   (failures == 1 ? " rule" : " rules") +
                                   " cannot be read; mend them first ('zevobandwidth check')");
    const std::string text = ConfigToText(ReadPolicies(), rules);
    if (file == "-") return PrintLine(text);
    ReplaceFile(file, text + "\n");
}

} // namespace

void AddExportCommand(CLI::App &app)
{
    const auto file = std::make_shared<std::string>("-");
    CLI::App *command = app.add_subcommand("export", "Write all rules and policies as JSON");
    command->add_option("file", *file, "Where to; without it, or with -, to standard output")
        ->type_name("FILE");
    AddOutputOptions(*command);
    command->footer(
        "One line for each policy and each rule: protocols in the order of 'policy list', users\n"
        "before groups, each by name. Owners are written with name and id; with -n, and where the\n"
        "user database does not know them, with the id alone. An existing file is replaced whole.\n"
        "\nExamples:\n"
        "  zevobandwidth export limits.json\n"
        "  zevobandwidth export | ssh other zevobandwidth import\n");
    command->callback([file] { Export(*file); });
}

} // namespace tool

// "import": stores the rules and policies of an exported file. Everything is checked first. If a
// write fails, all files are put back as they were.
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <set>

#include "base/descriptor.hpp"
#include "command.hpp"
#include "model/config_json.hpp"
#include "model/rate.hpp"
#include "model/texts.hpp"
#include "model/whole_file.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

struct ImportArguments {
    std::string file = "-";
    ChangeOptions change;
};

// ---- reading and checking ----

std::string ReadAll(const std::string &file)
{
    const bool isInput = file == "-";
    const zevo::Fd opened(isInput ? -1 : ::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    const auto fail = [&](const std::string &why) {
        throw Failure(kFailed, "cannot read " + (isInput ? "standard input" : file) + ": " + why);
    };
    if (!isInput && !opened) fail(std::strerror(errno));
    const int fd = isInput ? STDIN_FILENO : opened.get();
    std::string text;
    std::string piece(std::size_t{1} << 16, '\0');
    for (;;) {
        const ssize_t count =
            zevo::RetryInterrupted([&] { return ::read(fd, piece.data(), piece.size()); });
        if (count < 0) fail(std::strerror(errno));
        if (count == 0) return text;
        text.append(piece, 0, static_cast<std::size_t>(count));
        if (text.size() > zevo::kMaxFileBytes) fail("it is too large to be a configuration");
    }
}

void PrintRemarks(const std::string &prefix, const std::vector<Remark> &remarks)
{
    std::vector<std::string> lines;
    lines.reserve(remarks.size());
    for (const Remark &remark : remarks)
        lines.push_back("line " + std::to_string(remark.line) + ": " + remark.text);
    PrintNotes(prefix, lines);
}

Configuration ReadConfiguration(const std::string &file)
{
    Configuration configuration = ConfigFromText(ReadAll(file));
    const std::size_t faults = configuration.faults.size();
    PrintRemarks("zevobandwidth: " + (file == "-" ? "" : file + ", "), configuration.faults);
    if (faults != 0)
        throw Failure(kFailed,
                      "nothing was imported: mend the " + Counted(faults, "fault") + " first");
    PrintRemarks("note: ", configuration.notes);
    return configuration;
}

// ---- what would change ----

// "upload 1 MiB/s → 2 MiB/s, plan another"; empty when nothing differs.
std::string Differences(const Setting &old, const Setting &now)
{
    const std::vector<Field> before = Fields(old);
    const std::vector<Field> after = Fields(now);
    std::vector<std::string> differences;
    for (std::size_t i = 0; i < before.size(); ++i) {
        if (before[i].exact == after[i].exact) continue;
        const bool isAlike = before[i].text == after[i].text;
        differences.push_back(std::string(before[i].label) + " " +
                              (isAlike ? "another" : before[i].text + " → " + after[i].text));
    }
    return Joined(differences, ", ");
}

// What an import changes.
class Changes {
public:
    explicit Changes(const std::vector<Setting> &wanted)
    {
        int failures = 0; // reported by ReadSettings(); such a rule is replaced
        std::map<Setting::SettingKey, Setting> stored;
        for (const Setting &setting : ReadSettings(failures))
            stored.emplace(setting.Key(), setting);
        kept_ = static_cast<int>(stored.size()) + failures;
        for (const Setting &setting : wanted) {
            const auto old = stored.find(setting.Key());
            if (old == stored.end()) {
                Note("added", OneLine(setting), nullptr, setting);
                ++added_;
                continue;
            }
            --kept_;
            const std::string differences = Differences(old->second, setting);
            ++(differences.empty() ? unchanged_ : changed_);
            if (!differences.empty())
                Note("changed", NameOf(setting) + ": " + differences, ToJson(old->second), setting);
        }
    }

    void Print(bool isDryRun) const
    {
        if (OutputStyle().json)
            return PrintJson({{"added", added_},
                              {"changed", changed_},
                              {"unchanged", unchanged_},
                              {"kept", kept_},
                              {"differences", differences_}});
        for (const std::string &line : lines_)
            PrintLine(Printable(line));
        if (OutputStyle().noLegend) return;
        PrintLine(std::to_string(added_) + (isDryRun ? " would be added, " : " added, ") +
                  std::to_string(changed_) + " changed; " + std::to_string(unchanged_) +
                  " unchanged; " + std::to_string(kept_) +
                  " stored ones are not in the file and stay");
    }

    const std::vector<Setting> &settings() const { return settings_; }

private:
    void Note(const std::string &change, const std::string &what, const Json &old,
              const Setting &now)
    {
        settings_.push_back(now);
        lines_.push_back(change + ": " + what);
        differences_.push_back({{"change", change}, {"from", old}, {"to", ToJson(now)}});
    }

    std::vector<Setting> settings_; // those to be written
    int added_ = 0;
    int changed_ = 0;
    int unchanged_ = 0;
    int kept_ = 0; // stored, and not in the file
    Json differences_ = Json::array();
    std::vector<std::string> lines_;
};

// ---- writing ----

// Holds interrupts back while it lives. Between two writes ThrowIfPending() looks for one.
class HeldInterrupts {
public:
    HeldInterrupts()
    {
        ::sigemptyset(&held_);
        for (const int signal : kInterrupts) {
            struct sigaction action {};
            ::sigaction(signal, nullptr, &action);
            if (action.sa_handler != SIG_IGN) ::sigaddset(&held_, signal);
        }
        ::sigprocmask(SIG_BLOCK, &held_, &before_);
    }
    ~HeldInterrupts() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }
    HeldInterrupts(const HeldInterrupts &) = delete;
    HeldInterrupts &operator=(const HeldInterrupts &) = delete;

    void ThrowIfPending() const
    {
        sigset_t pending;
        ::sigpending(&pending);
        for (const int signal : kInterrupts)
            if (::sigismember(&held_, signal) == 1 && ::sigismember(&pending, signal) == 1)
                throw Failure(kFailed, "interrupted");
    }

private:
    static constexpr std::array kInterrupts = {SIGINT, SIGTERM, SIGQUIT};

    sigset_t held_;
    sigset_t before_;
};

using Backups = std::vector<std::unique_ptr<FileBackup>>;

Backups BackUp(const Changes &changes)
{
    std::set<std::string> files;
    for (const Setting &setting : changes.settings())
        files.insert(setting.File());
    Backups backups;
    for (const std::string &file : files)
        backups.push_back(std::make_unique<FileBackup>(file));
    return backups;
}

// Reports at once, because a held interrupt ends the process soon.
void PutBack(const Backups &backups, const std::string &why)
{
    std::vector<std::string> lost;
    for (const auto &backup : backups)
        if (!backup->PutBack()) lost.push_back(backup->path() + ": " + std::strerror(errno));
    PrintNote("zevobandwidth: " + why);
    if (!lost.empty())
        throw Failure(kFailed, "the import has failed midway and these files could not be put "
                               "back: " +
                                   Joined(lost, ", "));
    PrintNote("zevobandwidth: the import has failed midway; what was there has been put back, and "
              "nothing is changed");
}

void Write(const Changes &changes)
{
    const HeldInterrupts interrupts;
    const Backups backups = BackUp(changes);
    try {
        for (const Setting &setting : changes.settings()) {
            interrupts.ThrowIfPending();
            if (setting.owner)
                WriteRule(setting.rule);
            else
                WritePolicy(setting.policy);
        }
    } catch (const Failure &failure) {
        PutBack(backups, failure.what());
        throw Failure(failure.status(), "nothing was imported");
    }
}

void Import(const ImportArguments &arguments)
{
    const Changes changes(ReadConfiguration(arguments.file).settings);
    CarryOut(arguments.change, [&changes] { Write(changes); });
    changes.Print(arguments.change.isDryRun);
}

} // namespace

void AddImportCommand(CLI::App &app)
{
    const auto [command, arguments] =
        AddCommand(app, "import", "Take over the rules and policies of an exported file", Import);
    command
        .add_option("file", arguments.file,
                    "Where from; without it, or with -, from standard input")
        ->type_name("FILE")
        ->check(kNotEmpty);
    AddChangeOptions(command, arguments.change);
    AddOutputOptions(command);
    command.footer(
        "Rules and policies of the file are added or replace what is stored; what is stored and\n"
        "not in the file stays. Owners go by their names, so that ids may differ between "
        "machines;\n"
        "an owner that this machine does not know keeps its id, unless that belongs to another one "
        "here.\n"
        "The whole file is checked first: with any fault in it nothing is imported and each is\n"
        "told with its line. When a step fails, what was there before is put back.\n"
        "\nExamples:\n"
        "  zevobandwidth import limits.json --dry-run\n"
        "  zevobandwidth import limits.json\n"
        "  ssh other zevobandwidth export | zevobandwidth import\n");
}

} // namespace tool

// "rule edit": one rule as a text in the administrator's editor. The text lies in a directory of
// its own that nobody else may enter, for editors leave copies beside what they edit; it is kept
// whenever it holds work that could not be stored.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include "base/regular_file.hpp"
#include "base/write_file.hpp"

#include "command.hpp"
#include "commands/rule_command.hpp"
#include "model/rule_form.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

struct EditArguments {
    OwnerOption owner;
    std::string protocol;
    ChangeOptions change;
};

// A text in a file of its own; gone with the object unless it is kept.
class Draft {
public:
    explicit Draft(const std::string &text);
    ~Draft();
    Draft(const Draft &) = delete;
    Draft &operator=(const Draft &) = delete;

    const std::string &path() const { return path_; }
    // Throws Failure when something else lies in its place, and keeps that.
    std::string Read();
    // Returns words that tell where it is.
    std::string Keep();

private:
    void Remove() const;

    std::string directory_;
    std::string path_;
    bool isKept_ = false;
};

Draft::Draft(const std::string &text)
{
    const char *const chosen = std::getenv("TMPDIR");
    directory_ = chosen != nullptr && *chosen != '\0' ? chosen : "/tmp";
    directory_ += "/zevobandwidth.XXXXXX";
    if (::mkdtemp(directory_.data()) == nullptr)
        throw Failure(kFailed, "cannot make a directory for the text in " + directory_ + ": " +
                                   std::strerror(errno) + "; set TMPDIR to another place");
    path_ = directory_ + "/rule.conf";
    const zevo::Place place(path_.c_str());
    const zevo::Fd file =
        zevo::OpenAt(place.dir(), place.name(), O_WRONLY | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR);
    if (file && !zevo::WriteAll(file.get(), text)) return;
    const int error = errno;
    Remove();
    throw Failure(kFailed, "cannot write " + path_ + ": " + std::strerror(error) +
                               "; make room there, or set TMPDIR to another place");
}

Draft::~Draft()
{
    if (!isKept_) Remove();
}

void Draft::Remove() const
{
    std::error_code ignored; // nothing is lost with it
    std::filesystem::remove_all(directory_, ignored);
}

std::string Draft::Read()
{
    const zevo::Place place(path_.c_str());
    const zevo::RegularFile file(place, O_RDONLY);
    zevo::Bytes text;
    if (!file.fault() && !file.ReadWhole(text)) return std::string(text.view());
    const int error = errno;
    isKept_ = true;
    throw Failure(kFailed, "cannot read " + path_ + " again, which must be a regular file: " +
                               std::strerror(error) + "; nothing is changed, and what the editor " +
                               "left is kept in " + directory_);
}

std::string Draft::Keep()
{
    isKept_ = true;
    // An editor may have put another file in its place, readable for others; nobody else gets into
    // the directory.
    const zevo::Place place(path_.c_str());
    if (const zevo::RegularFile file(place, O_RDONLY); !file.fault())
        static_cast<void>(::fchmod(file.get(), S_IRUSR | S_IWUSR));
    return "nothing is changed; the text is kept in " + path_;
}

// What the environment names, as words for a shell: "code --wait" is an editor too.
std::string EditorCommand()
{
    for (const char *const variable : {"VISUAL", "EDITOR"}) {
        const char *const editor = std::getenv(variable);
        if (editor != nullptr && *editor != '\0') return std::string(editor) + " \"$1\"";
    }
    return "if command -v editor >/dev/null; then exec editor \"$1\"; else exec vi \"$1\"; fi";
}

// An interrupt typed while the editor runs is the editor's.
class IgnoredInterrupts {
public:
    IgnoredInterrupts()
        : interrupt_(std::signal(SIGINT, SIG_IGN)), quit_(std::signal(SIGQUIT, SIG_IGN))
    {
    }
    ~IgnoredInterrupts()
    {
        std::signal(SIGINT, interrupt_);
        std::signal(SIGQUIT, quit_);
    }
    IgnoredInterrupts(const IgnoredInterrupts &) = delete;
    IgnoredInterrupts &operator=(const IgnoredInterrupts &) = delete;

private:
    void (*interrupt_)(int);
    void (*quit_)(int);
};

// Returns the wait status, or throws Failure when nothing could be run.
int RunEditor(const std::string &path)
{
    const std::string command = EditorCommand();
    const std::array<const char *, 6> words = {"sh", "-c",         command.c_str(),
                                               "sh", path.c_str(), nullptr};
    const IgnoredInterrupts interrupts;
    posix_spawnattr_t attributes;
    sigset_t defaults; // what this tool ignores must not be ignored by the editor
    ::sigemptyset(&defaults);
    for (const int signal : {SIGINT, SIGQUIT, SIGHUP, SIGXFSZ})
        ::sigaddset(&defaults, signal);
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setsigdefault(&attributes, &defaults);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    pid_t pid = 0;
    const int error = ::posix_spawn(&pid, "/bin/sh", nullptr, &attributes,
                                    const_cast<char *const *>(words.data()), environ);
    ::posix_spawnattr_destroy(&attributes);
    if (error != 0)
        throw Failure(kFailed, std::string("cannot run /bin/sh: ") + std::strerror(error));
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

std::string HowItEnded(int status)
{
    return WIFSIGNALED(status) ? "was killed by signal " + std::to_string(WTERMSIG(status))
                               : "ended with exit status " + std::to_string(WEXITSTATUS(status));
}

// The edited text; throws Failure when the editor failed.
std::string Edit(Draft &draft, const std::string &text)
{
    const int status = RunEditor(draft.path());
    if (status == 0) return draft.Read();
    const bool isTouched = draft.Read() != text;
    throw Failure(kFailed, "the editor " + HowItEnded(status) + ": " +
                               (isTouched ? draft.Keep() : "nothing is changed") +
                               ". VISUAL or EDITOR names the editor to use");
}

bool IsSame(const ZEVO_BANDWIDTH_CONF &a, const ZEVO_BANDWIDTH_CONF &b)
{
    // Both were zeroed before they were filled. NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
    return std::memcmp(&a, &b, sizeof(a)) == 0;
}

void EditRule(const EditArguments &arguments)
{
    const std::int32_t protocol = FindProtocol(arguments.protocol);
    const Owner owner = arguments.owner.FindStored(
        [protocol](const Owner &stored) { return IsStored(stored, protocol); });
    const ZEVO_BANDWIDTH_CONF old = ReadRule(owner, protocol);
    const std::string text = RuleToForm(owner, old);
    Draft draft(text);
    const std::string edited = Edit(draft, text);
    if (edited == text) return PrintNote("The text was left as it is: nothing is changed.");
    try {
        const ZEVO_BANDWIDTH_CONF rule = RuleFromForm(edited, old);
        if (!IsSame(ReadRule(owner, protocol), old))
            throw Failure(kFailed, "somebody else has changed the rule meanwhile");
        StoreRule(owner, rule, arguments.change);
    } catch (const Failure &failure) {
        throw Failure(failure.status(), failure.what() + std::string("; ") + draft.Keep());
    }
}

} // namespace

void AddRuleEdit(CLI::App &rule)
{
    const auto arguments = std::make_shared<EditArguments>();
    CLI::App *edit = rule.add_subcommand("edit", "Change a rule in an editor");
    AddOwnerOption(*edit, arguments->owner);
    AddProtocolOption(*edit, arguments->protocol)->required();
    AddChangeOptions(*edit, arguments->change);
    AddOutputOptions(*edit);
    edit->footer(
        "The editor is $VISUAL or $EDITOR, else 'editor' or 'vi'. A text left as it is, or\n"
        "an editor that fails, changes nothing. A text that cannot be read is refused with\n"
        "its line and kept in a file that the message names.\n\nExamples:\n"
        "  zevobandwidth rule edit -u alice -p ftp\n"
        "  EDITOR=nano zevobandwidth rule edit -g staff -p rsync --dry-run\n");
    edit->callback([arguments] { EditRule(*arguments); });
}

} // namespace tool

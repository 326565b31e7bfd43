// "rule edit": one rule as a text in the administrator's editor. The text has a directory of its
// own, because editors leave copies beside what they edit. It is kept when it holds work that could
// not be stored.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "base/regular_file.hpp"

#include "command.hpp"
#include "commands/rule_command.hpp"
#include "model/rule_form.hpp"
#include "model/scratch_file.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

// The text as the editor left it. Throws Failure when something else lies in its place, and keeps
// that.
std::string ReadAgain(ScratchFile &draft)
{
    const zevo::Place place(draft.path().c_str());
    const zevo::RegularFile file(place, O_RDONLY);
    zevo::Bytes text;
    if (!file.fault() && !file.ReadWhole(text)) return std::string(text.view());
    const int error = errno;
    draft.Keep();
    throw Failure(kFailed, "cannot read " + draft.path() +
                               " again, which must be a regular file: " + std::strerror(error) +
                               "; nothing is changed, and what the editor left is kept in " +
                               draft.directory());
}

// Returns the words for the message.
std::string Keep(ScratchFile &draft)
{
    draft.Keep();
    // An editor may have put another file in its place that others may read. Nobody else can enter
    // the directory.
    const zevo::Place place(draft.path().c_str());
    if (const zevo::RegularFile file(place, O_RDONLY); !file.fault())
        static_cast<void>(::fchmod(file.get(), S_IRUSR | S_IWUSR));
    return "nothing is changed; the text is kept in " + draft.path();
}

// VISUAL or EDITOR, as words for a shell, because it may be "code --wait".
std::string EditorCommand()
{
    for (const char *const variable : {"VISUAL", "EDITOR"}) {
        const char *const editor = std::getenv(variable);
        if (editor != nullptr && *editor != '\0') return editor;
    }
    return "$(command -v editor || echo vi)";
}

// Returns the wait status, or throws Failure when nothing could be run.
int RunEditor(const std::string &path)
{
    static constexpr const char *kPath = "ZEVOBANDWIDTH_TEXT";
    ::setenv(kPath, path.c_str(), 1);
    // What this tool ignores must not be ignored by the editor: a caught signal is not inherited.
    constexpr std::array kIgnored = {SIGHUP, SIGXFSZ};
    for (const int signal : kIgnored)
        std::signal(signal, [](int) {});
    const int status = std::system((EditorCommand() + " \"$" + kPath + "\"").c_str());
    const int error = errno;
    for (const int signal : kIgnored)
        std::signal(signal, SIG_IGN);
    if (status < 0)
        throw Failure(kFailed, std::string("cannot run /bin/sh: ") + std::strerror(error));
    return status;
}

std::string HowItEnded(int status)
{
    return WIFSIGNALED(status) ? "was killed by signal " + std::to_string(WTERMSIG(status))
                               : "ended with exit status " + std::to_string(WEXITSTATUS(status));
}

// The edited text; throws Failure when the editor failed.
std::string Edit(ScratchFile &draft, const std::string &text)
{
    const int status = RunEditor(draft.path());
    if (status == 0) return ReadAgain(draft);
    const bool isTouched = ReadAgain(draft) != text;
    throw Failure(kFailed, "the editor " + HowItEnded(status) + ": " +
                               (isTouched ? Keep(draft) : "nothing is changed") +
                               ". VISUAL or EDITOR names the editor to use");
}

bool IsSame(const ZEVO_BANDWIDTH_CONF &a, const ZEVO_BANDWIDTH_CONF &b)
{
    // Both were zeroed before they were filled.
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
    return std::memcmp(&a, &b, sizeof(a)) == 0;
}

void EditRule(const RuleChange &arguments)
{
    const std::int32_t protocol = FindProtocol(arguments.protocol);
    const Owner owner = arguments.owner.FindOfRule(protocol);
    const ZEVO_BANDWIDTH_CONF old = ReadRule(owner, protocol);
    const std::string text = RuleToForm(owner, old);
    ScratchFile draft("rule.conf", text);
    const std::string edited = Edit(draft, text);
    if (edited == text) return PrintNote("The text was left as it is: nothing is changed.");
    try {
        const ZEVO_BANDWIDTH_CONF rule = RuleFromForm(edited, old);
        if (!IsSame(ReadRule(owner, protocol), old))
            throw Failure(kFailed, "somebody else has changed the rule meanwhile");
        StoreRule(owner, rule, arguments.change);
    } catch (const Failure &failure) {
        throw Failure(failure.status(), failure.what() + std::string("; ") + Keep(draft));
    }
}

} // namespace

void AddRuleEdit(CLI::App &rule)
{
    const auto [edit, arguments] = AddCommand(rule, "edit", "Change a rule in an editor", EditRule);
    AddRuleChangeOptions(edit, arguments);
    edit.footer(
        "The editor is $VISUAL or $EDITOR, else 'editor' or 'vi'. A text left as it is, or\n"
        "an editor that fails, changes nothing. A text that cannot be read is refused with\n"
        "its line and kept in a file that the message names.\n\nExamples:\n"
        "  zevobandwidth rule edit -u alice -p ftp\n"
        "  EDITOR=nano zevobandwidth rule edit -g staff -p rsync --dry-run\n");
}

} // namespace tool

// "completion": the scripts that complete this tool's command line in a shell. At each key the
// script asks the tool itself what fits, by a hidden command.
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <type_traits>

#include "command.hpp"
#include "model/names.hpp"
#include "model/transfer_list.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

// The scripts drop quotes and backslashes of the typed line and never evaluate it. They quote what
// they insert, unless the word has an open quote.
constexpr char kBash[] = R"SCRIPT(# bash completion for zevobandwidth: source this file
_zevobandwidth() {
    local line word words=() current=${COMP_WORDS[COMP_CWORD]}
    for word in "${COMP_WORDS[@]:0:COMP_CWORD+1}"; do
        words+=("${word//[\'\"\\]/}")
    done
    COMPREPLY=()
    while IFS= read -r line; do
        word=${line%%$'\t'*}
        if [[ -z $word ]]; then
            compopt -o default 2>/dev/null
        elif [[ $current == [\'\"]* ]]; then
            COMPREPLY+=("$word")
        else
            printf -v word %q "$word"
            COMPREPLY+=("$word")
        fi
    done < <(command zevobandwidth __complete "${words[@]}" 2>/dev/null)
}
complete -F _zevobandwidth zevobandwidth)SCRIPT";

constexpr char kZsh[] = R"SCRIPT(#compdef zevobandwidth
# zsh completion for zevobandwidth: source this file after compinit, or store it as _zevobandwidth
# in a directory of $fpath
_zevobandwidth() {
    local line word
    local -a typed values shown
    typed=("${(@Q)words[1,CURRENT]}")
    while IFS= read -r line; do
        word=${line%%$'\t'*}
        if [[ -z $word ]]; then
            _files
        else
            values+=("$word")
            shown+=("$word${${line#"$word"}/$'\t'/  -- }")
        fi
    done < <(command zevobandwidth __complete "${typed[@]}" 2>/dev/null)
    (($#values)) && compadd -l -d shown -a values
}
if [[ $funcstack[1] == _zevobandwidth ]]; then
    _zevobandwidth "$@"
else
    compdef _zevobandwidth zevobandwidth
fi)SCRIPT";

constexpr char kFish[] =
    R"SCRIPT(# fish completion for zevobandwidth: source this file, or store it as
# ~/.config/fish/completions/zevobandwidth.fish
function __zevobandwidth_complete
    set -l words (commandline -opc) (commandline -ct)
    for line in (command zevobandwidth __complete $words 2>/dev/null)
        if test -z "$line"
            __fish_complete_path (commandline -ct)
        else
            echo $line
        end
    end
end
complete -c zevobandwidth -f -a '(__zevobandwidth_complete)')SCRIPT";

struct Shell {
    const char *name;
    const char *script;
};

constexpr std::array kShells = {Shell{"bash", kBash}, Shell{"zsh", kZsh}, Shell{"fish", kFish}};

struct CompletionArguments {
    std::string shell;
};

void PrintScript(const CompletionArguments &arguments)
{
    for (const Shell &shell : kShells)
        if (shell.name == arguments.shell) PrintLine(shell.script);
}

// ---- the answer ----

// It has a line for each candidate, with its description after a tab. An empty candidate asks for
// file names. Nothing here fails. What cannot be read is not offered. It walks the tree of declared
// commands, so that no second list of commands and options is needed.

// Lower ids are system accounts.
constexpr std::uint32_t kFirstPerson = 1000;
constexpr std::uint32_t kNobody = 65534;

// ---- where the line has got to ----

struct Place {
    const CLI::App *command = nullptr;
    const CLI::Option *pending = nullptr; // an option that waits for its value
    std::size_t positionals = 0;          // already there
    bool onlyPositionals = false;         // after "--"
    std::string user;                     // the value of -u
};

bool TakesValue(const CLI::Option &option)
{
    return option.get_items_expected_min() > 0;
}

const CLI::App *FindCommand(const CLI::App &command, const std::string &name)
{
    const auto found = command.get_subcommands(
        [&name](const CLI::App *child) { return child->get_name() == name; });
    return found.empty() ? nullptr : found.front();
}

void TakeValue(Place &place, const CLI::Option &option, const std::string &value)
{
    if (option.check_lname("user")) place.user = value;
    place.pending = nullptr;
}

// "--name", "--name=value".
void TakeLong(Place &place, const std::string &word)
{
    const std::size_t equals = word.find('=');
    const CLI::Option *option = place.command->get_option_no_throw(word.substr(0, equals));
    if (option == nullptr || !TakesValue(*option)) return;
    if (equals == std::string::npos)
        place.pending = option;
    else
        TakeValue(place, *option, word.substr(equals + 1));
}

// "-u", "-ualice", "-nq".
void TakeShort(Place &place, const std::string &word)
{
    for (std::size_t i = 1; i < word.size(); ++i) {
        const CLI::Option *option = place.command->get_option_no_throw({'-', word[i]});
        if (option == nullptr) return;
        if (!TakesValue(*option)) continue;
        if (i + 1 == word.size())
            place.pending = option;
        else
            TakeValue(place, *option, word.substr(i + 1));
        return;
    }
}

void Take(Place &place, const std::string &word)
{
    // bash hands over "--name=value" in three words.
    if (place.pending != nullptr && word == "=") return;
    if (place.pending != nullptr) return TakeValue(place, *place.pending, word);
    if (!place.onlyPositionals && word == "--") {
        place.onlyPositionals = true;
    } else if (!place.onlyPositionals && word.starts_with("--")) {
        TakeLong(place, word);
    } else if (!place.onlyPositionals && word.starts_with('-') && word.size() > 1) {
        TakeShort(place, word);
    } else if (const CLI::App *child = FindCommand(*place.command, word)) {
        place.command = child;
        place.positionals = 0;
    } else {
        ++place.positionals;
    }
}

// ---- what fits there ----

class Offer {
public:
    explicit Offer(std::string typed) : typed_(std::move(typed)) {}

    // Does not offer text with characters that a terminal or a shell would not take.
    void Add(const std::string &text, const std::string &about)
    {
        if (!text.starts_with(typed_) || Printable(text) != text) return;
        PrintLine(before_ + text + (about.empty() ? "" : "\t" + Printable(about)));
        isEmpty_ = false;
    }

    // Keeps this much of the word. The candidates replace only the rest.
    void KeepBefore(std::size_t length)
    {
        before_ += typed_.substr(0, length);
        typed_.erase(0, length);
    }

    const std::string &typed() const noexcept { return typed_; }
    bool empty() const noexcept { return isEmpty_; }

private:
    std::string typed_;
    std::string before_;
    bool isEmpty_ = true;
};

// begin, next and end walk over a user database. System accounts are offered if nobody else fits.
template <void (*begin)(), auto next, void (*end)(), auto id, auto name>
void OfferAll(Offer &offer, const Place &)
{
    constexpr bool kIsGroup = std::is_same_v<decltype(name), char * group::*>;
    for (const bool isSystem : {false, true}) {
        if (!offer.empty()) return;
        begin();
        while (const auto *entry = next())
            if ((entry->*id < kFirstPerson || entry->*id == kNobody) == isSystem)
                offer.Add(entry->*name, (kIsGroup ? "gid " : "uid ") + std::to_string(entry->*id));
        end();
    }
}

void OfferProtocols(Offer &offer, const Place &)
{
    for (const Protocol &protocol : KnownProtocols())
        offer.Add(protocol.name, "");
}

void OfferAddons(Offer &offer, const Place &)
{
    for (const Addon &addon : AddonFiles())
        if (addon.fault.empty()) offer.Add(addon.protocol.name, "");
}

// Offers the processes of the user that the line names, else of all users.
void OfferPids(Offer &offer, const Place &place)
{
    TransferList list;
    try {
        if (place.user.empty())
            list.ReadAll(ZEVO_BW_OWNER_USER);
        else
            list.Read(ZEVO_BW_OWNER_USER, FindUser(place.user).id);
    } catch (const Failure &) {
        return;
    }
    list.Sort();
    for (const RunningTransfer &transfer : list.all())
        offer.Add(std::to_string(transfer.pid), OwnerName(transfer) + ", " + ProtocolOf(transfer) +
                                                    " " + DirectionOf(transfer) + ", " +
                                                    transfer.file);
}

// The shell completes file names itself.
void OfferFiles(Offer &, const Place &)
{
    PrintLine("");
}

struct Source {
    std::string_view type; // as the help shows it
    void (*offer)(Offer &, const Place &);
};

constexpr std::array kSources = {
    Source{"USER", OfferAll<::setpwent, ::getpwent, ::endpwent, &passwd::pw_uid, &passwd::pw_name>},
    Source{"GROUP", OfferAll<::setgrent, ::getgrent, ::endgrent, &group::gr_gid, &group::gr_name>},
    Source{"PROTOCOL", OfferProtocols},
    Source{"ADDON", OfferAddons},
    Source{"PID", OfferPids},
    Source{"FILE", OfferFiles},
};

// Takes the values from the help, such as "{enabled,disabled,schedule}".
void OfferChoices(Offer &offer, std::string_view choices)
{
    while (!choices.empty() && choices.front() != '}') {
        choices.remove_prefix(1);
        const std::size_t end = std::min(choices.find_first_of(",}"), choices.size());
        offer.Add(std::string(choices.substr(0, end)), "");
        choices.remove_prefix(end);
    }
}

// "USER|@GROUP": a user, or a group after an at sign.
void OfferKinds(Offer &offer, const Place &place, std::string_view kinds)
{
    while (!kinds.empty()) {
        const std::size_t bar = std::min(kinds.find('|'), kinds.size());
        std::string_view kind = kinds.substr(0, bar);
        kinds.remove_prefix(std::min(bar + 1, kinds.size()));
        const bool wantsAt = kind.starts_with('@');
        if (wantsAt != offer.typed().starts_with('@')) continue;
        if (wantsAt) {
            offer.KeepBefore(1);
            kind.remove_prefix(1);
        }
        for (const Source &source : kSources)
            if (source.type == kind) source.offer(offer, place);
    }
}

void OfferValues(Offer &offer, const Place &place, const CLI::Option &option)
{
    const std::string type = option.get_type_name();
    if (const std::size_t brace = type.find('{'); brace != std::string::npos)
        return OfferChoices(offer, std::string_view(type).substr(brace));
    std::string kinds = type.substr(0, type.find(':'));
    std::erase_if(kinds, [](char c) { return c == '(' || c == ')'; });
    OfferKinds(offer, place, kinds);
}

// The first sentence.
std::string Briefly(const std::string &about)
{
    return about.substr(0, about.find(". "));
}

void OfferOptions(Offer &offer, const CLI::App &command)
{
    for (const CLI::Option *option : command.get_options())
        for (const std::string &name : option->get_lnames())
            if (!option->get_group().empty())
                offer.Add("--" + name, Briefly(option->get_description()));
}

void OfferCommands(Offer &offer, const CLI::App &command)
{
    for (const CLI::App *child : command.get_subcommands([](const CLI::App *) { return true; }))
        if (!child->get_group().empty())
            offer.Add(child->get_name(), Briefly(child->get_description()));
}

const CLI::Option *NextPositional(const Place &place)
{
    std::size_t before = place.positionals;
    for (const CLI::Option *option : place.command->get_options()) {
        if (!option->get_positional()) continue;
        const auto takes = static_cast<std::size_t>(option->get_items_expected_max());
        if (before < takes) return option;
        before -= takes;
    }
    return nullptr;
}

// "--name=value" in one word.
void OfferAssigned(Offer &offer, const Place &place, std::size_t equals)
{
    const CLI::Option *option = place.command->get_option_no_throw(offer.typed().substr(0, equals));
    if (option == nullptr || !TakesValue(*option)) return;
    offer.KeepBefore(equals + 1);
    OfferValues(offer, place, *option);
}

void OfferAt(Offer &offer, const Place &place)
{
    if (place.pending != nullptr) return OfferValues(offer, place, *place.pending);
    const std::size_t equals = offer.typed().find('=');
    if (!place.onlyPositionals && offer.typed().starts_with('-'))
        return equals == std::string::npos ? OfferOptions(offer, *place.command)
                                           : OfferAssigned(offer, place, equals);
    OfferCommands(offer, *place.command);
    if (const CLI::Option *option = NextPositional(place)) OfferValues(offer, place, *option);
    // The command takes only options.
    if (offer.empty() && offer.typed().empty()) OfferOptions(offer, *place.command);
}

// words: the command line up to the cursor. The first is the tool's name. The last is being typed
// and may be empty.
void PrintCompletion(const CLI::App &root, const std::vector<std::string> &words)
{
    Place place;
    place.command = &root;
    for (std::size_t i = 1; i + 1 < words.size(); ++i)
        Take(place, words[i]);
    std::string typed = words.size() > 1 ? words.back() : "";
    // bash makes the equals sign a word of its own.
    if (place.pending != nullptr && typed == "=") typed.clear();
    Offer offer(std::move(typed));
    OfferAt(offer, place);
}

// Takes every word, also an option, as a plain word.
void AddComplete(CLI::App &app)
{
    CLI::App *command = app.add_subcommand(kCompleteCommand, "");
    command->group("")->prefix_command()->set_help_flag();
    command->callback([&app, command] { PrintCompletion(app, command->remaining()); });
}

} // namespace

void AddCompletionCommand(CLI::App &app)
{
    std::vector<std::string> names;
    names.reserve(kShells.size());
    for (const Shell &shell : kShells)
        names.emplace_back(shell.name);
    const auto [command, arguments] =
        AddCommand(app, "completion", "Print a shell's completion script", PrintScript,
                   "Completes commands, options, users, groups, protocols, states, policies and "
                   "the ids of running processes.\n\n"
                   "Examples:\n"
                   "  source <(zevobandwidth completion bash)\n"
                   "  zevobandwidth completion bash >/etc/bash_completion.d/zevobandwidth\n"
                   "  zevobandwidth completion zsh >\"${fpath[1]}/_zevobandwidth\"\n"
                   "  zevobandwidth completion fish >/etc/fish/completions/zevobandwidth.fish\n");
    command.add_option("shell", arguments.shell, "For which shell")
        ->type_name("SHELL")
        ->required()
        ->check(CLI::IsMember(names));
    constexpr const char *kIsScript = "what it prints is a script";
    AddOutputOptions(command, {kIsScript, kIsScript, kIsScript});
    AddComplete(app);
}

} // namespace tool

// "completion": the scripts that complete this tool's command line in a shell. At each key the
// script asks the tool itself what fits, by a hidden command.
#include <array>
#include <memory>

#include "command.hpp"
#include "completion.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

// The answer has a line for each candidate, with its description after a tab. An empty candidate
// asks for file names.
//
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

void PrintScript(const std::string &name)
{
    for (const Shell &shell : kShells)
        if (shell.name == name) PrintLine(shell.script);
}

void PrintCompletion(const CLI::App &root, const std::vector<std::string> &words)
{
    const Completion completion = Complete(root, words);
    for (const Candidate &candidate : completion.candidates)
        PrintLine(candidate.text + (candidate.about.empty() ? "" : "\t" + candidate.about));
    if (completion.isFile) PrintLine("");
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
    const auto name = std::make_shared<std::string>();
    CLI::App *command = app.add_subcommand("completion", "Print a shell's completion script");
    command->add_option("shell", *name, "For which shell")
        ->type_name("SHELL")
        ->required()
        ->check(CLI::IsMember(names));
    constexpr const char *kIsScript = "what it prints is a script";
    AddOutputOptions(*command, {kIsScript, kIsScript, kIsScript});
    command->footer(
        "Completes commands, options, users, groups, protocols, states, policies and the\n"
        "ids of running processes.\n\n"
        "Examples:\n"
        "  source <(zevobandwidth completion bash)\n"
        "  zevobandwidth completion bash >/etc/bash_completion.d/zevobandwidth\n"
        "  zevobandwidth completion zsh >\"${fpath[1]}/_zevobandwidth\"\n"
        "  zevobandwidth completion fish >/etc/fish/completions/zevobandwidth.fish\n");
    command->callback([name] { PrintScript(*name); });
    AddComplete(app);
}

} // namespace tool

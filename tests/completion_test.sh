#!/usr/bin/env bash
# Completion as the shells do it: the scripts run in real ones. Runs in the sandbox, whose test
# users it names; the tool's path is in ZEVOBW_TOOL.
# shellcheck disable=SC2016  # other shells expand these
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

export PATH=${ZEVOBW_TOOL%/*}:$PATH HOME=/tmp

# Names that a shell must not take at their word.
cat >>/etc/group <<'END'
odd $(touch /tmp/run):x:3003:
END
printf 'evil\033[2J:x:3004:\n' >>/etc/group
mkdir -p $running
transfer user-2001 4711-1 ftp upload '"x\ny"' >$running/user-2001
zevo completion csh
exits 2

# offers WORDS EXPECTED: what the tool answers for the words, without what it says about them.
offers() {
    local words
    IFS='|' read -ra words <<<"$1|"
    does __complete zevobandwidth "${words[@]}"
    same "$(cut -f1 /tmp/out | tr '\n' ' ')" "$2"
}
offers 'ru' 'rule '
offers '__' ''
offers 'rule|sh' 'show '
offers 'rule|set|-u|al' 'alice '
offers 'rule|set|-ual|-g|st' 'staff '
offers 'rule|set|--user=a' '--user=alice '
offers 'rule|set|--user|=|a' 'alice '
offers 'rule|set|--user|=' 'alice bob carol dave '
offers 'rule|set|-u|ro' 'root '
offers 'rule|set|-g|ev' ''
offers 'rule|set|--state|' 'enabled disabled schedule '
offers 'policy|set|--occupy|m' 'min max '
offers 'policy|set|--base|' 'off on '
offers 'rule|set|--like|@st' '@staff '
offers 'rule|set|--like|b' 'bob '
offers 'preview|-p|' 'docuhall webdav ftp rsync '
offers 'simulate|-nq|-d|' 'upload download '
offers 'stop|-u|alice|--pid|' '4711 '
offers 'stop|-u|bob|--pid|' ''
offers 'completion|' 'bash zsh fish '
mkdir -p $conf/addon
touch $conf/addon/backup_32.json
offers 'preview|-p|' 'docuhall webdav ftp rsync backup '
offers 'addon|path|' 'backup '
rm -r $conf/addon
offers 'rule|set|--cust' '--custom-up --custom-down '
offers 'rule|set|--|--cust' ''
tells 'x\x0Ay' __complete zevobandwidth stop --pid 4

# ---- bash ----

# in_bash WORDS... EXPECTED
in_bash() {
    same "$(bash --norc -c 'source <(zevobandwidth completion bash)
        COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
        _zevobandwidth
        printf "%s\n" "${COMPREPLY[@]}"' bash "${@:1:$#-1}" 2>&1)" "${!#}"
}
in_bash zevobandwidth rule set -u al alice
in_bash zevobandwidth rule set -g od 'odd\ \$\(touch\ /tmp/run\)'
in_bash zevobandwidth rule set -g '"od' 'odd $(touch /tmp/run)'
in_bash zevobandwidth metrics --output '' ''
in_bash zevobandwidth stop -u '$(touch /tmp/run)' --pi --pid

# ---- zsh, with a terminal of its own ----

if command -v zsh >/dev/null; then
    # in_zsh LINE EXPECTED: the line grows to what is expected when a tabulator is typed.
    in_zsh() {
        # shellcheck disable=SC2016
        TERM=xterm timeout 60 zsh -f -c 'zmodload zsh/zpty
            zpty shell zsh -f -i
            zpty -w shell "autoload -Uz compinit; compinit -u -D"
            zpty -w shell "source <(zevobandwidth completion zsh); print rea\"\"dy"
            zpty -r -m shell text "*ready*"
            zpty -w -n shell "$1"
            zpty -r -m shell text "*${(b)2}*"' zsh "$1"$'\t' "$2" || fail "zsh: no '$2' for '$1'"
    }
    in_zsh 'zevobandwidth rule set -u al' 'set -u alice'
    in_zsh 'zevobandwidth rule set -g od' '-g odd\ \$\(touch\ '
    in_zsh 'zevobandwidth pre' 'zevobandwidth preview'
else
    echo 'zsh is not installed: its script was not tried'
fi

# ---- fish ----

if command -v fish >/dev/null; then
    in_fish() { # LINE EXPECTED
        same "$(fish --no-config -c 'zevobandwidth completion fish | source
            complete -C $argv[1]' "$1" 2>&1 | cut -f1)" "$2"
    }
    in_fish 'zevobandwidth rule set -u al' alice
    in_fish 'zevobandwidth rule set -g od' 'odd $(touch /tmp/run)'
    in_fish 'zevobandwidth rule set --user=al' --user=alice
    in_fish 'zevobandwidth rule set --cust' $'--custom-down\n--custom-up'
    in_fish 'zevobandwidth ru' rule
else
    echo 'fish is not installed: its script was not tried'
fi

[[ ! -e /tmp/run ]] || fail 'a name was run'
finish

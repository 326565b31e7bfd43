#!/usr/bin/env bash
# Plans and the changes of rules and policies as an administrator makes them: what is stored, what
# is drawn, what is refused. Runs in the sandbox, whose test users it names; the tool's path is in
# ZEVOBW_TOOL.
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

export TZ=XYZ-1 # no need of a database of time zones

plan_of() { sed -n "s/^schedule plan=//p" "$conf/bandwidth.$1.conf"; }
times() { printf "$1%.0s" $(seq "$2"); }
stored() { cat $conf/*.conf 2>/dev/null; }

# ---- a plan is stored ----

# A new rule with a plan follows it; one that is there keeps its state, and that is said.
weekday=$(times 1 8)$(times 2 10)$(times 1 6)
zevo policy set -p ftp
zevo rule set -u alice -p ftp --up 10M --custom-up 1M \
    --plan 'weekdays 08:00-18:00 custom; weekends all-day off'
exits 0
silent
prints 'user alice, ftp: schedule, upload 10 MiB/s, download unlimited, '`
       `'custom upload 1 MiB/s, custom download unlimited, plan 168 hours'
same "$(plan_of ftp)" "$(times 0 24)$(times "$weekday" 5)$(times 0 24)"
zevo rule set -u alice -p ftp --state enabled
zevo rule set -u alice -p ftp --plan 'sat 22:00-02:00 custom' --base off
out_has 'alice, ftp: enabled'
err_has 'zevobandwidth rule set -u alice -p ftp --state schedule'
same "$(plan_of ftp)" "22$(times 0 164)22"
zevo rule set -u alice -p ftp --plan-raw "$(times 012 56)" --state schedule
silent
same "$(plan_of ftp)" "$(times 012 56)"

zevo policy set -p rsync --plan 'all 08:00-20:00 on' --base off
exits 0
silent
out_has 'rsync: schedule'
out_has 'plan 168 hours'
zevo policy set -p ftp --plan 'sun all-day off'
out_has 'ftp: enabled'
err_has 'zevobandwidth policy set -p ftp --state schedule'

refused 2 'has 167 instead of 168 characters' rule set -u alice -p ftp --plan-raw "$(times 1 167)"
refused 2 'has 169 instead of' policy set -p ftp --plan-raw "$(times 1 169)"
refused 2 'character 168 of the plan is "2"' policy set -p ftp --plan-raw "$(times 1 167)2"
refused 2 '"mon 08:00 off"' rule set -u bob -p ftp --plan 'all all-day off; mon 08:00 off'
refused 2 'no rates of its own' policy set -p ftp --plan 'mon all-day custom'
refused 2 'off, normal or custom' rule set -u bob -p ftp --plan 'mon all-day off' --base on
refused 2 '--base requires --plan' rule set -u bob -p ftp --base off
refused 2 'excludes' rule set -u bob -p ftp --plan 'mon all-day off' --plan-raw "$(times 1 168)"

# ---- a dry run ----

before=$(stored)
for change in 'rule set -u bob -p ftp --up 3M' 'rule set -u alice -p ftp --state disabled' \
    'rule disable -u alice -p ftp' 'rule clear -u alice -p ftp' 'policy set -p webdav' \
    'policy set -p ftp --state disabled'; do
    # shellcheck disable=SC2086
    zevo $change --dry-run
    exits 0
    err_has 'nothing is changed'
    same "$(wc -l </tmp/out)" 1
    same "$(stored)" "$before"
done
out_has 'ftp: disabled'

# Services are told of a change, unless they are not to be: what ends this one is the later signal.
mkdir /tmp/named
cp "$(command -v sleep)" /tmp/named/zevobandwidth
/tmp/named/zevobandwidth 60 & spared=$!
sleep 0.1
zevo rule set -u bob -p ftp --up 3M --no-notify
zevo rule disable -u bob -p ftp --no-notify
kill $spared
wait $spared 2>/dev/null
same $? 143

# ---- copies, states, the end ----

zevo rule set -g staff -p ftp --like alice --up 5M
prints 'group staff, ftp: schedule, upload 5 MiB/s, download unlimited, '`
       `'custom upload 1 MiB/s, custom download unlimited, plan 168 hours'
zevo rule set -u carol -p ftp --like @staff --state enabled
out_has 'user carol, ftp: enabled, upload 5 MiB/s'
refused 1 'group guests has no rule for ftp' rule set -u bob -p ftp --like @guests
refused 4 'no such user: "zed"' rule set -u bob -p ftp --like zed
refused 2 'USER or @GROUP' rule set -u bob -p ftp --like @

zevo rule schedule -u carol -p ftp
out_has 'carol, ftp: schedule'
zevo rule enable -u carol -p ftp
out_has 'carol, ftp: enabled'
refused 1 'user dave has no rule for ftp' rule enable -u dave -p ftp

# A cleared rule is forgotten whole; an owner who is gone is reached by the id.
zevo rule clear -u carol -p ftp
prints 'user carol, ftp: NotExisted'
zevo rule clear -u carol -p ftp
exits 0
err_has 'no such rule'
zevo rule set -u carol -p ftp --down 1M --no-notify
prints 'user carol, ftp: enabled, upload unlimited, download 1 MiB/s'
zevo rule clear -u carol -p ftp
printf '[user-9999]\nstate=enabled\nupload rate=7\n[group-9998]\nstate=enabled\nupload rate=x\n' \
    >>$conf/bandwidth.ftp.conf
refused 4 'no such user: "9999"' rule set -u 9999 -p ftp --up 1M
refused 4 'no such user: "9998"' rule clear -u 9998 -p ftp
zevo rule disable -u 9999 -p ftp
prints 'user 9999, ftp: disabled, upload 7 KiB/s, download unlimited'
refused 1 'section [group-9998]' rule enable -g 9998 -p ftp
zevo rule clear -g 9998 -p ftp
exits 0

listed() { # ARG...: the names of the rules that "rule list ARG..." lists
    zevo rule list --no-legend "$@"
    exits 0
    awk '{ printf "%s%s", (NR > 1 ? " " : ""), $2 }' /tmp/out
}
zevo rule set -u alice -p rsync --up 1M
same "$(listed)" '9999 alice bob staff alice'
same "$(listed -p ftp)" '9999 alice bob staff'
same "$(listed -u alice -g staff)" 'alice staff alice'
same "$(listed -u 9999 -u bob)" '9999 bob'
same "$(listed --state disabled)" '9999 bob'
same "$(listed --state NotExisted)" 'carol 9998'
same "$(listed -u dave)" ''
refused 4 'no such user: "4711"' rule list -u 4711
zevo rule clear -u 9999 -p ftp
refused 4 'no such user: "9999"' rule show -u 9999 -p ftp

finish

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
does rule set -u alice -p ftp --up 10M --custom-up 1M \
    --plan 'weekdays 08:00-18:00 custom; weekends all-day off'
silent
prints 'user alice, ftp: schedule, upload 10 MiB/s, download unlimited, '`
       `'custom upload 1 MiB/s, custom download unlimited, plan 168 hours'
same "$(plan_of ftp)" "$(times 0 24)$(times "$weekday" 5)$(times 0 24)"
zevo rule set -u alice -p ftp --state enabled
tells 'alice, ftp: enabled' rule set -u alice -p ftp --plan 'sat 22:00-02:00 custom' --base off
err_has 'zevobandwidth rule set -u alice -p ftp --state schedule'
same "$(plan_of ftp)" "22$(times 0 164)22"
zevo rule set -u alice -p ftp --plan-raw "$(times 012 56)" --state schedule
silent
same "$(plan_of ftp)" "$(times 012 56)"

does policy set -p rsync --plan 'all 08:00-20:00 on' --base off
silent
out_has 'rsync: schedule'
out_has 'plan 168 hours'
tells 'ftp: enabled' policy set -p ftp --plan 'sun all-day off'
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
    warns 'nothing is changed' $change --dry-run
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

tells 'carol, ftp: schedule' rule schedule -u carol -p ftp
tells 'carol, ftp: enabled' rule enable -u carol -p ftp
refused 1 'user dave has no rule for ftp' rule enable -u dave -p ftp

# A cleared rule is forgotten whole; an owner who is gone is reached by the id.
answers 'user carol, ftp: NotExisted' rule clear -u carol -p ftp
warns 'no such rule' rule clear -u carol -p ftp
zevo rule set -u carol -p ftp --down 1M --no-notify
prints 'user carol, ftp: enabled, upload unlimited, download 1 MiB/s'
zevo rule clear -u carol -p ftp
printf '[user-9999]\nstate=enabled\nupload rate=7\n[group-9998]\nstate=enabled\nupload rate=x\n' \
    >>$conf/bandwidth.ftp.conf
refused 4 'no such user: "9999"' rule set -u 9999 -p ftp --up 1M
refused 4 'no such user: "9998"' rule clear -u 9998 -p ftp
answers 'user 9999, ftp: disabled, upload 7 KiB/s, download unlimited' rule disable -u 9999 -p ftp
refused 1 'section [group-9998]' rule enable -g 9998 -p ftp
does rule clear -g 9998 -p ftp

listed() { # ARG...: the owners of the rules that "rule list ARG..." lists
    does rule list --no-legend "$@"
    awk '{ printf "%s%s", (NR > 1 ? " " : ""), $1 }' /tmp/out
}
zevo rule set -u alice -p rsync --up 1M
same "$(listed)" '9999 alice bob @staff alice'
same "$(listed -p ftp)" '9999 alice bob @staff'
same "$(listed -u alice -g staff)" 'alice @staff alice'
same "$(listed -u 9999 -u bob)" '9999 bob'
same "$(listed --state disabled)" '9999 bob'
same "$(listed --state NotExisted)" 'carol @9998'
same "$(listed -u dave)" ''
refused 4 'no such user: "4711"' rule list -u 4711
zevo rule clear -u 9999 -p ftp
refused 4 'no such user: "9999"' rule show -u 9999 -p ftp

# ---- the picture ----

# What the grid says of the plan, Monday first, without the mark of the present hour.
grid() { tr '[]' '  ' </tmp/out | sed -n 's/^\(Mon\|Tue\|Wed\|Thu\|Fri\|Sat\|Sun\) //p' | tr -d ' '; }

zevo rule set -u alice -p ftp --plan 'all all-day off; mon 08:00-18:00 custom; sun 23:00-24:00 normal'
does plan show -u alice -p ftp
silent
same "$(grid)" "$(printf '%s\n' "$(times . 8)$(times + 10)$(times . 6)" \
    "$(times . 24)" "$(times . 24)" "$(times . 24)" "$(times . 24)" "$(times . 24)" \
    "$(times . 23)#")"
same "$(grep -c '^Mon\|^Sun' /tmp/out)" 2
same "$(grep '^[MTWFS]' /tmp/out | grep -o '\[[.+#]\]' | wc -l)" 1
grep "^$(LC_ALL=C date +%a) " /tmp/out | grep -q '\[' || fail 'another day than today is marked'
awk 'length($0) > 80 { exit 1 }' /tmp/out || fail 'wider than 80 columns'
out_has '#  normal: upload 10 MiB/s, download unlimited'
out_has '+  custom: upload 1 MiB/s, download unlimited'
out_has '.  off: this rule does not apply'
out_has 'XYZ, UTC+01:00'
zevo plan show -u alice -p ftp --no-legend
same "$(wc -l </tmp/out)" 7
tells '"plan_bears": true' plan show -u alice -p ftp --json
same "$(tr -d ' \n' </tmp/out | grep -o '"sun":\[[^]]*\]' | grep -o 'off' | wc -l)" 23

# In a terminal the states have colors, unless nobody wants them.
script -qec "TERM=xterm '$ZEVOBW_TOOL' plan show -u alice -p ftp" /dev/null >/tmp/out
out_has $'\e[30;43m + \e[0m'
script -qec "TERM=xterm NO_COLOR=1 '$ZEVOBW_TOOL' plan show -u alice -p ftp" /dev/null >/tmp/out
! grep -q $'\e' /tmp/out || fail 'colors in spite of NO_COLOR'

tells 'on: limits apply to rsync' plan show -p rsync
out_has 'off: no limit applies to rsync'
same "$(grid | sort -u)" "$(times . 8)$(times '#' 12)$(times . 4)"

# What does not apply, is not whole, or is not there is told.
zevo rule disable -u alice -p ftp
warns 'does not apply now: the rule of user alice for ftp is disabled' plan show -u alice -p ftp
sed -i "s/^schedule plan=0.*/schedule plan=$(times 1 100)x/" $conf/bandwidth.ftp.conf
warns 'has 101 instead of 168 characters' plan show -u alice -p ftp
same "$(grid | tr -cd '#' | wc -c)" 100
same "$(grid | tr -cd '?' | wc -c)" 67
warns 'has no plan' plan show -u dave -p ftp
tells '"next_change": null' plan show -p webdav --json

# ---- what comes ----

does plan next 3 -p rsync --no-legend
same "$(wc -l </tmp/out)" 3
! grep -vE '^(Mon|Tue|Wed|Thu|Fri|Sat|Sun) [-0-9]{10} (08|20):00 XYZ  (on|off): ' /tmp/out ||
    fail 'a change that the plan does not have'
zevo plan next -p rsync --json
same "$(grep -c 'T\(08\|20\):00:00+01:00' /tmp/out)" 10
zevo policy set -p rsync --plan 'all all-day on'
warns 'never changes: at every hour on: limits apply' plan next -p rsync
refused 2 'not in range' plan next 0 -p rsync

finish

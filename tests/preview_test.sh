#!/usr/bin/env bash
# What limits do before anybody's work depends on them: preview and its derivation, simulated
# transfers, and the library's tables. Runs in the sandbox; the tool's path is in ZEVOBW_TOOL.
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

# has_line WORDS: a line of the output, whatever the blanks in it.
has_line() { tr -s ' ' </tmp/out | sed 's/^ //' | grep -qxF -- "$1" || fail "no line: $1"; }
# field KEY: the values of a key of JSON, one a line.
field() { sed -n "s/^ *\"$1\": \(.*[^,]\),*$/\1/p" /tmp/out; }
# plan FILE CHARACTERS...: a plan of CHARACTERS and then 1 in every other hour of the week.
plan() {
    local text
    printf -v text '%-168s' "$2"
    sed -i "s/^schedule plan=.*/schedule plan=${text// /1}/" "$conf/bandwidth.$1.conf"
}
sections() { # OWNER NUMBER: so many transfers are listed in the owner's file
    local found
    found=$(grep -cs '^\[' "$running/$1")
    [[ ${found:-0} == "$2" ]]
}

# ---- preview ----

refused 4 'no such user' preview -u zed
refused 4 'no such protocol' preview -u alice -p gopher
for moment in '' sun 'sun 24:00' '02:30' 'sun 02:30 x' 'someday 02:30'; do
    refused 2 "'sun 02:30'" preview -u alice --at "$moment"
done

# Without a policy the rules apply to nobody, and preview does not pretend otherwise.
zevo rule set -u alice -p ftp --up 8M --down 4M
does preview -u alice -p ftp
has_line 'ftp (8 MiB/s) (4 MiB/s) no policy yet: nothing is limited'
err_has 'zevobandwidth policy set -p ftp'
zevo preview -u alice --json
same "$(field upload_bytes_per_s | head -1)" null
same "$(grep -c '"limits": "no policy yet' /tmp/out)" 4

# The whole way from the rules to the speed; a disabled rule is told, not counted.
zevo policy set -p ftp --user-group min --inter-group sum --occupy weighted
zevo rule set -g staff -p ftp --up 3M
zevo rule set -g guests -p ftp --up 1M --down 1M
zevo rule set -g alice -p ftp --up 5K --state disabled
does preview -u alice -p ftp --explain
silent
has_line 'user alice enabled 8 MiB/s 4 MiB/s'
has_line 'group staff enabled 3 MiB/s unlimited'
has_line 'group guests enabled 1 MiB/s 1 MiB/s'
has_line 'group alice disabled - -'
has_line 'the user'"'"'s own 8 MiB/s 4 MiB/s'
has_line 'the groups together inter-group sum 4 MiB/s unlimited'
has_line 'user and groups user-group min 4 MiB/s 4 MiB/s'
has_line 'group staff occupy weighted 75.0 % 100.0 %'
has_line 'group guests occupy weighted 25.0 % 0.0 %'
has_line 'a transfer alone 4 MiB/s 4 MiB/s'
has_line 'a new one beside those running 4.00 MiB/s 4.00 MiB/s'
(($(wc -L </tmp/out) <= 80)) || fail 'wider than 80 columns'

# A policy that does not look at groups leaves them out, whatever their rules.
zevo policy set -p ftp --user-group user-only
zevo preview -u alice -p ftp --explain
has_line 'group staff enabled, not asked - -'
has_line 'the groups together inter-group sum - -'
has_line 'a transfer alone 8 MiB/s 4 MiB/s'
zevo preview -u bob -p ftp
has_line 'ftp unlimited unlimited no rule applies to this user'

# Those that run leave a new transfer its share, and the simulation alone is not disturbed by them.
zevo policy set -p ftp --user-group group-only --inter-group max --occupy all
zevo rule set -g staff -p ftp --up 64K
"$ZEVOBW_TOOL" simulate -q -u bob -p ftp -d upload 10M >/dev/null & simulation=$!
wait_for sections group-3001 1
zevo preview -u bob -p ftp --explain --json
same "$(field upload_bytes_per_s | sort -u | tr '\n' ' ')" '32768 65536 '
same "$(field upload_percent)" 100.0
kill $simulation
wait $simulation
same $? 143
sections group-3001 0 || fail 'sections are left'

# Another hour: plans follow the local day and hour, and an hour that daylight saving skips is taken
# a week later.
zevo rule set -g staff -p ftp --custom-up 2M --state schedule
plan ftp '1120'
for line in 'sun 01:59 64 KiB/s' 'sunday 02:00 2 MiB/s' 'SAT 23:59 64 KiB/s'; do
    read -r day time speed <<<"$line"
    does preview -u bob -p ftp --at "$day $time"
    has_line "ftp $speed unlimited limits apply"
done
zevo preview -u bob -p ftp --at 'sun 03:30' --explain
has_line 'group staff schedule, off - -'
skipped=$(date -d 'next sunday' +%j)
after=$(date -d 'next sunday + 7 days' +%F)
export TZ=AAA0BBB,$((10#$skipped - 1))/2,364/23
zevo preview -u bob -p ftp --at 'sun 02:30' --json
same "$(field at | cut -c1-20)" "\"${after}T02:30:00"
unset TZ
zevo policy set -p ftp --state schedule
plan global '0'
zevo preview -u bob -p ftp --at 'sun 00:10'
has_line 'ftp (64 KiB/s) (unlimited) policy off at this hour: nothing is limited'

# What cannot be read is told with its place.
zevo policy set -p ftp --state enabled
sed -i 's/^upload rate=64$/upload rate=6x/' $conf/bandwidth.ftp.conf
fails 1 'zevobandwidth rule list' preview -u bob -p ftp

# ---- simulate ----

wipe
refused 2 'from 1K' simulate -u alice -p ftp -d upload 0
refused 2 '--count' simulate -u alice -p ftp -d upload 1M --count 1025
refused 2 '--direction' simulate -u alice -p ftp 1M
warns 'no limit applies' simulate -u alice -p ftp -d upload 100K
has_line "$(awk '$2 == "done" { print $1 }' /tmp/out) done 128 0.00 unlimited"

zevo policy set -p ftp
zevo rule set -u alice -p ftp --up 4M
does simulate -u alice -p ftp -d upload 1000 --count 3 --json
silent
same "$(grep -c '"result": "done"' /tmp/out)" 3
same "$(field kib | tr '\n' ' ')" '64 64 64 192 '
sections user-2001 0 || fail 'sections are left'
script -qec "$ZEVOBW_TOOL simulate -u alice -p ftp -d upload 1M" /dev/null >/tmp/out
! grep -q 'of unlimited' /tmp/out || fail 'the progress tells no limit'

# One of two is stopped, the other goes on; what the stopped one got is shown, nothing of it left.
zevo rule set -u alice -p ftp --up 512K
"$ZEVOBW_TOOL" simulate -u alice -p ftp -d upload 1M --count 2 >/tmp/simulated 2>&1 & simulation=$!
wait_for sections user-2001 2
pid=$(sed -n 's/^pid=//p' $running/user-2001 | head -1)
does stop -u alice --pid "$pid"
wait $simulation
same $? 1
cp /tmp/simulated /tmp/out
out_has '1 of 2 transfers stopped by an administrator'
same "$(awk '$2 == "stopped" { print $1 }' /tmp/out)" "$pid"
same "$(awk '$2 == "done" { print $3 }' /tmp/out)" 1024
sections user-2001 0 || fail 'sections are left'

# A signal ends them all and takes them off the list.
for signal in INT TERM; do
    # A background job would have its interrupts ignored.
    env --default-signal=INT "$ZEVOBW_TOOL" simulate -u alice -p ftp -d upload 100M --count 3 \
        >/tmp/out 2>&1 & simulation=$!
    wait_for sections user-2001 3
    mapfile -t pids < <(sed -n 's/^pid=//p' $running/user-2001)
    kill -$signal $simulation
    wait $simulation
    same $? $((128 + $(kill -l $signal)))
    sections user-2001 0 || fail 'sections are left'
    kill -0 "${pids[@]}" 2>/dev/null && fail 'processes are left'
done

# ---- dump ----

zevo rule set -u alice -p ftp --up 512K --custom-up 7M --state schedule
plan ftp "$(printf '2%.0s' {1..168})"
zevo rule set -g staff -p rsync --down 1M --state disabled
does dump rules
silent
has_line 'State Protocol Type Name U/L rate(KB/s) D/L rate(KB/s)'
has_line 'schedule ftp user alice 7168 0'
has_line 'disabled rsync group staff 0 0'
answers '' dump rules -g staff -p ftp --no-legend
printf '[user-4711]\nstate=enabled\nprotocol type=ftp\nowner type=user\n' >>$conf/bandwidth.ftp.conf
fails 1 'user 4711' dump rules -p ftp
has_line 'schedule ftp user alice 7168 0'
zevo dump policies -p ftp --no-legend
has_line "$(printf '%s ' enabled ftp user-first max max)"

transfer user-2001 4711-1 ftp upload '"a\x1B[2Jb"' >$running/user-2001
for arguments in '' '-u alice' '-p ftp'; do
    # shellcheck disable=SC2086
    tells $'1024.00     512.00 42.50 a\x1B[2Jb' dump transfers $arguments
done
answers '' dump transfers -p rsync
script -qec "$ZEVOBW_TOOL dump transfers" /dev/null >/tmp/out
out_has 'a\x1B[2Jb'

finish

#!/usr/bin/env bash
# "zevobandwidth pipe" as programs around it meet it: the bytes, the speed, the list of transfers,
# the signals, the ends. Measures real time. Runs in the sandbox; the tool's path is in ZEVOBW_TOOL.
# shellcheck disable=SC2317  # much is called by wait_for and in_the_end
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

has() { grep -qF -- "$2" "$1" || fail "missing in $1: $2"; }
# A speed is looked at up to five times: a machine that is busy elsewhere spoils one look, a fault all.
between() { (($2 <= $1 && $1 <= $3)) || ! echo "$1 is not between $2 and $3" >&2; }
in_the_end() {
    for _ in {1..5}; do "$@" && return; done
    fail "not once: $*"
}
is_listed() { [[ $(listed) -ge ${1:-1} ]]; }

pipe() { exec "$ZEVOBW_TOOL" pipe -u "$1" -p rsync -d upload "${@:2}"; }

# ends STATUS PID
ends() {
    status=0
    wait "$2" || status=$?
    same "$status" "$1"
    nobody_listed
}

head -c 5000001 /dev/urandom >/tmp/data

# ---- without limits: a note, and the bytes as they were ----

"$ZEVOBW_TOOL" pipe -p ftp -d download </tmp/data >/tmp/copy 2>/tmp/err || fail 'pipe failed'
has /tmp/err 'zevobandwidth policy set -p ftp'
cmp /tmp/data /tmp/copy || fail 'other bytes'
"$ZEVOBW_TOOL" pipe -q -p ftp -d download </tmp/data >/tmp/copy 2>/tmp/err || fail 'pipe failed'
[[ ! -s /tmp/err ]] || fail '-q is not quiet'

does rule set -u alice -p rsync --up 20M
does policy set -p rsync --user-group min --inter-group max --occupy all
for _ in unlimited limited; do
    # shellcheck disable=SC2094  # nothing is written
    pipe alice </tmp/data | cmp - /tmp/data || fail 'file to pipe'
    # shellcheck disable=SC2002
    cat /tmp/data | pipe alice | cat | cmp - /tmp/data || fail 'pipe to pipe'
    { sleep 0.3 && cat /tmp/data; } | pipe alice | { sleep 0.5 && cat; } | cmp - /tmp/data ||
        fail 'late writer and reader'
    echo first >/tmp/copy
    # shellcheck disable=SC2002
    cat /tmp/data | pipe alice >>/tmp/copy
    { echo first && cat /tmp/data; } | cmp - /tmp/copy || fail 'appended to a file'
    nobody_listed
    does rule set -u alice -p rsync --up unlimited
done

# ---- what is wrong is said ----

"$ZEVOBW_TOOL" pipe -u zed -p rsync -d upload </dev/null 2>/tmp/err
same $? 4
does rule set -u alice -p rsync --up 1M
touch $running.file && rm -rf $running && ln -s $running.file $running
(pipe alice </dev/zero >/dev/null 2>/tmp/err)
same $? 1
has /tmp/err "$running"
rm $running

# ---- the list and the ends ----

pipe alice --name $'a\nb' --size 100M </dev/zero >/dev/null 2>/tmp/err &
wait_for is_listed
has $running/user-2001 'uid=2001'
sleep 0.3
[[ $(sed -n 's/^progress=//p' $running/user-2001) -gt 0 ]] || fail 'no progress'
kill -TERM $!
ends 143 $!

env --default-signal=INT "$ZEVOBW_TOOL" pipe -u alice -p rsync -d upload </dev/zero >/dev/null &
wait_for is_listed
kill -INT $!
ends 130 $!

# Its reader goes away: while bytes flow, and while none come.
mkfifo /tmp/from /tmp/to
pipe alice </dev/zero >/tmp/to &
head -c 1000 /tmp/to >/dev/null
ends 141 $!
pipe alice </tmp/from >/tmp/to &
exec 4>/tmp/from 5</tmp/to
wait_for is_listed
exec 5<&-
ends 141 $!
exec 4>&-

# An administrator stops it: while bytes flow, and while none come. A save may undo one attempt.
stopped() {
    sed -i 's/^active=1/active=0/' "$running"/user-2001
    ! kill -0 "$1" 2>/dev/null
}
for input in /dev/zero /tmp/from; do
    exec 4<>/tmp/from
    pipe alice <$input >/dev/null 2>/tmp/err &
    wait_for is_listed
    wait_for stopped $!
    ends 1 $!
    has /tmp/err 'an administrator has stopped this transfer'
    exec 4>&-
done

# ---- the speed ----

# A reload storm neither ends the transfer nor makes it faster or slower.
does rule set -u alice -p rsync --up 2M
lasts_as_long_in_a_storm() {
    local began start took
    began=$(now_ms)
    head -c 1K /dev/zero | pipe bob >/dev/null
    start=$(($(now_ms) - began)) # without a limit
    began=$(now_ms)
    head -c 4M /dev/zero | pipe alice >/dev/null &
    wait_for is_listed
    while kill -HUP $! 2>/dev/null; do
        sleep 0.003
    done
    took=$(($(now_ms) - began))
    ends 0 $!
    ((took >= 1950)) || fail "4 MiB at 2 MiB/s took only $took ms"
    between "$took" 1950 $((2300 + start))
}
in_the_end lasts_as_long_in_a_storm

# moved SECONDS: what comes out of the transfer behind descriptor 5, in KiB a second.
moved() {
    local -r began=$(now_ms)
    local -r bytes=$(timeout "$1" cat <&5 | wc -c)
    echo $((bytes * 1000 / 1024 / ($(now_ms) - began)))
}

# A change is obeyed in both directions, without a burst.
pipe alice </dev/zero >/tmp/to &
exec 5</tmp/to
moved 1 >/dev/null
moves_at() {
    moved 0.5 >/dev/null
    between "$(moved 1)" $(($1 * 93 / 100)) $(($1 * 107 / 100))
}
for rate in 512 8192 512; do
    does rule set -u alice -p rsync --up ${rate}K
    in_the_end moves_at $rate
done
kill -TERM $!
exec 5<&-
wait $!
nobody_listed

# Three of two users share a group's rate by users; when one leaves, the others take its part.
does rule set -u alice -p rsync --up unlimited
does rule set -g staff -p rsync --up 4M
does policy set -p rsync --user-group group-only
pids=()
for user in alice alice bob; do
    pipe "$user" </dev/zero > >(cat >>"/tmp/of-$user") &
    pids+=($!)
done
size() { stat -c %s "/tmp/of-$1"; }
speeds() { # SECONDS: of both, in KiB a second
    local -r began=$(now_ms)
    alice=$(size alice) bob=$(size bob)
    sleep "$1"
    local -r ms=$(($(now_ms) - began))
    alice=$((($(size alice) - alice) * 1000 / 1024 / ms))
    bob=$((($(size bob) - bob) * 1000 / 1024 / ms))
}
shared_by_users() { speeds 2 && between $((alice + bob)) 3950 4250 && between "$bob" 1900 2200; }
all_for_alice() { speeds 1 && between "$alice" 3850 4350; }
sleep 1.5
in_the_end shared_by_users
kill -TERM "${pids[2]}"
wait "${pids[2]}"
sleep 0.5
in_the_end all_for_alice
kill -TERM "${pids[@]:0:2}"
wait
nobody_listed

# ---- on a terminal ----

does policy set -p rsync --user-group user-only
does rule set -u alice -p rsync --up 2M
if command -v script >/dev/null; then
    COLUMNS=80 script -qec "head -c 4M /dev/zero | '$ZEVOBW_TOOL' pipe -u alice -p rsync -d upload \
        --size 4M --name \$'x\\033[2Jy' >/dev/null" /dev/null >/tmp/screen </dev/null
    has /tmp/screen '2.00 MiB/s'
    has /tmp/screen 'left'
    ! grep -q $'\033\\[2J' /tmp/screen || fail 'a name reached the terminal as it was'
    tr '\r' '\n' </tmp/screen | sed 's/\x1b\[K//' | awk 'length > 79 { exit 1 }' ||
        fail 'a line is too long'
fi

finish

#!/usr/bin/env bash
# What every other test leans on: that a sandbox keeps its promises, above all towards the machine.
set -euo pipefail

sandbox=$(cd "${BASH_SOURCE[0]%/*}" && pwd)/sandbox
failed=0

expect() { # TEXT WANTED GOT
    [[ $2 == "$3" ]] || { printf '%s: wanted [%s], got [%s]\n' "$1" "$2" "$3" && failed=1; }
}

status_of() {
    local status=0
    "$@" >/dev/null 2>&1 || status=$?
    echo "$status"
}

status=$(status_of "$sandbox" true)
[[ $status == 0 ]] || exec "$sandbox" true # tells why, and skips with 77 where it is not permitted

expect 'exit status' 7 "$(status_of "$sandbox" bash -c 'exit 7')"
expect 'killed command' 137 "$(status_of "$sandbox" bash -c 'kill -KILL $$')"
expect 'standard input' 'a line' "$(echo 'a line' | "$sandbox" cat)"
# shellcheck disable=SC2016  # expanded inside
expect 'directory and environment' "/ a  b" "$(cd / && X='a  b' "$sandbox" bash -c 'echo "$PWD $X"')"
expect 'users' 'alice staff guests' "$("$sandbox" id -Gn alice)"

# Neither sees the other's, even when two sandboxes write the same places at once. Never clear /tmp
# in here: the repository may be bound into it.
mark=sandbox-test-$$
outside=$(mktemp "/tmp/$mark.XXXXXX")
"$sandbox" bash -c "mkdir -p /usr/zevo/etc/bandwidth && touch /tmp/$mark /run/$mark && sleep 0.2" &
expect 'side by side' '' "$(sleep 0.1 && "$sandbox" bash -c "ls -d /tmp/$mark* /usr/zevo 2>/dev/null")"
wait $!
rm "$outside"
expect 'nothing outside' '' "$(ls -d "/tmp/$mark" "/run/$mark" 2>/dev/null)"
"$sandbox" --disk touch "/tmp/$mark"
expect 'nothing on the disk' '' "$(find /var/tmp -name "$mark" 2>/dev/null)"

# Whatever was started inside ends with it, however it ends. From outside a process is known by the
# odd length of its sleep.
still_sleeping() { # LENGTH
    sleep 0.2
    grep -lzx "[${1:0:1}]${1:1}" /proc/[0-9]*/cmdline 2>/dev/null | wc -l # nor grep itself
}
"$sandbox" bash -c "setsid sleep 60.0$$ & exit 0"
expect 'daemons end too' 0 "$(still_sleeping "60.0$$")"
for signal in TERM KILL; do
    "$sandbox" bash -c "sleep 61.0$$" &
    sleep 0.3
    kill -"$signal" $!
    wait $! 2>/dev/null || true
    expect "ended by SIG$signal" 0 "$(still_sleeping "61.0$$")"
done
exit "$failed"

#!/usr/bin/env bash
# "top" in a real terminal: what it shows, its keys, its sizes, its ends.
# shellcheck disable=SC2317  # much is called by wait_for
source "${BASH_SOURCE[0]%/*}/support/tool.sh"
command -v tmux >/dev/null || { echo 'tmux is not installed' && exit 77; }
export LC_ALL=C.UTF-8

terminal() { tmux -L top -f /dev/null -u "$@"; }
screen() { terminal capture-pane -p; }
shows() { screen | grep -qF -- "$1"; }
matches() { screen | grep -Eq -- "$1"; }
hides() { ! shows "$1"; }
press() { terminal send-keys "$@"; }
# run VARIABLE...: top, told of when it has ended, by a shell that first writes down how its terminal is
run() {
    rm -f /tmp/ended /tmp/stty
    press "stty -g >/tmp/stty; $* '$ZEVOBW_TOOL' top -d 0.2; echo \$? \$(stty -g) >/tmp/ended" Enter
}
ended() { [[ -s /tmp/ended ]]; }
top_pid() { pgrep -f "^$ZEVOBW_TOOL top"; }
gone() { ! kill -0 "$1" 2>/dev/null; }

# over STATUS: it has ended so, and the terminal is as it was
over() {
    wait_for ended
    same "$(cat /tmp/ended)" "$1 $(cat /tmp/stty)"
    wait_for shows before
    hides PROTO || fail 'the screen was not given back'
}

# What it can't do without.
fails 1 'needs a terminal' top
zevo top --json
exits 2

zevo rule set -g staff -p rsync --up 4M
zevo policy set -p rsync --user-group group-only --occupy all
terminal new-session -d -x 80 -y 24 'PS1="before " bash --norc --noprofile'
wait_for shows before
run TERM=nonsense
over 1
shows 'is not known here' || fail 'an unknown terminal is not told'

# ---- what it shows ----

run
wait_for shows 'No limited transfers are running'
pids=()
for user in alice bob; do
    "$ZEVOBW_TOOL" pipe -u $user -p rsync -d upload --name "of-$user" \
        --size 100M </dev/zero >/dev/null 2>&1 &
    pids+=($!)
done
wait_for shows of-bob
# both get half of what the group has, which the first line tells
wait_for matches '^staff +rsync +up +2 .* 4.00 MiB +(9[0-9]|10[0-9])% ██'
wait_for matches "^alice +rsync +up +${pids[0]} .* 2.00 MiB +50% +[0-9]+%.*[▅▆▇█]+ of-alice"
wait_for matches '% +0:[0-9]{2} .*of-alice' # the time left

transfer user-2003 4711-2 ftp download '"x\x1B[2J\n\xFF\xC2\x9B\xE2\x80\xAEcod.exe"' \
    >$running/user-2003
terminal resize-window -x 140 -y 24
wait_for shows 'x\x1B[2J\x0A\xFF\xC2\x9B\xE2\x80\xAEcod.exe'
shows of-alice || fail 'a file name cleared the screen'

# ---- sizes ----

terminal resize-window -x 40 -y 10
narrow() { [[ $(screen | wc -L) -le 40 && $(screen | wc -l) == 10 ]] && shows of-alice; }
wait_for narrow
hides 4711 || fail 'too wide for 40 columns'
for size in '1 1' '2 2' '9 3' '200 50' '80 24'; do
    terminal resize-window -x "${size% *}" -y "${size#* }"
    sleep 0.1
done
wait_for shows 4711

# ---- keys ----

press '?'
wait_for shows 'Any key goes back'
press Escape
wait_for shows of-bob
press /
press of-bob Enter
wait_for hides of-alice
shows '1 with "of-bob"' || fail 'the filter is not told'
press x
wait_for shows "Stop the upload of bob, process ${pids[1]}? (y/n)"
press n
wait_for shows 'Nothing was stopped'
kill -0 "${pids[1]}" || fail 'stopped in spite of a no'
kill -HUP "$(top_pid)" # the notice that limits have changed
press x
wait_for shows '(y/n)'
press y
wait_for shows "Process ${pids[1]}: stopped after"
wait_for gone "${pids[1]}"
press Escape
wait_for shows of-alice
press q
over 0

# ---- ends ----

for signal in INT TERM QUIT; do
    run
    wait_for shows of-alice
    kill -$signal "$(top_pid)"
    over 0
done
run NO_COLOR=1
wait_for shows of-alice
! terminal capture-pane -pe | grep -qE $'\033\\[(3[0-8]|38)' || fail 'colored in spite of NO_COLOR'
press q
over 0

# The terminal goes away and nobody is left to end it.
run
wait_for shows of-alice
pid=$(top_pid)
terminal kill-server
wait_for gone "$pid"
kill "${pids[0]}"

finish

#!/usr/bin/env bash
# The examples, as built beside the tool, do what they say: hold their limits, obey notices and
# stops, leave nothing behind. Times are only compared with what a limit makes impossible. Runs in
# the sandbox.
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

# With EXAMPLES set: those that were built elsewhere, as against an installed package.
readonly examples=${EXAMPLES:-${ZEVOBW_TOOL%/bin/*}/examples}

# shellcheck disable=SC2317  # called by wait_for
has_listed() { [[ $(listed) -eq $1 ]]; }
# took_at_least MS SINCE WHAT
took_at_least() {
    local took=$(($(now_ms) - $2))
    ((took >= $1)) || fail "$3: took only $took ms"
}

head -c 4M /dev/urandom >/tmp/data

# ---- throttled_copy, running_transfers ----

does rule set -u root -p ftp --up 2M
does policy set -p ftp --state enabled
began=$(now_ms)
"$examples/throttled_copy" </tmp/data >/tmp/copy &
copier=$!
wait_for has_listed 1
"$examples/running_transfers" root alice >/tmp/out 2>/tmp/err
same "$(awk '{ print NR, $1, $2, $3, $4, $NF }' /tmp/out)" "1 root ftp upload $copier copy"
out_has 'of       2048 KB/s'
wait $copier || fail "the copy ended with $?"
took_at_least 1500 "$began" '4 MiB at 2 MiB/s'
cmp /tmp/data /tmp/copy || fail 'other bytes'
nobody_listed
"$examples/running_transfers" nobody-there >/tmp/out 2>/tmp/err && fail 'an unknown user passed'
err_has 'no user nobody-there'

"$examples/throttled_copy" </tmp/data >/dev/full 2>/tmp/copier.err && fail 'a full disk passed'
grep -q 'No space' /tmp/copier.err || fail 'a full disk was not told'
nobody_listed

# Slow enough to take a minute: a notice frees it, a stop ends it.
does rule set -u root -p ftp --up 64K
"$examples/throttled_copy" </tmp/data >/tmp/copy &
copier=$!
wait_for has_listed 1
does rule set -u root -p ftp --up unlimited
began=$(now_ms)
kill -HUP $copier
wait $copier || fail "the copy ended with $?"
(($(now_ms) - began < 30000)) || fail 'the notice was not obeyed'
cmp /tmp/data /tmp/copy || fail 'other bytes'
nobody_listed

does rule set -u root -p ftp --up 64K
"$examples/throttled_copy" </tmp/data >/tmp/copy 2>/tmp/copier.err &
copier=$!
wait_for has_listed 1
does stop -u root
wait $copier
same $? 1
grep -q stopped /tmp/copier.err || fail 'the stop was not told'
nobody_listed
wipe

# ---- what the guide for services puts together ----

# Under the name by which changing commands know whom to tell, and so not beside its libraries.
export LD_LIBRARY_PATH=${ZEVOBW_TOOL%/bin/*}/lib
for language in c cpp; do
    service=/tmp/zevobandwidth
    cp "$examples/integrating_$language" $service
    does rule set -u bob -p ftp --up 2M
    does policy set -p ftp --state enabled
    began=$(now_ms)
    $service bob </tmp/data >/tmp/copy || fail "$language: ended with $?"
    took_at_least 1500 "$began" "$language: 4 MiB at 2 MiB/s"
    cmp /tmp/data /tmp/copy || fail "$language: other bytes"
    nobody_listed

    does rule set -u bob -p ftp --up 64K
    $service bob </dev/zero 2>/tmp/service.err >/tmp/copy &
    pid=$!
    wait_for has_listed 1
    does rule set -u bob -p ftp --up 96K
    wait_for grep -qx 'expect speed=98304' $running/user-2002
    does stop -u bob
    wait $pid
    same $? 1
    grep -q 'stopped by an administrator' /tmp/service.err || fail "$language: the stop was not told"
    nobody_listed

    # Other faults are told, with a failed status; the end that a signal asks for leaves nothing.
    $service bob </tmp/data >/dev/full 2>/tmp/service.err && fail "$language: a full disk passed"
    [[ -s /tmp/service.err ]] || fail "$language: a full disk was not told"
    $service bob </tmp 2>/tmp/service.err >/tmp/copy && fail "$language: a failed read passed"
    [[ -s /tmp/service.err ]] || fail "$language: a failed read was not told"
    mkfifo /tmp/silent
    $service bob <>/tmp/silent 2>/tmp/service.err >/tmp/copy &
    pid=$!
    wait_for has_listed 1
    kill -TERM $pid
    wait $pid
    same $? 1
    nobody_listed
    rm /tmp/silent

    does policy set -p ftp --state disabled
    # shellcheck disable=SC2094  # nothing is written
    $service bob </tmp/data | cmp - /tmp/data || fail "$language: other bytes without a limit"
    wipe
done

# ---- file_server ----

mkdir /tmp/files
head -c 2M /tmp/data >/tmp/files/whole
head -c 1M /tmp/data >/tmp/files/half
does policy set -p ftp --user-group group-only --inter-group max --occupy all
does rule set -g staff -p ftp --down 2M --up 2M

declare -A port
servers=()
for user in alice bob; do
    "$examples/file_server" $user 0 /tmp/files >/tmp/server.out 2>>/tmp/server.err &
    servers+=($!)
    wait_for grep -q : /tmp/server.out
    port[$user]=$(sed 's/.*://' /tmp/server.out)
    rm /tmp/server.out
done

# get USER NAME COPY
get() {
    exec 3<>"/dev/tcp/127.0.0.1/${port[$1]}"
    printf 'get %s\n' "$2" >&3
    cat <&3 >"$3"
}

# Two of Alice's at once and one of Bob's, under their group's limit: 4 MiB at 2 MiB/s in all.
began=$(now_ms)
(get alice half /tmp/alice1) &
getters=($!)
(get alice half /tmp/alice2) &
getters+=($!)
(get bob whole /tmp/bob) &
getters+=($!)
wait_for has_listed 4 # one for each user, in his file and in the group's
[[ -e $running/user-2001 && -e $running/user-2002 ]] || fail 'one user of two is listed'
wait "${getters[@]}"
took_at_least 1500 "$began" 'two users of one group'
for copy in alice1 alice2; do
    cmp /tmp/files/half "/tmp/$copy" || fail "other bytes for $copy"
done
cmp /tmp/files/whole /tmp/bob || fail 'other bytes for bob'
wait_for has_listed 0

exec 3<>"/dev/tcp/127.0.0.1/${port[alice]}"
{ printf 'put new\n' && cat /tmp/data; } >&3
exec 3>&-
wait_for cmp -s /tmp/data /tmp/files/new
wait_for has_listed 0

for line in 'get ../data' 'get .' 'steal whole' 'get nothing' 'get '; do
    exec 3<>"/dev/tcp/127.0.0.1/${port[alice]}"
    printf '%s\n' "$line" >&3
    same "$(timeout 10 cat <&3 2>&1)" 'cat: -: Connection reset by peer'
done

# Slowed down under way by a notice to the servers, then stopped: all of the user's at once.
(get alice whole /tmp/alice1 2>/dev/null) &
getters=($!)
(get alice whole /tmp/alice2 2>/dev/null) &
getters+=($!)
(get bob whole /tmp/bob 2>/dev/null) &
does rule set -g staff -p ftp --down 2M --up 32K
exec 3<>"/dev/tcp/127.0.0.1/${port[alice]}"
{ printf 'put whole\n' && cat /tmp/data; } >&3 2>/dev/null &
wait_for has_listed 6 # Alice's upload, too
does rule set -g staff -p ftp --down 32K
kill -HUP "${servers[@]}"
wait_for grep -q '^expect speed=16384' $running/group-3001
does stop -u alice --yes
wait "${getters[@]}" && fail 'a stopped download ends as if it were whole'
(($(stat -c %s /tmp/alice1) < 2097152)) || fail 'a stopped download is whole'
wait_for has_listed 2
head -c 2M /tmp/data | cmp - /tmp/files/whole || fail 'a stopped upload has hurt the file'
same "$(find /tmp/files -type f | wc -l)" 3

# Its end is everybody's, and leaves nothing.
kill -TERM "${servers[@]}"
for server in "${servers[@]}"; do
    wait "$server" || fail "a server ended with $?"
done
nobody_listed
[[ ! -s /tmp/server.err ]] || fail "a server complained: $(cat /tmp/server.err)"
"$examples/file_server" zed 0 /tmp/files 2>/dev/null && fail 'an unknown user passed'

# ---- addon_protocol ----

addon() {
    status=0
    "$examples/addon_protocol" "$@" >/tmp/out 2>/tmp/err || status=$?
}
addon backup 32 alice 512
exits 0
tells '"backup_32.json"' addon list --json
out_has '"usable": true'
tells '512 KiB/s' rule show -u alice -p backup
tells 'limits apply' preview -u alice -p backup
for words in 'backup 64' 'other 32' 'ftp 64' 'odd 33' 'odd 4' 'a/b 64' 'global 64'; do
    # shellcheck disable=SC2086  # two words
    addon $words alice 512
    exits 1
done
same "$(ls $conf/addon)" backup_32.json

finish

#!/usr/bin/env bash
# The commands that deal with running transfers: listing, stopping and forgetting them, metrics. With
# real transfers, and with status files as a hostile user would plant them.
# shellcheck disable=SC2317  # some is called by wait_for
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

# ---- transfers ----

mkdir -p $running $conf/addon
touch $conf/addon/{backup_32,mirror_36}.json
{
    transfer user-2001 11-1 ftp upload first
    transfer user-2001 12-1 ftp upload second
    transfer user-2001 13-2 ftp download third
    transfer user-2001 14-1 mirror upload fourth
} >$running/user-2001
transfer user-2002 15-1 ftp upload fifth | sed 's/^expect speed=.*/expect speed=0/' \
    >$running/user-2002
transfer group-3001 11-1 ftp upload first >$running/group-3001
files() { awk 'NR > 1 { print $NF }' /tmp/out | tr '\n' ' '; }

zevo transfers -p ftp -d upload
exits 0
same "$(files)" 'first second fifth '
zevo transfers -p mirror # shares bits with ftp and with backup
same "$(files)" 'fourth '
zevo transfers -p backup
err_has 'No limited transfers'
zevo transfers -u alice -d download
same "$(files)" 'third '
zevo transfers --merge
exits 0
same "$(tr -s ' ' </tmp/out | tail -n +2)" 'user alice ftp upload 1.00 MiB/s 2.00 MiB/s
user alice ftp download 512 KiB/s 1.00 MiB/s
user alice mirror upload 512 KiB/s 1.00 MiB/s
user bob ftp upload 512 KiB/s unlimited
group staff ftp upload 512 KiB/s 1.00 MiB/s'
zevo transfers --merge -u bob --json
same "$(tr -d ' \n' </tmp/out)" '[{"owner":"user","name":"bob","id":2002,"protocol":"ftp",'`
    `'"direction":"upload","speed_bytes_per_s":524288,"allowed_bytes_per_s":null}]'

for seconds in 0 -1 x 1e9; do
    zevo transfers --watch $seconds
    exits 2
done
for form in '' --json; do
    for signal in INT TERM; do
        : >/tmp/blocks
        # shellcheck disable=SC2086
        env --default-signal=INT "$ZEVOBW_TOOL" transfers -u bob --watch 0.1 $form >>/tmp/blocks &
        blocks() { [[ $(grep -c fifth /tmp/blocks) -ge 3 ]]; }
        wait_for blocks
        kill -$signal $!
        wait $! || fail "--watch ended with $?"
        [[ -n $form ]] || same "$(sed -n 3,4p /tmp/blocks | cut -c1-4)" $'\nUSER'
        [[ -z $form ]] || same "$(grep -cvE '^\[\{.*\}\]$' /tmp/blocks)" 0
    done
done
# A reader that does not read on keeps nobody from ending it, one that is gone ends it.
mkfifo /tmp/unread
exec 4<>/tmp/unread
dd if=/dev/zero bs=4k count=16 of=/tmp/unread oflag=nonblock 2>/dev/null
"$ZEVOBW_TOOL" transfers --watch 0.1 >&4 &
stuck() { grep -q '^SigCgt.*[1-9a-f]' "/proc/$!/status" && grep -q '^State:.S' "/proc/$!/status"; }
wait_for stuck
kill -TERM $!
wait $! || fail "unread, --watch ended with $?"
exec 4>&-
"$ZEVOBW_TOOL" transfers --watch 0.1 2>/tmp/err | head -1 >/dev/null
silent

finish

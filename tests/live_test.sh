#!/usr/bin/env bash
# The commands that deal with running transfers: listing, stopping and forgetting them, metrics. With
# real transfers, and with status files as a hostile user would plant them.
# shellcheck disable=SC2317  # some is called by wait_for
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

# pipe USER ARG...: a transfer without end in the background, its pid in $!
pipe() { exec "$ZEVOBW_TOOL" pipe -u "$1" -d upload "${@:2}" </dev/zero >/dev/null 2>"/tmp/err-$1"; }
listed() { [[ $(cat $running/user-* 2>/dev/null | grep -c '^\[') == "$1" ]]; }

limit() {
    wipe
    mkdir $running
    zevo rule set -g staff -p rsync --up 4M
    zevo policy set -p rsync --user-group group-only --occupy all
}

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

does transfers -p ftp -d upload
same "$(files)" 'first second fifth '
zevo transfers -p mirror # shares bits with ftp and with backup
same "$(files)" 'fourth '
warns 'No limited transfers' transfers -p backup
zevo transfers -u alice -d download
same "$(files)" 'third '
does transfers --merge
same "$(tr -s ' ' </tmp/out | tail -n +2)" 'user alice ftp upload 1.00 MiB/s 2.00 MiB/s
user alice ftp download 512 KiB/s 1.00 MiB/s
user alice mirror upload 512 KiB/s 1.00 MiB/s
user bob ftp upload 512 KiB/s unlimited
group staff ftp upload 512 KiB/s 1.00 MiB/s'
zevo transfers --merge -u bob --json
same "$(tr -d ' \n' </tmp/out)" '[{"owner":"user","name":"bob","id":2002,"protocol":"ftp",'`
    `'"direction":"upload","speed_bytes_per_s":524288,"allowed_bytes_per_s":null}]'

for seconds in 0 -1 x nan 1e9; do
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

# ---- stop ----

limit
fails 4 'no such transfer' stop -u alice
for user in alice alice bob; do
    pipe $user -p rsync &
done
wait_for listed 3
fails 2 'add --yes' stop -u alice
listed 3 || fail 'stopped without being asked to'
answers 'user alice: 2 transfers would be stopped' stop -u alice -N
listed 3 || fail 'a dry run stopped'
zevo stop -u alice -d download
exits 4
zevo stop -u alice -p ftp --yes
exits 4
does stop -u bob -p rsync
grep -Eqx 'user bob: 1 transfer stopped after [0-9]+ ms' /tmp/out || fail 'not told'
does stop -u alice --yes --json
same "$(tr -d ' \n' </tmp/out | sed 's/[0-9]*,"left/N,"left/')" \
    '{"user":"alice","uid":2001,"stopped":2,"milliseconds":N,"left":[]}'
listed 0 || fail 'still listed'
wait
grep -q 'administrator has stopped' /tmp/err-alice || fail 'ended for another reason'

# A process that does not look at the mark, and one that is no more.
sleep 60 &
mkdir -p $conf/addon
touch $conf/addon/mirror_36.json
{
    transfer user-2001 "$!-1" mirror upload deaf
    transfer user-2001 999999-2 ftp download dead
} >$running/user-2001
does stop -u alice -p ftp
! grep -q dead $running/user-2001 || fail 'what a dead process left is still there'
fails 1 'marked but not ended' stop -u alice -p mirror --wait 0.1
grep -q '^active=0' $running/user-2001 || fail 'not marked'
does stop -u alice --wait 0

# ---- forget ----

fails 1 'still running' forget -u alice
grep -q deaf $running/user-2001 || fail 'a running transfer was forgotten'
{
    transfer user-2001 999998-1 ftp upload dead
    printf '[999997-2]\nprogress=nonsense\n'
} >>$running/user-2001
for group in 3001 3002 2003; do # his, his, and one that he is not in
    transfer group-$group 999996-1 ftp upload dead >$running/group-$group
done
transfer group-3001 999995-1 ftp upload bobs | sed 's/^uid=.*/uid=2002/' >>$running/group-3001
does forget -u alice --pid 999998
same "$(grep -c '^\[' $running/user-2001)" 2
answers 'user alice: the transfers of 2 processes would be forgotten' forget -u alice --dry-run
answers 'user alice: the transfers of 2 processes forgotten' forget -u alice
err_has '1 process still running'
same "$(cat $running/* | grep -o '^filename=.*' | sort)" $'filename=bobs\nfilename=deaf'
does forget -u alice --yes --json
same "$(tr -d ' \n' </tmp/out)" "{\"user\":\"alice\",\"uid\":2001,\"forgotten\":[$!],\"running\":0}"
zevo forget -u alice
exits 4
kill $!

# ---- metrics ----

# well_formed FILE: every line as the format has it, each sample behind the type of its family, none
# twice
well_formed() {
    local label='[a-z]+="([^"\\]|\\["\\n])*"' lines
    lines="^# (HELP [a-z_]+ .+|TYPE [a-z_]+ gauge)$"
    lines+="|^[a-z_]+(\{$label(,$label)*\})? ([0-9]+|\+Inf)$"
    ! grep -nvE "$lines" "$1" || fail 'malformed lines'
    awk '/^# TYPE/ { family = $3 } !/^#/ && index($0, family) != 1 { exit 1 }' "$1" ||
        fail 'a sample without its type'
    same "$(sed 's/ [^ ]*$//' "$1" | grep -v '^#' | sort | uniq -d)" ''
    iconv -f UTF-8 -t UTF-8 "$1" >/dev/null || fail 'no UTF-8'
    [[ -z $(tail -c 1 "$1") ]] || fail 'no line end'
}

# sample NAME LABELS VALUE
sample() { grep -qxF -- "zevobandwidth_$1{$2} $3" /tmp/out || fail "no such sample: $*"; }

wipe
does metrics
well_formed /tmp/out
limit
printf '%s\n' $'ev"i\\l\xff\x1b\xe2\x80\xae:x:2005:2005::/:/bin/sh' >>/etc/passwd
zevo rule set -u 2005 -p rsync --down 1M
zevo rule set -u 2001 -p ftp --state disabled
{
    transfer user-2005 11-1 rsync upload $'"\n} 1\x1b'
    transfer user-2005 12-1 rsync upload x
} >$running/user-2005
transfer user-9999 11-2 rsync download x | sed 's/^expect speed=.*/expect speed=0/' \
    >$running/user-9999
transfer group-3001 11-1 rsync upload x >$running/group-3001
does metrics
silent
well_formed /tmp/out
who='"ev\"i\\l\\xFF\\x1B\\xE2\\x80\\xAE"'
sample policy_enabled 'protocol="rsync"' 1
sample policy_enabled 'protocol="ftp"' 0
sample rules 'owner="user",protocol="ftp",state="disabled"' 1
sample rule_limit_bytes_per_second \
    'owner="group",protocol="rsync",name="staff",id="3001",direction="upload"' 4194304
sample rule_limit_bytes_per_second \
    "owner=\"user\",protocol=\"rsync\",name=$who,id=\"2005\",direction=\"upload\"" +Inf
his="user=$who,uid=\"2005\",protocol=\"rsync\",direction=\"upload\""
sample user_transfers "$his" 2
sample user_speed_bytes_per_second "$his" 1048576
sample user_allowed_bytes_per_second \
    'user="9999",uid="9999",protocol="rsync",direction="download"' +Inf
sample group_speed_bytes_per_second \
    'group="staff",gid="3001",protocol="rsync",direction="upload"' 524288
out_has 'zevobandwidth_unreadable 0'

# A file is replaced whole or not at all, and a list with holes says so.
mkdir /tmp/collector
does metrics -o /tmp/collector/zevo.prom
well_formed /tmp/collector/zevo.prom
same "$(stat -c %a /tmp/collector/zevo.prom)" 644
sed -i 's/^upload rate=.*/upload rate=1oo/' $conf/bandwidth.ftp.conf
zevo metrics -o /tmp/collector/zevo.prom
exits 1
grep -qx 'zevobandwidth_unreadable 1' /tmp/collector/zevo.prom || fail 'the hole is not told'
same "$(ls -A /tmp/collector)" zevo.prom
mount -t tmpfs -o size=4k full /tmp/collector
head -c 4096 /dev/zero >/tmp/collector/ballast
fails 1 'nothing was written' metrics -o /tmp/collector/zevo.prom
same "$(ls -A /tmp/collector)" ballast
umount /tmp/collector
zevo metrics -o /tmp/none/zevo.prom
exits 1

# ---- what may not be read or written ----

wipe
mkdir -m 777 $running
transfer user-2001 999999-1 ftp upload x >$running/user-2001
chmod 000 $running/user-2001
for command in transfers 'transfers -u alice --json' 'dump transfers' metrics 'stop -u alice' \
    'forget -u alice'; do
    # shellcheck disable=SC2086
    as_anybody $command
    exits 3
    err_has "not permitted to read $running/user-2001"
done
chmod 666 $running/user-2001
chmod 555 $running
as_anybody forget -u alice
exits 3
err_has 'cannot be removed'
chmod 777 $running
mkdir $running/group-3001
zevo forget -u bob # there may be more than could be read
exits 1
err_has "$running/group-3001"
rm -r $running && : >$running
zevo rule set -u alice -p ftp --up 1M
zevo policy set -p ftp
fails 1 "'zevobandwidth check'" simulate -u alice -p ftp -d upload 64K
rm $running

# ---- what was found by trying ----

lines=$(timeout -s INT 2.5 "$ZEVOBW_TOOL" transfers --watch --no-legend 2>&1 | wc -l)
((lines <= 30)) || fail "--watch without seconds does not pause: $lines lines"

finish

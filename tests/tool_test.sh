#!/usr/bin/env bash
# The administrator's commands as an administrator meets them: what they print, what they store, how
# they end. Runs in the sandbox, whose test users it names; the tool's path is in ZEVOBW_TOOL.
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

# value PROTOCOL KEY: of the only section that has the key.
value() { sed -n "s/^$2=//p" "$conf/bandwidth.$1.conf"; }

# ---- command line ----

zevo --help && exits 0 && out_has 'from the client to this server'
zevo --version && exits 0 && out_has 'zevobandwidth 7.'
for command in 'rule set' 'rule show' 'rule list' 'policy set' 'policy show' 'policy list' \
    transfers; do
    # shellcheck disable=SC2086
    tells "  zevobandwidth $command" $command --help
done

refused 2 'subcommand is required'
refused 2 'unknown command: frobnicate' frobnicate
refused 2 'unknown command: frobnicate' rule frobnicate
refused 2 'name the owner' rule set -p ftp --up 1M
refused 2 '--user excludes --group' rule set -u alice -g staff -p ftp --up 1M
refused 2 '--protocol is required' rule set -u alice --up 1M
refused 2 'nothing to change' rule set -u alice -p ftp
refused 2 'enabled,disabled,schedule' rule set -u alice -p ftp --state NotExisted
refused 2 'min,max,sum' policy set -p ftp --inter-group user-first
refused 2 '--user' rule show -u '' -p ftp
refused 2 'must not be empty' rule show --user= alice -p ftp
refused 2 'must not be empty' metrics --output= /tmp/swallowed
for command in export import 'metrics -o'; do
    # shellcheck disable=SC2086
    refused 2 'must not be empty' $command ''
done
for rate in 10 -5M 0K 0.5K 10Mb 99999999999999999999G M ''; do
    refused 2 '1.5M' rule set -u alice -p ftp --state disabled --up "$rate"
done
refused 4 'no such user: "zed"' rule set -u zed -p ftp --up 1M
refused 4 'no such user: "4294967295"' rule set -u 4294967295 -p ftp --up 1M
refused 4 'no such group: "alice2"' transfers -g alice2
refused 4 'docuhall, webdav, ftp, rsync' rule set -u alice -p gopher --up 1M
refused 4 'no single protocol' policy set -p all
[[ ! -e /usr/zevo ]] || fail 'refused commands made a directory'

# ---- rules ----

# A new rule is enabled; what is not named stays; ids do as well as names.
does rule set -u alice -p ftp --up 10M --down 1.5M
prints 'user alice, ftp: enabled, upload 10 MiB/s, download 1.5 MiB/s'
err_has 'zevobandwidth policy set -p ftp'
zevo rule set -u 2001 -p ftp --up 500KB
prints 'user alice, ftp: enabled, upload 488 KiB/s, download 1.5 MiB/s'
err_has 'rounded down to 488 KiB/s'
same "$(value ftp 'download rate')" 1536
zevo rule set -u alice -p ftp --state disabled
zevo rule set -u alice -p ftp --custom-down unlimited --custom-up 1gbit/s
prints 'user alice, ftp: disabled, upload 488 KiB/s, download 1.5 MiB/s, '`
       `'custom upload 122070 KiB/s, custom download unlimited'

# A user and a group of one number, and one rule on two protocols, are different rules.
zevo rule set -g alice -p ftp --down 2G
zevo rule set -u alice -p rsync --down unlimited
does rule list -p ftp
silent
same "$(wc -l </tmp/out)" 3
same "$(awk 'NR > 1 { print $1, $3 }' /tmp/out)" $'alice disabled\n@alice enabled'
does rule list --json
same "$(grep -c '"protocol"' /tmp/out)" 3
zevo rule show -g alice -p ftp --json
same "$(tr -d ' \n' </tmp/out)" '{"owner":"group","name":"alice","id":2001,"protocol":"ftp",'`
     `'"state":"enabled","upload_kib_per_s":null,"download_kib_per_s":2097152,'`
     `'"custom_upload_kib_per_s":null,"custom_download_kib_per_s":null,"plan":""}'
tells NotExisted rule show -u bob -p ftp

# A schedule without a plan is not what anybody means.
warns 'no plan of 168 hours' rule set -u bob -p ftp --state schedule --up 1M
sed -i "s/^schedule plan=$/schedule plan=$(printf '1%.0s' {1..168})/" $conf/bandwidth.ftp.conf
zevo rule set -u bob -p ftp --up 2M
err_lacks 'no plan'
out_has 'plan 168 hours'

# An owner that is gone is listed by id, foreign sections and comments stay.
printf '# by hand\n[user-4711]\nstate=enabled\nupload rate=7\n[user-04711]\nx=y\n' \
    >>$conf/bandwidth.ftp.conf
zevo rule set -u carol -p ftp --up 3M
zevo rule list -p ftp
grep -q '^4711 .* 7 KiB/s' /tmp/out || fail 'rule of an unknown user not listed'
grep -qxF '[user-04711]' $conf/bandwidth.ftp.conf || fail 'foreign section lost'

# Keys that contradict the section's name do not lead the next write astray.
printf '[user-2004]\nid=2003\nowner type=group\nprotocol type=rsync\nupload rate=5\n' \
    >>$conf/bandwidth.ftp.conf
zevo rule set -u dave -p ftp --down 1M
prints 'user dave, ftp: enabled, upload 5 KiB/s, download 1 MiB/s'
tells '3 MiB/s' rule show -u carol -p ftp

# A damaged rule is told with its place, changes nothing, and does not hide the others.
sed -i 's/^upload rate=5$/upload rate=5oo/' $conf/bandwidth.ftp.conf
refused 1 "section [user-2004] of $conf/bandwidth.ftp.conf" rule set -u dave -p ftp --down 2M
fails 1 'list is incomplete' rule list --json
same "$(grep -c '"name": "carol"' /tmp/out)" 1
rm $conf/bandwidth.ftp.conf && mkdir $conf/bandwidth.ftp.conf
fails 1 'regular file' rule show -u alice -p ftp

# ---- policies ----

wipe
does policy list
same "$(grep -c 'nothing is limited' /tmp/out)" 4
does policy set -p ftp --user-group min
silent
prints 'ftp: enabled, user-group min, inter-group max, occupy max'
zevo policy set -p ftp --state disabled --occupy weighted --inter-group min
prints 'ftp: disabled, user-group min, inter-group min, occupy weighted'
err_has 'zevobandwidth policy set -p ftp --state enabled'
tells 'disabled' policy set -p ftp
warns 'the policy of ftp is disabled' rule set -u alice -p ftp --up 1M
zevo policy set -p ftp --state enabled --user-group group-only
warns 'rules of users do not apply' rule set -u alice -p ftp --up 1M
zevo rule set -g staff -p ftp --up 1M
silent
zevo policy show -p ftp --json
same "$(tr -d ' \n' </tmp/out)" '{"protocol":"ftp","state":"enabled","user_group":"group-only",'`
     `'"inter_group":"min","occupy":"weighted","plan":""}'
warns 'no plan of 168 hours' policy set -p webdav --state schedule
same "$(grep -c '^\[' $conf/bandwidth.global.conf)" 2

# ---- add-ons ----

mkdir $conf/addon
touch $conf/addon/{backup_20,my_proto_33,x_5,y_5,evil_4,global_9,z_abc}.json
does rule set -u alice -p backup --up 1M
same "$(value backup 'protocol type')" backup
refused 4 'known are docuhall, webdav, ftp, rsync, backup, my_proto' policy set -p evil
for name in x global '*' 'back*' ../addon/backup; do
    zevo policy set -p "$name"
    exits 4
done
tells backup rule list

# ---- the notice ----

# Who bears the name is told, also when it is started by another path; nobody else is.
mkdir /tmp/named
cp "$(command -v sleep)" /tmp/named/zevobandwidthd
for change in 'rule set -u alice -p ftp --up 2M' 'policy set -p ftp --occupy none'; do
    /tmp/named/zevobandwidthd 60 & spared=$!
    named_program
    # shellcheck disable=SC2086
    does $change
    wait $told
    same "$(cat /tmp/ended)" 129
    kill $spared || fail 'another program was told'
    wait $spared 2>/dev/null
done

# Commands that run at once neither end each other by their notices nor lose each other's rules.
commands=()
for i in {1..8}; do
    for owner in '-u alice' '-u bob' '-u carol' '-g guests'; do
        # shellcheck disable=SC2086
        "$ZEVOBW_TOOL" rule set $owner -p webdav --up "${i}M" >/tmp/many 2>&1 &
        commands+=($!)
    done
done
for pid in "${commands[@]}"; do
    wait "$pid" || fail "a command among many ended with $?"
done
same "$(grep -c '^\[' $conf/bandwidth.webdav.conf)" 4

# ---- transfers ----

wipe
warns 'No limited transfers' transfers
answers '[]' transfers --json

mkdir -p $running $conf/addon
touch $conf/addon/backup_32.json
transfer user-2001 4711-1 ftp upload '/volume1/a b.iso' >$running/user-2001
transfer user-2001 4712-2 backup download '"x\x1B[2J\n\xFF\xC2\x9B\xE2\x80\xAEcod.exe"' \
    >>$running/user-2001
transfer group-3001 4711-1 ftp upload '/volume1/a b.iso' >$running/group-3001
ln -s /etc/passwd $running/user-2002
mkfifo $running/user-2003
zevo transfers
exits 1 # told, for no transfer of these users can run
err_has "$running/user-2002 cannot be read"
err_has "$running/user-2003 cannot be read"
same "$(wc -l </tmp/out)" 3
grep -Eq '^alice +ftp +upload +4711 +512 KiB/s +1.00 MiB/s +42.5 % +/volume1/a b.iso$' /tmp/out ||
    fail 'transfer not shown as it runs'
out_has 'x\x1B[2J\x0A\xFF\xC2\x9B\xE2\x80\xAEcod.exe'
zevo transfers --json
exits 1
same "$(grep -c '"user": "alice"' /tmp/out)" 2
rm $running/user-200[23]
out_has '"file": "x\u001b[2J\n\ufffd\u009b\u202ecod.exe"'
out_has '"protocol": "backup"'
zevo transfers -g staff
same "$(wc -l </tmp/out)" 2
answers '[]' transfers -u dave --json
head -c 65M /dev/zero >$running/user-2004
fails 1 "$running/user-2004 cannot be read" transfers
same "$(wc -l </tmp/out)" 3
rm -r $running && ln -s /etc $running
fails 1 'no link' transfers
rm $running

# ---- what the machine refuses ----

# A result that nobody can read is a failure, the change is made all the same.
wipe
for target in /dev/full '&-'; do
    status=0
    eval "'$ZEVOBW_TOOL' rule set -u alice -p ftp --up 1M 2>/tmp/err >$target" || status=$?
    : >/tmp/out
    exits 1
    err_has 'standard output'
    same "$(value ftp 'upload rate')" 1024
    rm $conf/bandwidth.ftp.conf
done
zevo rule set -u alice -p ftp --up 1M
for command in --help 'rule set --help' 'rule list' 'rule show -u alice -p ftp --json' \
    'policy list' 'preview -u alice' 'transfers --json' 'dump rules' metrics \
    export check 'completion bash'; do
    # shellcheck disable=SC2086
    prints_to /dev/full $command
    exits 1
    same "$(grep -c 'cannot write to standard output: No space left' /tmp/err)" 1
done
zevo rule set -u bob -p ftp --state schedule
sed -i 's/^upload rate=1024$/upload rate=1oo/' $conf/bandwidth.ftp.conf
prints_to /dev/full check # what else is to be told comes with its own exit status
exits 6
err_has 'cannot write to standard output'
rm $conf/bandwidth.ftp.conf
# The end of the room that a shell grants is no other than that of the disk.
status=0
(ulimit -f 1 && "$ZEVOBW_TOOL" --help >/tmp/large 2>/tmp/err) || status=$?
exits 1
err_has 'cannot write to standard output'

zevo rule set -u alice -p ftp --up 1M
mount -t tmpfs -o size=4k,mode=755 full $conf
head -c 4096 /dev/zero >$conf/ballast
fails 1 'disk full' policy set -p ftp
mount -o remount,bind,ro $conf
fails 3 'Read-only' policy set -p ftp
umount $conf

chmod 500 $conf
as_anybody rule set -u alice -p ftp --up 2M
exits 3
err_has 'not permitted to write'
same "$(value ftp 'upload rate')" 1024
as_anybody rule show -u alice -p ftp
exits 0
chmod 000 $conf
for command in 'rule show -u alice -p ftp' 'rule list' 'policy show -p ftp' \
    'rule set -u alice -p ftp --up 2M'; do
    # shellcheck disable=SC2086
    as_anybody $command
    exits 3
    err_has 'Permission denied'
done
chmod 755 $conf

finish

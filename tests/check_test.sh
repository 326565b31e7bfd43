#!/usr/bin/env bash
# Looking after the system: faults in its files and their repair, notices to services, add-ons.
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

# ---- check ----

# finds WHERE WHAT: 'check' has told that, in the file and line.
finds() { grep -F -- "$2" /tmp/out | grep -qF -- "$1: " || fail "not found: $1: $2"; }

# section NAME AGE: a transfer of alice saved so many seconds ago.
section() {
    printf '[%s]\npid=%s\nid=2001\nuid=2001\nactive=1\ntimestamp=%s\ncurrent speed=1\n' "$1" \
        "${1%-*}" "$(($(date +%s) - $2))"
    printf 'expect speed=2\nfilename="a\\"b\\n"\nowner type=user\nprotocol type=ftp\n'
    printf 'transfer type=upload\nprogress=0\n\n'
}

zevo check
exits 0
prints 'nothing found'
zevo policy set -p ftp
zevo rule set -u alice -p ftp --up 1M --plan 'all all-day normal'
mkdir -m 777 $running
(umask 0; section 4711-1 0 >$running/user-2001)
touch $running/user-2001.AbCdEf $conf/bandwidth.ftp.conf.AbCdEf
zevo check
exits 0
prints 'nothing found'

# Every kind of fault in the texts, each with its line.
cat >$conf/bandwidth.ftp.conf <<'CONF'
# by hand
[user-2001]
state=on
upload rate=5oo
download rate=-1
schedule plan=111
uplaod rate=5
id=2002
this is no setting
"custom"="x
[user-4711]
state=enabled
[user-02001]
nonsense=1
[user-2001]
[open
CONF
cat >$conf/bandwidth.global.conf <<'CONF'
[ftp]
user-group policy=best
inter-group policy=user-first
[gopher]
CONF
printf '[user-2001]\nstate=enabled\n' | tee $conf/bandwidth.gopher.conf >$conf/bandwidth.rsync.conf
zevo check
exits 6
err_has '16 findings'
while read -r file line what; do
    finds "$conf/bandwidth.$file.conf:$line" "$what"
done <<'FAULTS'
ftp 3 "state" is no name known here: "on"
ftp 4 "upload rate" is no number: "5oo"
ftp 5 "download rate" is no number: "-1"
ftp 6 "schedule plan" has 3 characters instead of 168
ftp 7 unknown setting "uplaod rate"
ftp 8 "2002" instead of "2001"
ftp 9 is no section, setting or comment
ftp 10 is no section, setting or comment
ftp 12 unknown user 4711
ftp 13 belongs to nobody: [user-02001]
ftp 15 second section of this name
ftp 16 is no section, setting or comment
global 2 "user-group policy" is no name known here
global 3 "inter-group policy" is no name known here
global 4 unknown protocol: [gopher]
FAULTS
finds $conf/bandwidth.gopher.conf 'unknown protocol'
finds $conf/bandwidth.rsync.conf 'hint: its rules do not apply'
out_has 'zevobandwidth rule clear -u 4711 -p ftp'
zevo rule clear -u 4711 -p ftp
zevo check
! grep -q 'unknown user' /tmp/out || fail 'the remedy does not cure'
! grep -q 'nonsense' /tmp/out || fail 'lines of an unknown section were judged'

# A repair removes what is old and sets modes; all else, links and planted names above all, stays.
wipe
zevo policy set -p ftp
zevo rule set -u alice -p ftp --up 1M
chmod 666 $conf/bandwidth.ftp.conf
chmod 700 $conf
mkdir -m 700 $running
section 4711-1 31 >$running/user-2001
section 4712-2 0 >>$running/user-2001
(umask 077; section 4713-1 0 >/tmp/precious)
ln /tmp/precious $running/user-2002
ln -s /tmp/precious $running/user-2003
ln -s /tmp/precious $running/user-2003.AbCdEf
mkfifo $running/user-2004
mkdir $running/group-3001
head -c 65M /dev/zero >$running/group-3002 && chmod 666 $running/group-3002
touch -d '11 seconds ago' $running/user-2001.AbCdEf $conf/bandwidth.ftp.conf.Ab12Ef $running/mine
touch $running/group-3001.XyZ123
before=$(ls $running)
zevo check --json
exits 6
same "$(ls $running)" "$before"
same "$(/usr/bin/python3 -c 'import json
print(sum(f["repairable"] and not f["repaired"] for f in json.load(open("/tmp/out"))))')" 8
refused 2 '--repair' check --dry-run
zevo check --repair --dry-run
exits 6
finds $conf 'would be repaired: its mode is 0700 instead of 0755'
finds $running/user-2001.AbCdEf 'would be repaired: a temporary file'
same "$(ls $running)" "$before"
same "$(stat -c %a $conf)" 700
zevo check --repair
exits 6
finds $conf 'repaired: its mode is 0700 instead of 0755'
finds $conf/bandwidth.ftp.conf 'repaired: its mode is 0666 instead of 0644'
finds $running/user-2001 'repaired: its mode is 0644 instead of 0666'
finds $running/user-2001:1 'ended without signing off: [4711-1]'
finds $running/user-2001.AbCdEf 'repaired: a temporary file'
finds $running/group-3002 'cannot be read'
finds $running/mine 'belongs to nobody'
for kind in user-2003 user-2004 group-3001; do
    finds $running/$kind 'no regular file'
done
err_has "$running/user-2002 cannot be repaired: Too many links"
same "$(stat -c '%a %h' /tmp/precious)" '600 2'
same "$(stat -c %a $running $running/user-2001 $conf $conf/bandwidth.ftp.conf | xargs)" \
    '777 666 755 644'
same "$(grep '^\[' $running/user-2001)" '[4712-2]'
for name in user-2001.AbCdEf user-2003 user-2003.AbCdEf mine group-3001 group-3001.XyZ123; do
    [[ $name == user-2001.AbCdEf ]] || [[ -e $running/$name ]] || fail "$name was removed"
done
[[ ! -e $running/user-2001.AbCdEf && ! -e $conf/bandwidth.ftp.conf.Ab12Ef ]] ||
    fail 'leftovers are still there'

# Junk ends the check of its file early, also where no line of it is a fault.
printf '[nobody]\n%s' "$(yes a= | head -c 8M)" >$running/user-2001
yes a | head -c 8M >$running/user-2002
timeout 5 "$ZEVOBW_TOOL" check >/tmp/out 2>/tmp/err && fail 'junk passed'
finds $running/user-2001:1 'belongs to nobody: [nobody]'
finds $running/user-2002:21 'further faults are not told'
rm -r $running && ln -s /usr $running
zevo check --repair
exits 6
finds $running 'it is no directory'
rm $running
chmod 000 $conf
status=0
setpriv --inh-caps=-all --bounding-set=-all "$ZEVOBW_TOOL" check >/tmp/out 2>/tmp/err || status=$?
exits 3

# ---- notify ----

zevo notify nobody
exits 2
mkdir -p /tmp/named /run/httpd
cp "$(command -v sleep)" /tmp/named/zevobandwidth
(exec 2>/dev/null; /tmp/named/zevobandwidth 60; echo $? >/tmp/ended) & told=$!
until pgrep -x zevobandwidth >/dev/null; do sleep 0.01; done
zevo notify all
exits 0
wait $told
same "$(cat /tmp/ended)" 129
out_has '1 process told'
out_has 'docuhall'
# shellcheck disable=SC2016
setsid bash -c 'trap "exit 42" USR2; echo $$ >/run/httpd/httpd-webdav.pid
    while :; do sleep 0.05; done' 2>/dev/null & server=$!
until [[ -s /run/httpd/httpd-webdav.pid ]]; do sleep 0.01; done
zevo notify webdav
exits 0
wait $server
same $? 42
zevo notify webdav --json
exits 1
err_has 'has not been told'
out_has '"result": -1'

# ---- add-ons ----

wipe
zevo addon list
exits 0
err_has 'no add-on protocols'
mkdir -p $conf/addon
touch $conf/addon/{backup_20,x_5,y_5,evil_4,z_abc}.json $conf/addon/readme
zevo addon list
exits 0
silent
same "$(awk 'NR > 1 { print $1, $2, $4, $5 }' /tmp/out | sort | xargs)" \
    '- - not usable: backup 20 usable evil 4 not usable: x 5 not usable: y 5 not usable:'
zevo check
exits 6
err_has '4 findings'
finds $conf/addon/z_abc.json 'cannot be used: its name is no NAME_NUMBER.json'
finds $conf/addon/evil_4.json 'taken by the system itself'
finds $conf/addon/x_5.json 'another file there has the same number'
out_has '    rename or remove one of the two'
zevo addon path backup
exits 0
prints $conf/addon/backup_20.json

# A name goes out as it is, but not to a terminal.
name=$'e\033[2Jvil'
touch "$conf/addon/${name}_21.json"
zevo addon path "$name"
prints "$conf/addon/${name}_21.json"
ZEVO_NAME=$name script -qec "$ZEVOBW_TOOL addon path \"\$ZEVO_NAME\"" /dev/null >/tmp/out
out_has 'e\x1B[2Jvil_21.json'
refused 4 'built in' addon path ftp
refused 4 'no such protocol' addon path gopher

finish

#!/usr/bin/env bash
# Looking after the system: faults in its files and their repair, notices to services, add-ons.
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

# ---- check ----

# finds WHERE WHAT: 'check' has told that, in the file and line.
finds() { grep -F -- "$2" /tmp/out | grep -qF -- "$1: " || fail "not found: $1: $2"; }

# section NAME AGE: a transfer of alice saved so many seconds ago.
section() {
    transfer user-2001 "$1" ftp upload '"a\"b\n"' |
        sed "s/^timestamp=.*/timestamp=$(($(date +%s) - $2))/"
}

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
printf '[nobody]\n%s' "$(yes a= | head -c 7M)" >$running/user-2001
yes a | head -c 7M >$running/user-2002
timeout 5 "$ZEVOBW_TOOL" check >/tmp/out 2>/tmp/err && fail 'junk passed'
finds $running/user-2001:1 'belongs to nobody: [nobody]'
finds $running/user-2002:21 'further faults are not told'
rm -r $running && ln -s /usr $running
zevo check --repair
exits 6
finds $running 'it is no directory'
rm $running
chmod 000 $conf
as_anybody check
exits 3

# ---- notify ----

zevo notify nobody
exits 2
mkdir -p /run/httpd
named_program
does notify all
wait $told
same "$(cat /tmp/ended)" 129
out_has '1 process told'
out_has 'docuhall'
# shellcheck disable=SC2016
setsid bash -c 'trap "exit 42" USR2; echo $$ >/run/httpd/httpd-webdav.pid
    while :; do sleep 0.05; done' 2>/dev/null & server=$!
until [[ -s /run/httpd/httpd-webdav.pid ]]; do sleep 0.01; done
does notify webdav
wait $server
same $? 42
fails 1 'has not been told' notify webdav --json
out_has '"result": -1'

# ---- add-ons ----

wipe
warns 'no add-on protocols' addon list
mkdir -p $conf/addon
touch $conf/addon/{backup_20,x_5,y_5,evil_4,z_abc}.json $conf/addon/readme
does addon list
silent
same "$(awk 'NR > 1 { print $1, $2, $4, $5 }' /tmp/out | sort | xargs)" \
    '- - not usable: backup 20 usable evil 4 not usable: x 5 not usable: y 5 not usable:'
fails 6 '4 findings' check
finds $conf/addon/z_abc.json 'cannot be used: its name is no NAME_NUMBER.json'
finds $conf/addon/evil_4.json 'taken by the system itself'
finds $conf/addon/x_5.json 'another file there has the same number'
out_has '    rename or remove one of the two'
answers $conf/addon/backup_20.json addon path backup

# A name goes out as it is, but not to a terminal.
name=$'e\033[2Jvil'
touch "$conf/addon/${name}_21.json"
answers "$conf/addon/${name}_21.json" addon path "$name"
ZEVO_NAME=$name script -qec "$ZEVOBW_TOOL addon path \"\$ZEVO_NAME\"" /dev/null >/tmp/out
out_has 'e\x1B[2Jvil_21.json'
refused 4 'built in' addon path ftp
refused 4 'no such protocol' addon path gopher

finish

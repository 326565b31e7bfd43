#!/usr/bin/env bash
# Rules and policies on their way out of the files and back: export, import, and the editor.
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

readonly schema=${BASH_SOURCE[0]%/*}/../docs/schema/config.json
weekdays=$(printf '0%.0s' {1..24}; printf '2%.0s' {1..24}; printf '1%.0s' {1..120})
readonly weekdays

# Everything there can be: an add-on, a plan, an owner who is gone, one that was cleared.
configure() {
    wipe
    mkdir -p $conf/addon && touch $conf/addon/backup_32.json
    zevo policy set -p ftp --user-group min --occupy weighted
    zevo policy set -p backup --state disabled
    zevo rule set -u bob -p ftp --up 10M --custom-down 512K --state schedule --plan-raw "$weekdays"
    zevo rule set -g alice -p ftp --down 2G
    zevo rule set -u alice -p ftp --up 1M
    zevo rule set -u carol -p backup --up 3M
    zevo rule clear -u carol -p backup
    printf '\n[user-4711]\nstate=enabled\nupload rate=7\n' >>$conf/bandwidth.ftp.conf
}

stored() { cat $conf/*.conf; }

# ---- there and back ----

configure
does export /tmp/first.json
silent
prints ''
/usr/bin/python3 - "$schema" /tmp/first.json <<'PY' || fail 'the export does not follow its schema'
import json, sys, jsonschema
schema, text = (json.load(open(name)) for name in sys.argv[1:])
jsonschema.Draft202012Validator.check_schema(schema)
jsonschema.Draft202012Validator(schema).validate(text)
assert [r["name"] for r in text["rules"]] == [None, "alice", "bob", "alice", "carol"], text["rules"]
PY
same "$(grep -c '"protocol"' /tmp/first.json)" 7
chmod 600 /tmp/first.json
tells '0 added, 0 changed; 7 unchanged; 0 stored' import /tmp/first.json
rm $conf/*.conf
tells 'added: user bob, ftp: schedule, upload 10 MiB/s' import -N /tmp/first.json
err_has 'line 9: no such user here; the rule is kept for the id 4711'
[[ ! -e $conf/bandwidth.ftp.conf ]] || fail 'a dry run made a file'
tells '7 added, 0 changed' import /tmp/first.json
zevo export -
cmp -s /tmp/out /tmp/first.json || fail 'what came back is something else'
zevo export /tmp/first.json
same "$(stat -c %a /tmp/first.json)" 600
fails 1 'no regular file' export /tmp

# A change is shown with both values, what the file lacks stays.
zevo rule set -u alice -p ftp --up 2M
zevo rule set -u dave -p rsync --up 1M
"$ZEVOBW_TOOL" import --dry-run </tmp/first.json >/tmp/out 2>/tmp/err
prints 'changed: user alice, ftp: upload 2 MiB/s → 1 MiB/s
0 would be added, 1 changed; 6 unchanged; 1 stored ones are not in the file and stay'
zevo import --json /tmp/first.json
same "$(/usr/bin/python3 -c 'import json; r = json.load(open("/tmp/out")); d, = r["differences"]
print(r["changed"], r["kept"], d["from"]["upload_kib_per_s"], d["to"]["upload_kib_per_s"])')" \
    '1 1 2048 1024'

# Another machine: bob has another id there, and carol's is somebody else's.
sed 's/"name":"bob","id":2002/"name":"bob","id":7/' /tmp/first.json >/tmp/moved.json
warns 'user bob has the id 2002 here, not 7' import /tmp/moved.json
sed -i 's/"name":"carol"/"name":"karl"/' /tmp/moved.json
refused 1 'line 13: no such user: "karl", and the id 2003 belongs to carol' import /tmp/moved.json

# ---- what is refused ----

cat >/tmp/bad.json <<'JSON'
{"format": "zevobandwidth", "version": 1,
 "policies": [
  {"protocol": "gopher", "state": "NotExisted", "user_group": "min",
   "inter_group": "user-first", "occupy": "max", "plan": "", "plan": "01"}, 5],
 "rules": [
  {"protocol": "ftp", "owner": "user", "name": "zed", "id": null, "state": "enabled"},
  {"protocol": "ftp", "owner": "user", "name": "alice", "id": 2001, "state": "enabled",
   "upload_kib_per_s": -1, "download_kib_per_s": 1.5,
   "custom_upload_kib_per_s": 0,
   "custom_download_kib_per_s": 9007199254740992, "plan": "3", "extra": 1},
  {"protocol": "ftp", "owner": "user", "name": null, "id": 2001, "state": "enabled",
   "upload_kib_per_s": null, "download_kib_per_s": null, "custom_upload_kib_per_s": null,
   "custom_download_kib_per_s": null, "plan": ""}]}
JSON
refused 1 'nothing was imported: mend the 19 faults first' import /tmp/bad.json
for fault in 'line 3: no such protocol: "gopher"' 'line 3: "state" must be one of enabled' \
    'line 4: "inter_group" must be one of min' 'line 4: "plan" stands twice' \
    'line 4: "plan" must be empty or 168' 'line 4: an entry of "policies" must be an object' \
    'line 6: no such user: "zed"' 'line 6: "plan" is missing' 'line 8: "upload_kib_per_s" must' \
    'line 8: "download_kib_per_s" must' 'line 9: "custom_upload_kib_per_s" must' \
    'line 10: "custom_download_kib_per_s" must' 'line 10: "plan" must' \
    'line 10: unknown key "extra"' 'line 11: a second rule for what line 7 is about'; do
    err_has "zevobandwidth: /tmp/bad.json, $fault"
done
printf '{\n\n"rules": [\n  tru\x1b]}' >/tmp/bad.json
refused 1 'line 4: this is no JSON: syntax error' import /tmp/bad.json
! grep -q $'\x1b' /tmp/err || fail 'an escape sequence got out'
for text in '[]' '{"format": "other", "version": 1, "policies": [], "rules": []}' '' \
    '{"format": "zevobandwidth", "version": 2, "policies": {}, "rules": []}'; do
    printf '%s' "$text" >/tmp/bad.json
    refused 1 'nothing was imported' import /tmp/bad.json
done
refused 1 'No such file' import /tmp/absent.json

# A rule that cannot be read must not be missing from a copy without a word.
configure
sed -i 's/^upload rate=7$/upload rate=7x/' $conf/bandwidth.ftp.conf
rm -f /tmp/first.json
fails 1 'nothing was exported: mend the 1 fault first' export /tmp/first.json
[[ ! -e /tmp/first.json ]] || fail 'an incomplete export was written'

# Nor may it hold what import refuses, or a default in place of what nobody understands.
while IFS='|' read -r script reason; do
    configure
    sed -i "$script" $conf/bandwidth.ftp.conf $conf/bandwidth.global.conf
    refused 1 "$reason" export
    err_has 'nothing was exported: mend the 1 fault first'
done <<CASES
s/^upload rate=7$/upload rate=-5/|section [user-4711] of $conf/bandwidth.ftp.conf: "upload_kib
s/^state=schedule$/state=on/|section [user-2002] of $conf/bandwidth.ftp.conf: "state" is no name
s/^schedule plan=0.*/schedule plan=3/|section [user-2002] of $conf/bandwidth.ftp.conf: "plan" must
s/^occupy policy=weighted/occupy policy=x/|section [ftp] of $conf/bandwidth.global.conf: "occupy
CASES
configure
touch $conf/addon/$'b\xff_40.json'
does export
zevo rule set -u alice -p $'b\xff' --up 1M
refused 1 'the name of the add-on is no UTF-8' export

# When there is no room for the last file, the first ones are as they were.
configure
zevo export /tmp/first.json
mkdir /tmp/small && mount -t tmpfs -o nr_inodes=7,mode=755 small /tmp/small
cp -r $conf/addon /tmp/small
mount --bind /tmp/small $conf
zevo rule set -u alice -p ftp --up 5M
before=$(stored) names=$(ls $conf)
fails 1 'what was there has been put back' import /tmp/first.json
[[ ! -s /tmp/out ]] || fail 'a failed import printed a result'
same "$(stored)" "$before"
same "$(ls $conf)" "$names"
umount $conf

# ---- the editor ----

# edits SCRIPT ARG...: 'rule edit' with sed as the editor.
edits() {
    EDITOR="sed -i $(printf %q "$1")" zevo rule edit "${@:2}"
}

configure
EDITOR=false fails 1 'ended with exit status 1: nothing is changed' rule edit -u alice -p ftp
before=$(stored)
VISUAL="cat" does rule edit -u dave -p ftp
err_has 'nothing is changed'
out_has 'custom download = unlimited'
same "$(stored)" "$before"
edits 's/^upload.*/upload = 512K/; s/^plan.*//; s/^#\(...\) = 1*/\1 = 000000001111111122222222/' \
    -u dave -p ftp
exits 0
prints 'user dave, ftp: enabled, upload 512 KiB/s, download unlimited, plan 168 hours'
same "$(grep -c "^schedule plan=\(0\{8\}1\{8\}2\{8\}\)\{7\}$" $conf/bandwidth.ftp.conf)" 1
VISUAL="cat" zevo rule edit -u bob -p ftp
out_has $'sun = 000000000000000000000000'
out_has $'mon = 222222222222222222222222'
before=$(stored)
edits 's/^state.*/state = disabled/' -N -u bob -p ftp
out_has 'user bob, ftp: disabled'
same "$(stored)" "$before"
while IFS='|' read -r script reason; do
    edits "$script" -u bob -p ftp
    exits 1
    err_has "$reason"
    kept=$(sed -n 's/.*the text is kept in //p' /tmp/err)
    same "$(stat -c %a "$kept")" 600
    same "$(stored)" "$before"
done <<'CASES'
s/^upload.*/upload = 5Mb/|line 10: "5Mb" can mean bits or bytes
s/^state.*/state = on/|line 5: "on" is no state
s/^tue = 1/tue = /|must be 24 times 0, 1 or 2, and has 23
s/^sat.*//|"sat = ..." is missing
s/^upload/uplaod/|line "upload = ..." is missing
$a color = red|unknown name "color"
$a what|is no "name = value"
CASES
# Something else in the text's place is neither waited for nor removed.
for made in mkfifo mkdir 'ln -s /etc/passwd'; do
    # shellcheck disable=SC2016  # the editor's arguments
    printf 'mv "$1" "$1~" && %s "$1"\n' "$made" >/tmp/swap
    EDITOR='bash /tmp/swap' zevo rule edit -u bob -p ftp
    exits 1
    err_has 'must be a regular file'
    grep -q '^upload = ' "$(sed -n 's/.*is kept in //p' /tmp/err)"/*~ || fail 'the text is lost'
    same "$(stored)" "$before"
done
(ulimit -f 0 && EDITOR=true "$ZEVOBW_TOOL" rule edit -u bob -p ftp) 2>&1 | cat >/tmp/err
status=${PIPESTATUS[0]}
exits 1
err_has 'File too large'
# Another administrator was faster.
cat >/tmp/slow <<SH
sed -i 's/^upload.*/upload = 1G/' "\$1"
$ZEVOBW_TOOL rule set -u bob -p ftp --up 3M
SH
EDITOR='bash /tmp/slow' zevo rule edit -u bob -p ftp
exits 1
err_has 'somebody else has changed the rule'
grep -q '^upload rate=3072$' $conf/bandwidth.ftp.conf || fail 'the other change was lost'
same "$(find /tmp -maxdepth 1 -name 'zevobandwidth.*' | wc -l)" 11

finish

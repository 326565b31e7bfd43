#!/usr/bin/env bash
# Looking after the system: notices to services, add-ons.
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

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
zevo addon path backup
exits 0
same "$(realpath "$(cat /tmp/out)")" $conf/addon/backup_20.json
refused 4 'built in' addon path ftp
refused 4 'no such protocol' addon path gopher

finish

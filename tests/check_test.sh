#!/usr/bin/env bash
# Looking after the system: notices to services.
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

finish

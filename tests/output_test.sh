#!/usr/bin/env bash
# What all commands have in common: their help, the options of their output, and JSON that follows
# the published schemas. Runs in the sandbox.
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

schemas=$(cd "${BASH_SOURCE[0]%/*}/../docs/schema" && pwd)
readonly schemas

# ---- help ----

# walk COMMAND...: the command and those below it, one a line, as --help tells them.
walk() {
    local sub
    "$ZEVOBW_TOOL" "$@" --help >/tmp/help </dev/null || echo "$* --help fails"
    if ! grep -q '^Subcommands:' /tmp/help; then
        echo "$*"
        return
    fi
    while read -r sub; do
        walk "$@" "$sub"
    done < <(sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z]*\) .*/\1/p' /tmp/help)
}

walk >/tmp/commands
(($(wc -l </tmp/commands) > 30)) || fail 'not all commands are listed'
while read -ra command; do
    zevo "${command[@]}" --help
    (($(wc -L </tmp/out) <= 80)) || fail "wider than 80 columns: ${command[*]} --help"
    out_has "zevobandwidth ${command[*]}"
    grep -qE '^Examples?:' /tmp/out || fail "no example: ${command[*]} --help"
    cp /tmp/out /tmp/help
    for option in --json -n --no-legend --no-color; do
        grep -q -- "^  $option" /tmp/help && continue
        fails 2 'has no -' "${command[@]}" $option
    done
done </tmp/commands
zevo --help
(($(wc -L </tmp/out) <= 80)) || fail 'wider than 80 columns: --help'
refused 2 'pipe has no --json: standard output carries the data' pipe -u alice --json
refused 2 "zevobandwidth transfers --watch --json" top --json

# ---- something to show ----

mkdir -m 777 $running
mkdir -p $conf/addon
touch $conf/addon/backup_32.json $conf/addon/broken.json
zevo policy set -p ftp
zevo rule set -u alice -p ftp --up 1M --plan 'weekdays 08:00-18:00 custom' --custom-up 488K
zevo rule set -g staff -p docuhall --up 1.5M --down 488K --custom-up 1.5M --custom-down 10M
zevo rule schedule -g staff -p docuhall
printf '\n[user-4711]\nstate=disabled\n' >>$conf/bandwidth.ftp.conf
sleep 60 &
readonly sleeper=$!
transfer user-2001 "$sleeper-1" ftp upload '"a\x1B[2J.iso"' >$running/user-2001
transfer group-3001 "$sleeper-1" ftp upload a.iso >$running/group-3001
zevo rule list
(($(wc -L </tmp/out) <= 80)) || fail 'the list of rules is wider than 80 columns'
out_has '@staff '

# ---- JSON ----

# shape NAME STATUS COMMAND...: the command ends so and its JSON is what the schema has by that name.
shape() {
    local name=$1 want=$2
    shift 2
    zevo "$@" --json
    exits "$want"
    cp /tmp/out "/tmp/json/$((++shapes))-$name"
    echo "$* " >>/tmp/shaped
}

shapes=0
mkdir /tmp/json
shape rule 0 rule set -u bob -p ftp --like alice
shape rule 0 rule disable -u bob -p ftp
shape rule 0 rule enable -u bob -p ftp
shape rule 0 rule schedule -u bob -p ftp
shape rule 0 rule clear -u bob -p ftp
shape rule 0 rule show -u bob -p ftp
(export EDITOR='sed -i s/1.MiB/2MiB/' && shape rule 0 rule edit -u alice -p ftp)
shape rules 0 rule list
shape policy 0 policy set -p webdav --state schedule
shape policy 0 policy show -p rsync
shape policies 0 policy list
shape week_plan 0 plan show -u alice -p ftp
shape week_plan 0 plan show -p webdav
shape changes 0 plan next 3 -u alice -p ftp
shape previews 0 preview -u alice
shape previews 0 preview -u alice -p ftp --explain
shape previews 0 preview -u alice -p ftp --explain --at 'mon 12:30'
shape transfers 0 transfers
shape sums 0 transfers --merge
shape rules_in_force 0 dump rules
shape policies 0 dump policies
shape transfers 0 dump transfers
shape metrics 0 metrics
shape findings 6 check --repair --dry-run
shape notices 0 notify all
shape addons 0 addon list
shape addon_path 0 addon path backup
shape stop 0 stop -u alice --dry-run
shape forget 1 forget -u alice
shape simulation 0 simulate -u bob -p rsync -d upload 64K --count 2
shape export 0 export
sed -i 's/"upload_kib_per_s": 1536/"upload_kib_per_s": 7/' /tmp/out
cp /tmp/out /tmp/limits.json
shape import 0 import /tmp/limits.json
printf '\n[user-4712]\nstate=schedule\nschedule plan=012\n' >>$conf/bandwidth.ftp.conf
shape week_plan 0 plan show -u 4712 -p ftp
sed -i '/user-4712/,$d' $conf/bandwidth.ftp.conf # nothing would be exported with it
/usr/bin/python3 - "$schemas" /tmp/json/* <<'PY' >/tmp/err 2>&1 || fail 'JSON that does not follow its schema'
import json, pathlib, sys, jsonschema
directory = pathlib.Path(sys.argv[1])
read = lambda path: json.loads(path.read_text())
output, config = read(directory / "output.json"), read(directory / "config.json")
jsonschema.Draft202012Validator.check_schema(output)
store = {(directory / name).as_uri(): text
         for name, text in (("output.json", output), ("config.json", config))}
faults = 0
for path in map(pathlib.Path, sys.argv[2:]):
    name = path.name.split("-", 1)[1]
    schema = config if name == "export" else {"$ref": "#/$defs/" + name}
    base = directory / ("config.json" if name == "export" else "output.json")
    resolver = jsonschema.RefResolver(base.as_uri(), store[base.as_uri()], store)
    validator = jsonschema.Draft202012Validator(schema, resolver=resolver)
    for fault in validator.iter_errors(read(path)):
        faults += 1
        print(path.name, fault.json_path, fault.message)
sys.exit(faults != 0)
PY
while read -r command; do
    grep -q "^$command " /tmp/shaped || echo "$command"
done </tmp/commands >/tmp/out
prints $'top\npipe\ncompletion'

# ---- ids for names ----

# Every command that names alice or staff names them by their ids when it is asked to.
while read -ra command; do
    zevo "${command[@]}" -n
    ! grep -qE 'alice|staff' /tmp/out /tmp/err || fail "a name in spite of -n: ${command[*]}"
    grep -qE '2001|3001' /tmp/out || fail "no id: ${command[*]}"
done <<'COMMANDS'
rule set -u alice -p ftp --up 1M
rule enable -g staff -p docuhall
rule show -u alice -p ftp
rule list
plan show -g staff -p docuhall --json
plan show -u alice -p ftp
preview -u alice -p ftp --explain
transfers
transfers --merge
dump rules --json
dump transfers --json
metrics
export
stop -u alice --dry-run
forget -u alice --yes --dry-run
COMMANDS
refused 2 '-n goes with --json' dump rules -n

kill "$sleeper"
finish

#!/usr/bin/env bash
# The manual pages but for section 3: their form, and that what they show is what happens. Runs in
# the sandbox.
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

man=$(cd "${BASH_SOURCE[0]%/*}/../man" && pwd)
readonly man

for page in "$man"/*.[124-8]; do
    mandoc -Tlint -W warning "$page" >/tmp/out 2>&1 || fail "the form of ${page##*/}"
done

# example KIND PAGE: the literal block below each line '.\" KIND: PATH' goes into that file.
example() {
    local path='' inside=0 line
    while IFS= read -r line; do
        case $line in
        '.\" '"$1: "*) path=${line##* } && mkdir -p "${path%/*}" && : >"$path" ;;
        '.Bd -literal'*) inside=1 ;;
        .Ed) inside=0 path='' ;;
        *'\e') [[ -z $path ]] || ((!inside)) || printf '%s' "${line%\\e}" >>"$path" ;;
        *) [[ -z $path ]] || ((!inside)) || printf '%s\n' "$line" >>"$path" ;;
        esac
    done <"$2"
}

# ---- the files ----

example file "$man/zevobandwidth.conf.5"
zevo rule show -g staff -p ftp && silent && out_has schedule && out_has '10 MiB/s' && out_has '5 MiB/s'
zevo policy show -p ftp && silent && out_has user-first && out_has 'limits apply'
zevo check && exits 0
zevo plan show -g staff -p ftp && silent

example running "$man/zevobandwidth.conf.5"
sed -i "s/^timestamp=.*/timestamp=$(date +%s)/" $running/user-2001
zevo transfers --no-legend
prints 'alice  ftp  upload  4711  5.00 MiB/s  5.00 MiB/s  42.5 %  photos/summer.tar'
wipe

# ---- the examples ----

# Runs the commands of the blocks that are marked to be run; each must succeed.
(
    cd /tmp || exit
    PATH=${ZEVOBW_TOOL%/*}:$PATH
    examples=$(awk '/^\.\\" run/ { marked = 1 } /^\.Ed/ { inside = marked = 0 }
        inside { sub(/\\e$/, "\\"); sub(/^# /, ""); print }
        /^\.Bd -literal/ { inside = marked }' "$man/zevobandwidth.8")
    bash -euc "$examples" </dev/null >/tmp/out 2>&1
) || fail 'the examples of zevobandwidth(8)'
zevo rule show -u bob -p ftp && out_has '2 MiB/s'
wipe

# ---- the policies ----

# Walks over a page's literal lines ".Dl" and the names of the items they stand in.
readonly policies=$man/zevobandwidth-policies.7
grep '^zevobandwidth rule set' "$policies" | while read -r _ arguments; do
    # shellcheck disable=SC2086
    "$ZEVOBW_TOOL" $arguments >/dev/null 2>&1 || echo "failed: $arguments"
done >/tmp/out
[[ ! -s /tmp/out ]] || fail 'the rules of the examples'

# What the explanation says: a speed, and the groups charged, as the page writes them.
shown() { sed -nE "s/^ *$1 +([0-9.]+ [KM]iB\/s) .*/\1/p" /tmp/out; }
charged() {
    grep -q '^ *no group .*occupy' /tmp/out && echo nobody
    sed -nE 's/^ *group ([a-z]+) +occupy [a-z]+ +([0-9.]+ %).*/\1 \2/p' /tmp/out | paste -sd, |
        sed 's/,/, /g'
}

checked=0
while read -r macro text; do
    case $macro in
    .Ss)
        case $text in
        User-group*) option=--user-group others='--inter-group max' ;;
        Inter-group*) option=--inter-group others='--user-group group-only' ;;
        Occupy*) option=--occupy others='--user-group group-only --inter-group max' ;;
        *) option='' ;;
        esac
        ;;
    .It) value=${text#Ic } ;;
    .Dl)
        checked=$((checked + 1))
        # shellcheck disable=SC2086
        zevo policy set -p ftp $option "$value" $others
        zevo preview -u alice -p ftp --explain
        case $text in
        'alice may upload '*) same "$(shown 'a transfer alone')" "${text#alice may upload }" ;;
        *) same "charged: $(charged)" "$text" ;;
        esac
        ;;
    esac
done <"$policies"
same "$checked" 15

finish

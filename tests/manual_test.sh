#!/usr/bin/env bash
# The manual's section 3: a page for every exported function, in form and true to the header, and
# examples that compile as anybody's program and do what they say. Runs in the sandbox.
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

repository=$(cd "${BASH_SOURCE[0]%/*}/.." && pwd)
libraries=$(cd "${ZEVOBW_TOOL%/*}/../lib" && pwd)
readonly repository libraries man=$repository/man

# ---- the pages ----

/usr/bin/python3 "$repository/scripts/manual" --check >/tmp/out 2>/tmp/err ||
    fail 'the pages are not what the header says'

# As a reader finds them: below a directory of their section.
mkdir -p /tmp/man/man3
cp "$man"/*.3 /tmp/man/man3
exported=0
while read -r name; do
    exported=$((exported + 1))
    mman -M /tmp/man -s 3 "$name" 2>/tmp/err | sed 's/.\x08//g' >/tmp/out # a letter twice is bold
    for text in "$name(" RETURN EXAMPLES ERRORS 'Signal safety'; do
        out_has "$text"
    done
done < <(grep -oE '\bZEVOBandwidth\w+' "$repository/src/libzevobandwidth.map")
((exported > 50)) || fail 'the list of exported functions'

for page in "$man"/*.3; do
    read -r macro _ <"$page"
    [[ $macro != .so ]] || continue
    name=${page##*/}
    mandoc -Tlint -W warning "$page" >/tmp/out 2>/tmp/err || fail "the form of $name"
    grep -q "^\.Xr ${name%.3} 3" "$man/zevobandwidth.7" || fail "zevobandwidth(7) lacks $name"
done
sed -nE 's/^\.Xr ([^ ]+) ([1-8]).*/\1.\2/p' "$man"/*.[1-8] | sort -u | while read -r name; do
    [[ -e $man/$name ]] || echo "$name"
done >/tmp/out
[[ ! -s /tmp/out ]] || fail 'these pages are referred to, and not there'

# ---- the examples ----

command -v cc >/dev/null || { echo 'no C compiler to try the examples with' && exit 77; }

# compile NAME: as somebody who has the installed headers and libraries only.
compile() {
    local more=()
    ! grep -q '<zevocore.h>' "$man/man3/$1.c" || more=(-I "$repository/platform/core/include")
    cc -std=c99 -Wall -Wextra -Wpedantic -Werror -I "$repository/include" "${more[@]}" \
        "$man/man3/$1.c" -o "/tmp/examples/$1" -L "$libraries" -Wl,-rpath-link,"$libraries" \
        -lzevobandwidth ${more:+-lzevocore} >/tmp/out 2>&1 || fail "$1.c does not compile"
}

export LD_LIBRARY_PATH=$libraries
mkdir -p /tmp/examples
cd /tmp || exit

# What the examples find: the limits of the user that they run as, and an add-on.
set_up() {
    wipe
    zevo policy set -p ftp --user-group user-first
    zevo rule set -u root -p ftp --up 4M
    mkdir -p $conf/addon
    : >$conf/addon/backup_32.json
}

for source in "$man"/man3/*.c; do
    name=${source##*/}
    name=${name%.c}
    compile "$name"
    [[ $name != StatusSetActiveByUserName ]] || continue # below
    set_up
    "examples/$name" >/tmp/out 2>/tmp/err </dev/null || fail "$name.c ends with $?"
    silent
    promised=$(sed -n '/^\/\* Prints:$/,/^\*\/$/{//!p}' "$source")
    [[ -z $promised ]] || prints "$promised"
    [[ ! -e $running/user-0 ]] || ! grep -q '^\[' $running/user-0 || fail "$name.c leaves a transfer"
done

# One as the service, others as the administrator that looks at it and stops it.
set_up
examples/SleepInLoop </dev/zero >/tmp/copy 2>/tmp/copy.err &
service=$!
is_listed() { examples/StatusGetAll | grep -q "^$service .* bytes/s standard input$"; }
wait_for is_listed
examples/StatusSetActiveByUserName root $service >/tmp/out 2>/tmp/err || fail 'it is not stopped'
wait $service && fail 'a stopped example goes on'
is_listed && fail 'a stopped transfer is listed'
same "$(ldd examples/SleepInLoop | grep -c "$libraries/")" 3 # these, not installed ones

finish

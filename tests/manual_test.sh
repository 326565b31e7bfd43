#!/usr/bin/env bash
# The manual's section 3, as the build made it: a page for every exported function, in form, and
# examples that compile as anybody's program and do what they say. Runs in the sandbox.
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

repository=$(cd "${BASH_SOURCE[0]%/*}/.." && pwd)
build=$(cd "${ZEVOBW_TOOL%/*}/.." && pwd)
readonly repository libraries=$build/lib man=$repository/man

# ---- the pages ----

if [[ -d $build/man3 ]]; then
    mkdir -p /tmp/man
    cp -r "$build/man3" /tmp/man # where a reader's links find each other
    exported=0
    while read -r name; do
        exported=$((exported + 1))
        mman -M /tmp/man -s 3 "$name" 2>/tmp/err | sed 's/.\x08//g' >/tmp/out # a letter twice is bold
        for text in "$name(" SYNOPSIS DESCRIPTION NOTES EXAMPLES 'int main(' 'SEE ALSO'; do
            out_has "$text"
        done
    done < <(grep -oE '\bZEVOBandwidth\w+' "$repository/src/libzevobandwidth.map")
    ((exported > 50)) || fail 'the list of exported functions'
    mman -M /tmp/man ZEVOBandwidthConfigFree | sed 's/.\x08//g' >/tmp/out
    for text in 'ZEVOBandwidthConfigGet, ZEVOBandwidthConfigFree - the effective' Parameters \
        'user; (uid_t)-1 is refused' Returns Errors Ownership Threads 'KB/s\n",'; do
        out_has "$text"
    done

    mapfile -t pages < <(grep -L '^\.so ' /tmp/man/man3/*)
    mandoc -Tlint -W warning "${pages[@]}" >/tmp/out 2>&1 || fail 'the form of section 3'
    for page in "${pages[@]}"; do
        page=$(basename "$page" .3)
        [[ $page == ZEVOBandwidth* ]] || continue
        grep -q "^\.Xr $page 3" "$man/zevobandwidth.7" || echo "zevobandwidth(7) lacks $page"
        [[ -e $man/man3/${page#ZEVOBandwidth}.c ]] || echo "no example for $page"
    done >/tmp/out
    [[ ! -s /tmp/out ]] || fail 'pages that are not referred to'
    sed -nE 's/^\.Xr ([^ ]+) ([1-8]).*/\1.\2/p; s/^\.BR ([^ ]+) \(([1-8])\).*/\1.\2/p' \
        "$man"/*.[1-8] /tmp/man/man3/* | sort -u | while read -r name; do
        [[ -e $man/$name || -e /tmp/man/man3/$name ]] || echo "$name"
    done >/tmp/out
    [[ ! -s /tmp/out ]] || fail 'these pages are referred to, and not there'

    # Made twice, equal: no trace of the day or the place.
    if command -v doxygen >/dev/null; then
        SOURCE_DATE_EPOCH=1 "$repository/scripts/manual" /tmp/again >/tmp/out 2>&1 || fail 'made again'
        diff -r "$build/man3" /tmp/again >/tmp/out || fail 'the pages differ from one build to the next'
    fi
else
    echo 'Not looked at, for Doxygen is not installed: the pages.'
fi

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

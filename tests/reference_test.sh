#!/usr/bin/env bash
# Doxygen finds every function of the public header explained, and notices when something is not.
set -euo pipefail
cd "${BASH_SOURCE[0]%/*}/.."

command -v doxygen >/dev/null || { echo 'doxygen is not installed' && exit 77; }

tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
mkdir "$tree"/{include,docs}
cp docs/Doxyfile* "$tree/docs"
failed=0

# reference: of the headers in the scratch tree
reference() {
    rm -rf "$tree/build"
    mkdir "$tree/build"
    (
        cd "$tree" || exit
        doxygen docs/Doxyfile && doxygen docs/Doxyfile.cxx
    ) >"$tree/log" 2>&1
}

cp include/* "$tree/include"
if ! reference; then
    cat "$tree/log"
    echo 'the headers are not explained in full'
    exit 1
fi
while read -r name; do
    grep -qr "class=\"memname\">.* $name </td>" "$tree/build/reference" || {
        echo "not in the reference: $name"
        failed=1
    }
done < <(grep -oE '\bZEVOBandwidth\w+' src/libzevobandwidth.map)

# noticed WHAT SED_SCRIPT: the header without that is refused
noticed() {
    sed "$2" include/zevobandwidth.h >"$tree/include/zevobandwidth.h"
    if cmp -s {,"$tree/"}include/zevobandwidth.h || reference; then
        echo "not noticed: $1"
        failed=1
    fi
}
noticed 'a field without a word' 's|/\*\*< uid or gid of the owner \*/||'
noticed 'an argument without a word' '/@param active /d'
noticed 'a result without a word' 's/@return  *1 when anything in it//'
noticed 'an argument that is none' 's/@param active /@param actve /'
exit "$failed"

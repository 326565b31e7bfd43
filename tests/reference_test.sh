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

exit "$failed"

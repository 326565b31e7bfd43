#!/usr/bin/env bash
# Keeps the doors between the folders shut: who includes whom, and that failures are told through
# the one call frame. Prints what is wrong, one finding a line.
set -euo pipefail
cd "${BASH_SOURCE[0]%/*}/.."

found=$(mktemp)
trap 'rm -f "$found"' EXIT

# The project's own headers: path from here, one a line.
own_headers() {
    find include platform src tool bench tests torture -name '*.h' -o -name '*.hpp' 2>/dev/null
}

# allowed FILE HEADER: may that file include that header of ours?
allowed() {
    local file=$1 header=$2
    case $file in
    tests/* | torture/*) return 0 ;;
    tool/*) [[ $header =~ ^(include|platform/core/include|tool)/ ]] ;;
    include/zevobandwidth.hpp) [[ $header =~ ^(include|platform/core/include)/ ]] ;;
    include/*) return 1 ;;
    src/*) [[ $header =~ ^(include|platform/(core|sdk)/include)/ || $header =~ ^src/.*\.hpp$ ]] ;;
    platform/core/*) [[ $header == platform/core/* ]] ;;
    platform/sdk/*) [[ $header == platform/sdk/* || $header == platform/core/include/* ]] ;;
    *) return 0 ;; # examples and measurements are callers too
    esac
}

# A header of ours is known by its name, whatever path it is included by; names are unique.
declare -A path_of
while IFS= read -r path; do
    name=${path##*/}
    [[ -z ${path_of[$name]-} ]] || echo "$path: same name as ${path_of[$name]}"
    path_of[$name]=$path
done < <(own_headers) >>"$found"

# Third-party headers that one folder only may use.
readonly foreign='^(CLI/|nlohmann/|gtest/|gmock/|benchmark/)'

while IFS=: read -r file line text; do
    [[ $text =~ ^[[:space:]]*\#[[:space:]]*include[[:space:]]*[\<\"]([^\>\"]+)[\>\"] ]] || continue
    included=${BASH_REMATCH[1]}
    header=${path_of[${included##*/}]-}
    if [[ -n $header && ($included == "${included##*/}" || $header == "tool/$included" ||
        -e ${file%/*}/$included) ]]; then
        [[ $file != "$header" ]] || echo "$file:$line: includes itself"
        allowed "$file" "$header" || echo "$file:$line: must not include $header"
    elif [[ $included =~ $foreign && $file =~ ^(src|include|platform)/ ]]; then
        echo "$file:$line: must not include $included"
    elif [[ $text == *\"* && ! $included =~ $foreign ]]; then
        echo "$file:$line: no such header of ours: $included"
    fi
done < <(grep -rnE --include='*.[ch]' --include='*.[ch]pp' '^[[:space:]]*#[[:space:]]*include' \
    include platform src tool tests torture 2>/dev/null) >>"$found"

# One way to fail: only the call frame reaches the log and the error slot, and no exit is mute.
{
    grep -nwE --include='*.[ch]pp' -r 'v?syslog|VLIBCErrSetEx' src | grep -v '#include' |
        grep -v '^src/bandwidth_frame\.hpp:' | sed 's/$/   <- only bandwidth_frame.hpp does that/'
    grep -nE --include='*.[ch]pp' -r '\breturn -1;' src | grep -v '^src/bandwidth_frame\.hpp:' |
        sed 's/$/   <- say which failure it is (BW_FAIL, BW_PASS)/'
} >>"$found" || true

cat "$found"
[[ ! -s $found ]]

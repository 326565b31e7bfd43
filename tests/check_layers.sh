#!/usr/bin/env bash
# Keeps the doors between the rooms shut: who includes whom, and that failures are told through the
# one call frame. Prints what is wrong, one finding a line.
set -euo pipefail
cd "${BASH_SOURCE[0]%/*}/.."

found=$(mktemp)
trap 'rm -f "$found"' EXIT

# Where the compiler looks for a header of ours, beside the folder of the file that includes it.
readonly roots=(. include platform/core/include platform/sdk/include src tool tests/support tests \
    torture torture/fuzz bench)

# resolve FILE INCLUDED: sets header to the path of a header of ours, or to nothing.
resolve() {
    local root
    header=
    for root in "${1%/*}" "${roots[@]}"; do
        [[ -e $root/$2 ]] || continue
        header=${root#.}/$2
        header=${header#/}
        return
    done
}

# The families of src/ stand on each other, from the lowest to the highest. An internal header belongs
# to the family that it is named after.
readonly families=(
    'frame|guard|speed'
    'enum|conf_path|group'
    'parm|store|conf_convert|conf_get_by_id|conf_set_by_id|global_conf_[gs]et'
    'limit_init|config_get'
    'status_(path|text|walk|purge|convert|get|get_all|save|add_section|set_section|remove)'
    'expect_speed_.*|transfer_size_estimate'
    'status_init|sleep_in_loop|hup'
    'preview|simulate|dump|.*_dump'
)

# floor_of FILE: sets floor to the number of the file's family; none is a finding.
floor_of() {
    local name=${1##*/}
    name=${name%.*} name=${name#bandwidth_}
    for floor in "${!families[@]}"; do
        [[ ! $name =~ ^(${families[floor]})$ ]] || return 0
    done
    echo "$1: of no family that this check knows"
    floor=0
}

stands_on() { # FILE HEADER, both in src/
    local floor upper
    floor_of "$1"
    upper=$floor
    floor_of "$2"
    ((floor <= upper))
}

readonly public='^(include|platform/core/include)/'
readonly platform='^(base|platform/internal|platform/core/include)/'

# allowed FILE HEADER: may that file include that header of ours?
allowed() {
    local file=$1 header=$2
    case $file in
    include/zevobandwidth.hpp) [[ $header =~ $public ]] ;;
    include/* | platform/*/include/*) return 1 ;;
    base/*) [[ $header == base/* ]] ;;
    platform/core/*) [[ $header =~ $platform || $header == platform/core/* ]] ;;
    platform/sdk/*) [[ $header =~ $platform || $header == platform/sdk/* ]] ;;
    platform/internal/*) [[ $header =~ $platform ]] ;;
    src/*) [[ $header =~ ^(base|include|platform/(core|sdk)/include)/ ]] ||
        { [[ $header == src/internal/* ]] && stands_on "$file" "$header"; } ;;
    tool/*) [[ $header =~ $public || $header =~ ^(base|tool)/ ]] ;;
    *) return 0 ;; # tests, torture, measurements and examples: nothing includes them
    esac
}

# Third-party headers that the libraries do without.
readonly foreign='^(CLI/|nlohmann/|gtest/|gmock/)'

while IFS=: read -r file line text; do
    [[ $text =~ \#[[:space:]]*include[[:space:]]*[\<\"]([^\>\"]+)[\>\"] ]] || continue
    included=${BASH_REMATCH[1]}
    resolve "$file" "$included"
    if [[ -n $header ]]; then
        [[ $file != "$header" ]] || echo "$file:$line: includes itself"
        allowed "$file" "$header" || echo "$file:$line: must not include $header"
    elif [[ $included =~ $foreign && $file =~ ^(base|src|include|platform)/ ]]; then
        echo "$file:$line: must not include $included"
    elif [[ $text == *\"* && ! $included =~ $foreign ]]; then
        echo "$file:$line: no such header of ours: $included"
    fi
done < <(grep -rnE --include='*.[ch]' --include='*.[ch]pp' '^[[:space:]]*#[[:space:]]*include' \
    base include platform src tool tests torture) >>"$found"

# One way to fail: only the call frame reaches the log and the error slot, and no exit is mute.
{
    grep -nwE --include='*.[ch]pp' -r 'v?syslog|VLIBCErrSetEx' src | grep -v '#include' |
        grep -v '^src/internal/frame\.[ch]pp:' | sed 's/$/   <- only frame.hpp does that/'
    grep -nE --include='*.[ch]pp' -r '\breturn -1;' src | grep -v '^src/internal/frame\.hpp:' |
        sed 's/$/   <- say which failure it is (BW_FAIL, BW_PASS)/'
} >>"$found" || true

cat "$found"
[[ ! -s $found ]]

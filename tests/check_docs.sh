#!/usr/bin/env bash
# Pages keep up with the tree: what they link to is there, and so is every source file that
# docs/architecture.md names; pictures load nothing from elsewhere. Prints what is wrong, one finding
# a line.
set -euo pipefail
cd "${BASH_SOURCE[0]%/*}/.."

found=$(mktemp)
trap 'rm -f "$found"' EXIT

for page in *.md docs/*.md; do
    grep -oE '\]\([^)# ]+' "$page" | sed 's/^](//' | grep -vE '^https?:' |
        while IFS= read -r link; do
            [[ -e ${page%"${page##*/}"}./$link ]] || echo "$page: no such file: $link"
        done || true # a page without links
done >"$found"

# Words of the picture stand at the ends of its branches and arrows.
readonly page=docs/architecture.md
# shellcheck disable=SC2016  # the backquotes are the page's
{
    grep -oE '(├─|└─|►|─) [a-z]+_[a-z_]+' $page | sed 's/.* //'
    grep -oE '`([a-z]+/)?[a-z_]+\.[ch]pp`' $page | tr -d '`'
    grep -oE '`(base|src|tool|tests|torture|include|platform)/[a-z_/.]*`' $page | tr -d '`'
} | sort -u | while IFS= read -r name; do
    for path in "$name" {src/bandwidth_,src/,src/internal/,tool/,platform/core/}"$name"{,.cpp}; do
        [[ ! -e $path ]] || continue 2
    done
    echo "$page: no such file: $name"
done >>"$found"

grep -lE '@font-face|(href|url|src)[=(: "]+https?:' docs/*/*.svg | sed 's/$/: loads from elsewhere/' \
    >>"$found" || true

cat "$found"
[[ ! -s $found ]]

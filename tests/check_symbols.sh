#!/usr/bin/env bash
# check_symbols.sh LIBDIR
# The three libraries in LIBDIR export exactly what their lists name, the public headers declare
# exactly that, and nothing is needed at run time but each other and the standard libraries.
set -euo pipefail
libdir=$(cd "${1:?the directory of the built libraries}" && pwd)
cd "${BASH_SOURCE[0]%/*}/.."
failed=0

listed() { # MAP: the names of an export list
    sed -n '/global:/,/local:/p' "$1" | grep -oE '\bV?[A-Z]\w+;' | tr -d ';' | sort
}

exported() { # LIBRARY
    nm -D --defined-only --format=posix "$1" | awk '$2 != "A" {print $1}' | sed 's/@.*//' | sort
}

declared() { # HEADER MACRO: the functions declared with the macro
    grep -v '^#' "$1" | tr '\n' ' ' | grep -oE "\b$2 [^;({]*\(" | grep -oE '\w+ *\($' | tr -d '( ' | sort
}

needed() { # LIBRARY
    readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'
}

same() { # NAME NAME LIST LIST
    diff <(echo "$3") <(echo "$4") >/dev/null && return
    printf '%s and %s differ (< only the first, > only the second):\n' "$1" "$2"
    diff <(echo "$3") <(echo "$4") | grep '^[<>]' || true
    failed=1
}

check() { # LIBRARY MAP HEADER MACRO
    local library=$libdir/$1 names
    names=$(listed "$2")
    same "$1" "$2" "$(exported "$library")" "$names"
    same "$3" "$2" "$(declared "$3" "$4")" "$names"
    if needed "$library" |
        grep -vE '^(libzevo(core|sdk)\.so\.7|libc\.so\.6|libstdc\+\+\.so\.6|libgcc_s\.so\.1|libm\.so\.6|ld-linux.*)$'; then
        echo "$1 needs the above at run time"
        failed=1
    fi
}

check libzevocore.so.7 platform/core/libzevocore.map platform/core/include/zevocore.h ZEVOCORE_API
check libzevosdk.so.7 platform/sdk/libzevosdk.map platform/sdk/include/zevosdk.h ZEVOSDK_API
check libzevobandwidth.so.7 src/libzevobandwidth.map include/zevobandwidth.h ZEVO_BW_API
exit "$failed"

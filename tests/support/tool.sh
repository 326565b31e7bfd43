# Shared by the tests of the tool's commands, which source it first thing. They run in the sandbox,
# whose test users they name; the tool's path is in ZEVOBW_TOOL.
# shellcheck shell=bash
set -u

if [[ ${ZEVOBW_SANDBOX-} != 1 || ! -x ${ZEVOBW_TOOL-} ]]; then
    echo 'run me through tests/support/sandbox, with ZEVOBW_TOOL set' >&2
    exit 77
fi

readonly conf=/usr/zevo/etc/bandwidth
readonly running=/tmp/bandwidth
failed=0
status=0

# zevo ARG...: runs the tool; its results lie in /tmp/out, /tmp/err and $status.
zevo() {
    status=0
    "$ZEVOBW_TOOL" "$@" >/tmp/out 2>/tmp/err </dev/null || status=$?
}

# as_anybody ARG...: the same without capabilities, for which root is held to the permissions, too.
as_anybody() {
    status=0
    setpriv --inh-caps=-all --bounding-set=-all "$ZEVOBW_TOOL" "$@" >/tmp/out 2>/tmp/err ||
        status=$?
}

# prints_to FILE ARG...: runs the tool with FILE as its standard output.
prints_to() {
    : >/tmp/out
    status=0
    "$ZEVOBW_TOOL" "${@:2}" >"$1" 2>/tmp/err </dev/null || status=$?
}

fail() {
    printf 'line %s: %s\n' "${BASH_LINENO[-2]}" "$1"
    sed 's/^/    /' /tmp/out /tmp/err
    failed=$((failed + 1))
}

exits() { ((status == $1)) || fail "exit status $status instead of $1"; }
prints() { [[ $(cat /tmp/out) == "$1" ]] || fail "not printed: $1"; }
out_has() { grep -qF -- "$1" /tmp/out || fail "missing on standard output: $1"; }
err_has() { grep -qF -- "$1" /tmp/err || fail "missing on standard error: $1"; }
err_lacks() { ! grep -qF -- "$1" /tmp/err || fail "not expected on standard error: $1"; }
silent() { [[ ! -s /tmp/err ]] || fail 'something on standard error'; }
same() { [[ $1 == "$2" ]] || fail "'$1' instead of '$2'"; }

# refused STATUS TEXT ARG...: the command fails so, prints nothing and changes no file.
refused() {
    local want=$1 text=$2 before
    shift 2
    before=$(cat $conf/* 2>&1)
    zevo "$@"
    exits "$want"
    err_has "$text"
    [[ ! -s /tmp/out ]] || fail 'a refused command printed a result'
    same "$(cat $conf/* 2>&1)" "$before"
}

# does ARG...: runs the tool, which must succeed.
does() { zevo "$@" && exits 0; }

# fails STATUS TEXT ARG...: runs the tool, which must end so and say that on standard error.
fails() { zevo "${@:3}" && exits "$1" && err_has "$2"; }

# tells, answers, warns TEXT ARG...: the same, and it has printed that text, nothing but it, or told it
# on standard error.
tells() { does "${@:2}" && out_has "$1"; }
answers() { does "${@:2}" && prints "$1"; }
warns() { does "${@:2}" && err_has "$1"; }

# The sections of running transfers.
listed() { cat $running/* 2>/dev/null | grep -c '^\['; }
nobody_listed() { same "$(listed)" 0; }

now_ms() { date +%s%3N; }

wipe() {
    rm -rf /usr/zevo $running
}

# transfer FILE SECTION PROTOCOL DIRECTION FILENAME: the section of a running transfer, as it stands
# in that status file; filename in the file's own escapes
transfer() {
    printf '[%s]\npid=%s\nid=%s\nuid=%s\nactive=1\ntimestamp=%s\ncurrent speed=524288\n' \
        "$2" "${2%-*}" "${1#*-}" 2001 "$(date +%s)"
    printf 'expect speed=1048576\nfilename=%s\nowner type=%s\nprotocol type=%s\n' \
        "$5" "${1%-*}" "$3"
    printf 'transfer type=%s\nprogress=4250\n\n' "$4"
}

# named_program: a program that ends by the first notice, /tmp/named/zevobandwidth; its end lies in
# /tmp/ended, its shell's pid in $told.
named_program() {
    mkdir -p /tmp/named
    [[ -e /tmp/named/zevobandwidth ]] || cp "$(command -v sleep)" /tmp/named/zevobandwidth
    (exec 2>/dev/null; /tmp/named/zevobandwidth 60; echo $? >/tmp/ended) &
    # shellcheck disable=SC2034 # the tests wait for it
    told=$!
    wait_for pgrep -x zevobandwidth >/dev/null
}

# wait_for COMMAND...: up to ten seconds.
wait_for() {
    for _ in {1..200}; do
        "$@" && return
        sleep 0.05
    done
    fail "in vain: $*"
}

# The last line of a test.
finish() {
    ((failed == 0)) || printf '%d checks failed\n' "$failed"
    exit $((failed > 0))
}

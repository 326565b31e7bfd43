# Shared by the scripts, which source it first thing: the repository as current directory, messages,
# the packages, the release build, the sandbox. Works as root without sudo and as an ordinary user
# with it; where nothing is missing neither apt nor sudo is touched.
# shellcheck shell=bash
set -euo pipefail

repository=$(cd "${BASH_SOURCE[0]%/*}/../.." && pwd -P)
cd "$repository"

readonly jobs=2

say() {
    if [[ -t 1 ]]; then printf '\e[1m%s\e[0m\n' "$*"; else printf '%s\n' "$*"; fi
}

die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# ---- packages ----

packages_of() { # GROUP
    case $1 in
    build) echo g++ cmake ninja-build libcli11-dev libncurses-dev nlohmann-json3-dev psmisc ;;
    test)
        echo libgtest-dev libgmock-dev util-linux mount uidmap procps tmux zsh fish \
            python3-jsonschema mandoc locales pkgconf
        ;;
    run) echo util-linux mount ;; # what the sandbox needs
    reference) echo doxygen ;; # the library's reference and section 3 of the manual
    pictures) echo python3 python3-rich tmux ;;
    plot) echo gnuplot-nox ;;
    measure) echo pv ;; # what the cost is compared with
    peers) echo pv cstream curl rsync trickle iproute2 ;;
    peer_server) echo proftpd-core ;; # apart: it cannot be installed beside another FTP server
    package) echo build-essential debhelper lintian git ;;
    abi) echo abigail-tools g++-multilib ;;
    check) echo clang-format clang-tidy shellcheck git ;;
    fuzz) echo clang libclang-rt-14-dev gcovr ;;
    *) die "no package group '$1'" ;;
    esac
}

missing_of() { # PACKAGE...
    local installed
    installed=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' "$@" 2>/dev/null || true)
    comm -23 <(printf '%s\n' "$@" | sort -u) <(sed -n 's/^installed //p' <<<"$installed" | sort -u)
}

# Runs apt while no package may start its service: what is installed here is for the scripts, not for
# the machine to serve. Packages ask policy-rc.d first; where there is one, its owner has decided.
without_services() { # COMMAND [ARG...]
    local policy=/usr/sbin/policy-rc.d
    if [[ -e $policy ]]; then
        "$@"
        return
    fi
    (
        trap '"${as_root[@]}" rm -f "$policy"' EXIT
        printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" install -m 755 /dev/stdin "$policy"
        "$@"
    )
}

# Installs what is missing of the groups, and says what. Never takes another package away for it.
need() { # GROUP...
    local group packages apt_get wanted=() missing=() as_root=()
    for group in "$@"; do
        read -ra packages <<<"$(packages_of "$group")"
        wanted+=("${packages[@]}")
    done
    command -v dpkg-query >/dev/null ||
        die "there is no dpkg here to look after packages. Needed are what Debian calls:" \
            "${wanted[*]}"
    mapfile -t missing < <(missing_of "${wanted[@]}")
    [[ ${#missing[@]} -gt 0 ]] || return 0

    if [[ $EUID != 0 ]]; then
        command -v sudo >/dev/null ||
            die "these packages are missing: ${missing[*]}. There is no sudo here: install them" \
                "as root with 'apt-get install ${missing[*]}', or run this script as root."
        as_root=(sudo)
    fi
    say "Installing with apt: ${missing[*]}"
    apt_get=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q)
    "${apt_get[@]}" update ||
        say 'The list of packages could not be brought up to date; trying with the old one.'
    without_services "${apt_get[@]}" install -y --no-install-recommends --no-remove \
        "${missing[@]}" </dev/null || die "apt could not install: ${missing[*]}"
}

# ---- building and running ----

# Configures and builds a preset, or only the named targets of it; the output is shown only when
# something goes wrong.
build() { # PRESET [TARGET...]
    local log preset=$1
    shift
    log=$(mktemp)
    say "Building the $preset preset"
    if ! { cmake --preset "$preset" &&
        cmake --build --preset "$preset" -j "$jobs" ${1+--target "$@"}; } >"$log" 2>&1; then
        grep -vE '^\[[0-9]+/[0-9]+\] ' "$log" || true # without the steps that went well
        rm -f "$log"
        die "the $preset preset does not build"
    fi
    rm -f "$log"
}

# Runs a command of the scripts in the tests' sandbox: in_sandbox [OPTIONS] COMMAND [ARG...]
in_sandbox() {
    "$repository/tests/support/sandbox" "$@"
}

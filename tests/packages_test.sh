#!/usr/bin/env bash
# packages_test.sh DIR
# The packages in DIR: installed, built against, upgraded, removed and purged. Runs in copy_of_root.
set -euo pipefail
packages=$(realpath "${1:?the directory of the packages}")
readonly names=(libzevobandwidth7 libzevobandwidth-dev libzevocore7 libzevosdk7 zevobandwidth)
cd "${BASH_SOURCE[0]%/*}/.."

die() {
    printf 'packages_test: %s\n' "$@" >&2
    exit 1
}

versions() { # of what is there of the packages, be it only remains of their configuration
    dpkg-query -W -f '${db:Status-Status} ${Version}\n' "${names[@]}" 2>/dev/null |
        sed -n '/^not-installed/!p' | sort -u
}

install_all() { # DIR
    local name debs=()
    for name in "${names[@]}"; do
        debs+=("$1/$name"_*.deb)
    done
    dpkg -i "${debs[@]}" >/tmp/log 2>&1 || die "$(cat /tmp/log)"
}

# What lies on the disk that did not before, but for what the system keeps of packages in general.
left() {
    find /changes ! -type d -printf '/%P\n' |
        grep -vE '^/(var/(lib|log|cache)|etc/ld\.so\.cache$|etc/\.pwd\.lock$)' | sort || true
}

[[ -z $(versions) ]] || die 'this machine has the packages already: remove them to try them out'
version=$(dpkg-deb -f "$packages"/zevobandwidth_*.deb Version)

install_all "$packages"
[[ $(versions) == "installed $version" ]] || die "not installed: $(versions)"
export ZEVOBW_TOOL=/usr/bin/zevobandwidth
tests/install_test.sh /usr
man=$(mman -s 3 ZEVOBandwidthConfigGet 2>/dev/null | sed 's/.\x08//g')
[[ $man == *DESCRIPTION* ]] || die 'no manual of the functions'

# The examples, as a user of the packages builds and runs them.
cp -r /usr/share/doc/libzevobandwidth-dev/examples /tmp/examples
{
    make -C /tmp/examples && cmake -S /tmp/examples -B /tmp/examples/build &&
        cmake --build /tmp/examples/build
} >/tmp/log 2>&1 || die 'the examples:' "$(cat /tmp/log)"
! grep -i warning /tmp/log || die 'the examples build with warnings'
for directory in /tmp/examples /tmp/examples/build; do
    # shellcheck disable=SC2094  # nothing is written
    $directory/throttled_copy <"$0" | cmp - "$0" || die "throttled_copy in $directory"
    $directory/running_transfers root || die "running_transfers in $directory"
    $directory/addon_protocol 2>/dev/null && die "addon_protocol in $directory wants arguments"
done
/tmp/examples/build/file_server 2>/dev/null && die 'file_server wants arguments'

if command -v systemd-tmpfiles >/dev/null; then
    [[ $(stat -c '%a %U:%G' /tmp/bandwidth) == '777 root:root' ]] || die 'no status directory'
fi
rule=$(zevobandwidth rule set -u root -p ftp --up 1M 2>/dev/null)

mkdir /tmp/next
for deb in "${names[@]}"; do
    dpkg-deb -R "$packages/$deb"_*.deb "/tmp/next/$deb"
    sed -i "s/${version//./\\.}/&+1/g" "/tmp/next/$deb/DEBIAN/control"
    dpkg-deb -b "/tmp/next/$deb" "/tmp/next/${deb}_next.deb" >/dev/null
done
install_all /tmp/next
[[ $(versions) == "installed $version+1" ]] || die "not upgraded: $(versions)"
[[ $(zevobandwidth rule list --no-legend) == *root* ]] || die "the upgrade lost: $rule"

# Libraries that somebody still needs stay.
! dpkg -r libzevocore7 >/tmp/log 2>&1 || die 'libzevocore7 went from under its users'
dpkg -r "${names[@]}" >/tmp/log 2>&1 || die "$(cat /tmp/log)"
dpkg -P "${names[@]}" >/tmp/log 2>&1 || die "$(cat /tmp/log)"
[[ -z $(versions) ]] || die "not removed: $(versions)"

# Only what the administrator has set.
[[ $(left) == /usr/zevo/etc/bandwidth/bandwidth.ftp.conf ]] || die 'left behind:' "$(left)"
echo 'The packages install, upgrade and remove; only the rules that were set stay.'

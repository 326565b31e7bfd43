#!/usr/bin/env bash
# install_test.sh [PREFIX]
# What is installed: complete, hardened, and found by a C service through pkg-config and by a C++ one
# through CMake. Looks at what lies below PREFIX, or installs the build tree that ZEVOBW_TOOL is of
# and moves it elsewhere. Runs in the sandbox.
source "${BASH_SOURCE[0]%/*}/support/tool.sh"

cd "${BASH_SOURCE[0]%/*}/.." || exit
: >/tmp/out
: >/tmp/err

if [[ $# -gt 0 ]]; then
    prefix=$(cd "$1" && pwd)
else
    build=${ZEVOBW_TOOL%/bin/*}
    DESTDIR=/tmp/stage cmake --install "$build" --prefix /opt/zevo >/tmp/out || fail 'cmake --install'
    prefix=/tmp/elsewhere
    mv /tmp/stage/opt/zevo $prefix
    rmdir /tmp/stage/opt /tmp/stage || fail 'something lies beside the prefix'
    ! grep -rIE "/opt/zevo|$build" $prefix >/tmp/out || fail 'a text names a fixed place'

    cmake -G Ninja -S . -B /tmp/bare -DZEVOBW_PLATFORM=OFF -DBUILD_TESTING=OFF >/tmp/out 2>&1 ||
        fail 'configuring without the platform'
    grep -rqF libzevobandwidth.so --include=cmake_install.cmake /tmp/bare || fail 'no library'
    ! grep -rE 'zevocore|zevosdk' --include=cmake_install.cmake /tmp/bare >/tmp/out ||
        fail 'the platform is not left out'
fi
readonly prefix
libdir=$(dirname "$(find "$prefix/lib" -name libzevobandwidth.so.7)")
readonly libdir
# As a user of a private prefix sets it; the linker, too, looks there for libraries of libraries.
export LD_LIBRARY_PATH=$libdir PKG_CONFIG_PATH=$libdir/pkgconfig
version=$(sed -nE 's/^#define ZEVO_BW_VERSION_[A-Z]+ //p' include/zevobandwidth.h | paste -sd.)
readonly version

# ---- the binaries ----

hardened() { # FILE
    readelf -W -h -l -d --dyn-syms "$1" >/tmp/out
    ! grep -E 'R(UN)?PATH' /tmp/out || fail "$1 has a path of its own to libraries"
    grep -qE 'FLAGS\).*BIND_NOW' /tmp/out || fail "$1 binds late"
    grep -qw GNU_RELRO /tmp/out || fail "$1: no RELRO"
    grep -qE 'GNU_STACK.* RW ' /tmp/out || fail "$1: a stack that can be executed"
    grep -qE 'Type: +DYN' /tmp/out || fail "$1: not position-independent"
    grep -qF __stack_chk_fail /tmp/out || fail "$1: no stack protector"
    # Debug builds cannot have these, and the platform's core calls nothing that could be.
    [[ $1 == *zevocore* ]] || grep -qsx CMAKE_BUILD_TYPE:STRING=Debug "${build-}/CMakeCache.txt" ||
        grep -qE '(_chk|__openat_2)@GLIBC' /tmp/out || fail "$1: no fortified calls"
}

for name in zevobandwidth zevocore zevosdk; do
    hardened "$libdir/lib$name.so.7"
    grep -qF "Library soname: [lib$name.so.7]" /tmp/out || fail "SONAME of lib$name"
done
hardened "$prefix/bin/zevobandwidth"
tests/check_symbols.sh "$libdir" >/tmp/out 2>&1 || fail 'exported names'
same "$("$prefix/bin/zevobandwidth" --version)" "zevobandwidth $version"

# ---- texts ----

for page in man/*.[1-8]; do
    compgen -G "$prefix/share/man/man${page##*.}/${page##*/}*" >/dev/null || fail "no $page"
done
# A build without Doxygen has no section 3.
if [[ -z ${build-} || -d $build/man3 ]]; then
    for name in zevobandwidth.h ZEVO_BANDWIDTH_STATUS \
        $(grep -oE '\bZEVOBandwidth\w+' src/libzevobandwidth.map); do
        mman -M "$prefix/share/man" -s 3 "$name" 2>&1 | sed 's/.\x08//g' >/tmp/out # twice is bold
        grep -q ^SYNOPSIS /tmp/out || fail "no $name(3)"
    done
    [[ -z ${build-} || -z $(find "$prefix/share/man/man3" ! -iname 'zevo*' -type f) ]] ||
        fail 'pages of other names'
fi
for script in bash-completion/completions/zevobandwidth zsh/*/_zevobandwidth \
    fish/vendor_completions.d/zevobandwidth.fish; do
    shell=${script%%[-/]*}
    # shellcheck disable=SC2086  # Debian's zsh has a directory of its own
    diff <("$prefix/bin/zevobandwidth" completion "$shell") $prefix/share/$script >/tmp/out 2>&1 ||
        fail "the completion for $shell"
done
same "$(grep -v '^#' "$prefix/lib/tmpfiles.d/zevobandwidth.conf")" \
    'd /tmp/bandwidth 0777 root root -'

# ---- services built against it ----

mkdir /tmp/service
cd /tmp/service || exit
cat >service.c <<'END'
#include <stdio.h>
#include <zevobandwidth.h>
#include <zevocore.h>

int main(void)
{
    ZEVO_BANDWIDTH_CONFIG config = {0};
    if (ZEVOBandwidthConfigGet(0, ZEVO_BW_PROTOCOL_FTP, &config) < 0) return 1;
    ZEVOBandwidthConfigFree(&config);
    if (ZEVOBandwidthConfigGet(0, ZEVO_BW_PROTOCOL_ALL, &config) == 0) return 1;
    if (VLIBCErrGet() != ZEVO_BW_ERROR_BAD_ARGUMENT) return 1;
    printf("zevobandwidth %d.%d.%d\n", ZEVO_BW_VERSION_MAJOR, ZEVO_BW_VERSION_MINOR,
           ZEVO_BW_VERSION_PATCH);
    return 0;
}
END
same "$(pkg-config --modversion zevobandwidth)" "$version"
# shellcheck disable=SC2046
cc -std=c99 -Wall -Wextra -Wpedantic -Werror $(pkg-config --cflags zevobandwidth) service.c \
    -o service $(pkg-config --libs zevobandwidth) >/tmp/out 2>&1 || fail 'a service in C'
same "$(./service)" "zevobandwidth $version"

cp service.c service.cpp
cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.16)
project(service LANGUAGES CXX)
find_package(Zevobandwidth 8 QUIET)
if(Zevobandwidth_FOUND)
    message(FATAL_ERROR "taken for the next major version")
endif()
find_package(Zevobandwidth 7 REQUIRED)
set(CMAKE_CXX_STANDARD 11)
add_executable(service service.cpp)
target_link_libraries(service PRIVATE Zevobandwidth::zevobandwidth)
END
{ cmake -G Ninja -S . -B build -DCMAKE_PREFIX_PATH="$prefix" && cmake --build build; } >/tmp/out 2>&1 ||
    fail 'a service in C++'
same "$(build/service)" "zevobandwidth $version"

finish

#!/usr/bin/env bash
# The installed tree, used as others would; each of them works in the empty directory WORK.
#   install.sh client cmake|make PREFIX WORK   builds the example there and plays it in the host
#   install.sh linked PREFIX WORK              builds and runs a program that links with the module
#   install.sh deb BUILD_DIR WORK              makes the package and plays a scenario from it
#   install.sh manpage HOST PAGE               the page has the program's options, and no other
set -euo pipefail
shopt -s inherit_errexit
export LC_ALL=C
unset LD_LIBRARY_PATH
here=$(cd "$(dirname "$0")" && pwd)

fresh() { # makes it, goes there
    rm -rf "$1"
    mkdir -p "$1"
    cd "$1"
}

same() { # what expected actual
    [[ $2 == "$3" ]] && return
    echo "$1 (< expected, > actual):" >&2
    diff <(echo "$2") <(echo "$3") >&2
}

# The host of a tree plays a scenario with that tree's libraries, not with those of the build.
play() { # prefix scenario
    LD_DEBUG=files LD_DEBUG_OUTPUT=loads "$1/bin/l2rsm-host" "$2"
    local loaded
    loaded=$(sed -n 's/.*calling init: \(.*libqor_.*\)/\1/p' loads.* | xargs realpath | sort)
    same "loaded libraries" "$(printf '%s\n' "$1"/lib/libqor_{l2rsm,platform}.so)" "$loaded"
}

client() {
    local how=$1 prefix=$2
    fresh "$3"
    cp -r "$prefix/share/doc/qor-l2rsm/examples/client" example
    if [[ $how == cmake ]]; then
        cmake -S example -B . -DCMAKE_PREFIX_PATH="$prefix"
        cmake --build .
    else
        make -C example PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
        mv example/libclient.so .
    fi
    same "libraries that the component needs" "" \
        "$(readelf -dW libclient.so | grep NEEDED | grep -v 'libc\.so\.6')"
    local out
    out=$(play "$prefix" example/client.lua)
    echo "$out"
    same "the component's calls" "$(printf '%s\n' 'icib.register -> 0' 'icib.add -> 4 wait' 'notify ' \
        'icib.add -> 0 proceed' 'icib.free -> 0 freed')" \
        "$(sed -nE '/service=2/s/^\[[^]]*\] +([a-z.]+)[^>]*(-> .*)?$/\1 \2/p' <<<"$out")"
}

linked() {
    local prefix=$1
    fresh "$2"
    cmake -S "$here/linked" -B . -DCMAKE_PREFIX_PATH="$prefix"
    cmake --build .
    local flags
    flags=$(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs qor-platform)
    # shellcheck disable=SC2086
    cc -o by-pkg-config "$here/linked/linked.c" $flags -Wl,-rpath,"$prefix/lib"
    "$prefix/bin/platform-check" "$prefix/lib/libqor_platform.so"
    # Without a memory manager phase 1 ends before the component is registered.
    for program in ./linked ./by-pkg-config; do
        same "$program" "phase 1: 1, phase 3: 0, table: 1" "$("$program")"
    done
}

deb() {
    local build=$1
    fresh "$2"
    cpack --config "$build/CPackConfig.cmake" -B .
    dpkg-deb --info ./*.deb
    dpkg-deb --extract ./*.deb root
    dpkg-deb --field ./*.deb Depends | grep -q 'libc6 .*liblua5.4-0'
    for file in root/usr/bin/l2rsm-host root/usr/lib/libqor_{l2rsm,platform}.so; do
        same "debug information of $file" "" "$(readelf -SW "$file" | grep -oE '\.debug_\w+|\.symtab')"
    done
    play "$PWD/root/usr" root/usr/share/doc/qor-l2rsm/scenarios/ipat.lua >/dev/null
}

manpage() {
    same "options of --help and of the man page" \
        "$("$1" --help | sed -nE 's/^ +(-[-a-z,]+).*/\1/p' | tr , '\n' | sort)" \
        "$(awk '/^\.SH/ {on = /OPTIONS/} on && /^\.B/' "$2" | sed 's/\\-/-/g' |
            grep -oE -- '--?[a-z][-a-z]*' | sort)"
}

"$@"

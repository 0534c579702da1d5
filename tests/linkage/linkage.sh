#!/usr/bin/env bash
# What the built module looks like to the loader, and the headers to a C compiler.
#   linkage.sh module LIBRARY EXPORTS NEEDED...   exports are exactly those listed, dependencies too
#   linkage.sh headers CC ROOT                    each C header of the tree compiles alone as C11
#   linkage.sh page PAGE MODULE SOURCE_DIR CHECK PLATFORM
#                                                 the page has the calls and headers that the module
#                                                 asks for and what the check checks, and no other
#   linkage.sh external SOURCE_DIR WORK INCLUDE   the module is built for the platform with those
#                                                 headers, by either compiler, and for no part of one
set -uo pipefail
export LC_ALL=C
failed=0
same() { # what expected actual
    [[ $2 == "$3" ]] && return
    echo "$1 differ (< expected, > actual):"
    diff <(echo "$2") <(echo "$3")
    failed=1
}

case $1 in
module)
    library=$2 exports=$3
    shift 3
    dynamic=$(readelf -dW "$library")
    same exports "$(sort "$exports")" "$(nm -D --defined-only "$library" | awk '{print $3}' | sort)"
    same dependencies "$(printf '%s\n' "$@" | sort)" \
        "$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic" | sort)"
    same "run paths" '$ORIGIN' "$(sed -n 's/.*(R.*PATH).*\[\(.*\)\]/\1/p' <<<"$dynamic")"
    # Bound to itself, a patch or a process that replaces a symbol would go unheard.
    same "symbolic bindings" "" "$(grep -o SYMBOLIC <<<"$dynamic")"
    # The worker, once started, goes on after a dlclose.
    same "unloading" NODELETE "$(grep -o NODELETE <<<"$dynamic")"
    # Nothing of the module may run before the host calls it.
    same "static constructors" "" "$(nm "$library" | grep -o '_GLOBAL__sub_I.*')"
    ;;
headers)
    root=$3
    cc=("$2" -std=c11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only
        "-I$root/include" "-I$root/platform/include" "-I$root/module" -x c -)
    for header in "$root"/{include,platform/include,module/frame,module/alarms}/*.h; do
        printf '#include "%s"\nextern int unit;\n' "$header" | "${cc[@]}" ||
            { echo "in $header" && failed=1; }
    done
    # Compiled for another size of pointers, they say so, and that is all they say.
    if echo 'extern int unit;' | "${cc[@]}" -m32; then
        errors=$(echo '#include "l2rsm_component.h"' | "${cc[@]}" -m32 2>&1 | grep 'error:')
        same "errors as 32-bit code" 1 "$(grep -c '64-bit' <<<"$errors")"
        same "lines of these" 1 "$(wc -l <<<"$errors")"
    fi
    ;;
page)
    page=$2 module=$3 source=$4
    # Of a table under a heading, the names in backticks of the first column.
    names() { awk -v head="## $1" '/^## / {on = $0 == head} on && /^\| `/' "$page" |
        cut -d'|' -f2 | grep -oE '`[^`]+`' | tr -d '`' | sort -u; }
    same calls "$(names Calls)" \
        "$(nm -D --undefined-only "$module" | awk '$1 == "U" && $2 !~ /@/ {print $2}' | sort)"
    same headers "$(names Headers)" \
        "$(cd "$source" && grep -rhoE '#include "[a-z_]+\.h"' module |
            cut -d'"' -f2 | sort -u | while read -r header; do
            [[ -e platform/include/$header ]] && echo "$header"
        done)"
    same requirements "$(names 'What the check finds')" "$("$5" "$6" | cut -c9- | sort)"
    ;;
external)
    source=$2 work=$3 include=$4
    rm -rf "$work"
    configure() { # build directory, arguments
        cmake -G Ninja -S "$source" -B "$work/$1" -DL2RSM_PLATFORM=external -DL2RSM_WERROR=ON "${@:2}" 2>&1
    }
    refused() { # header, arguments
        local said
        said=$(configure refused "${@:2}") && echo "taken: ${*:2}" && failed=1
        tr -s ' \n' ' ' <<<"$said" | grep -q "needs -DL2RSM_PLATFORM_INCLUDE=DIR.*no $1 in" ||
            { echo "$said" && failed=1; }
    }
    refused bounded.h
    cp -r "$include" "$work/partial"
    rm "$work/partial/zir_mutex.h"
    refused zir_mutex.h -DL2RSM_PLATFORM_INCLUDE="$work/partial"
    for compiler in g++ clang++; do
        configure $compiler -DCMAKE_CXX_COMPILER=$compiler -DCMAKE_BUILD_TYPE=Release \
            -DL2RSM_PLATFORM_INCLUDE="$include" && cmake --build "$work/$compiler" &&
            cmake --install "$work/$compiler" --prefix "$work/prefix" >/dev/null || failed=1
    done
    same installed "bin/platform-check include/qor-l2rsm lib/libqor_l2rsm.so" \
        "$(cd "$work/prefix" && echo bin/* include/* lib/*.so)"
    ;;
*)
    echo "usage: see the head of $0"
    failed=1
    ;;
esac
exit "$failed"

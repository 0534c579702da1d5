#!/usr/bin/env bash
# What the built module looks like to the loader, and the headers to a C compiler.
#   linkage.sh module LIBRARY EXPORTS NEEDED...   exports are exactly those listed, dependencies too
#   linkage.sh headers CC INCLUDE_DIR...          each header compiles alone as C11
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
    # Nothing of the module may run before the host calls it.
    same "static constructors" "" "$(nm "$library" | grep -o '_GLOBAL__sub_I.*')"
    ;;
headers)
    cc=$2
    shift 2
    for directory in "$@"; do
        for header in "$directory"/*.h; do
            printf '#include "%s"\nextern int unit;\n' "${header##*/}" |
                "$cc" -std=c11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only "${@/#/-I}" -x c - ||
                { echo "in $header" && failed=1; }
        done
    done
    ;;
*)
    echo "usage: see the head of $0"
    failed=1
    ;;
esac
exit "$failed"

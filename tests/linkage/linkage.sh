#!/usr/bin/env bash
# What the built module looks like to the loader, and the headers to a C compiler.
#   linkage.sh module LIBRARY EXPORTS NEEDED...   exports are exactly those listed, dependencies too
#   linkage.sh headers CC ROOT                    each C header of the tree compiles alone as C11
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
        "-I$root/include" "-I$root/platform/include" "-I$root" -x c -)
    for header in "$root"/{include,platform/include,frame,alarms}/*.h; do
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
*)
    echo "usage: see the head of $0"
    failed=1
    ;;
esac
exit "$failed"

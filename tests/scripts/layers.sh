#!/usr/bin/env bash
# scripts/check layers on a small tree of its own: silent while includes lead down, red on each that
# does not.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
cd "$tree"
git init -q .
mkdir -p scripts include inspect host/watch host/script
cp "$root/scripts/check" "$root/scripts/layers.txt" scripts/
touch include/numbers.h inspect/words.h host/watch/ledger.h host/script/values.h
printf '#include <vector>\n#include "inspect/words.h"\n#include "ledger.h"\n' >host/watch/ledger.cpp
printf '#include "numbers.h"\n' >inspect/words.cpp

scripts/check layers || { echo "red without a reason" && exit 1; }

# plant FILE LINE COMPLAINT
plant() {
    printf '\n%s\n' "$2" >"$1"
    if found=$(scripts/check layers) || [[ $found != "$1:2: $3" ]]; then
        echo "$1 with $2: expected \"$1:2: $3\", got \"$found\""
        exit 1
    fi
    rm "$1"
}
above="which stands above it"
plant host/watch/x.h '#include "script/values.h"' "host/watch includes host/script/values.h, $above"
plant inspect/x.cpp '#  include <host/watch/ledger.h>' "inspect includes host/watch/ledger.h, $above"
plant include/x.h '#include "../inspect/words.h"' "there is no ../inspect/words.h"
plant host/x.cpp '#include "gone.h"' "there is no gone.h"
mkdir -p elsewhere
plant elsewhere/x.c '#include <stdio.h>' "no room of scripts/layers.txt"

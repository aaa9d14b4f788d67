#!/usr/bin/env bash
# guarantees_test.sh SOURCE: the tests that docs/guarantees.md names exist.
set -euo pipefail
cd "$1"
# Names follow a sentence, and are not a part of the next one.
names=$(tr -s '\n ' ' ' <docs/guarantees.md | grep -oP '(?<=\. )(`[^` ]+` )+(?=[A-Z#-]|$)' |
    grep -oE '[^` ]+' | sort -u)
[ "$(wc -l <<<"$names")" -gt 25 ]
# In one line, since a long name stands on a line of its own.
tests=$(find tests -name '*.cpp' -exec cat {} + | tr -s '\n ' ' ')
missing=0
for name in $names; do
    if [[ $name == *.* ]]; then
        grep -qE "TEST(_F|_P)?\(${name%.*}, ?${name#*.}\)" <<<"$tests" && continue
    else
        grep -qE "(add_test\(NAME|IN ITEMS) (.* )?$name( |\)|\$)" tests/CMakeLists.txt && continue
    fi
    echo "docs/guarantees.md: there is no test $name"
    missing=1
done
exit $missing

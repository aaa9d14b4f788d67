#!/usr/bin/env bash
# Tests the program sample_points, whose path is the first argument.
set -euo pipefail
program=$(realpath "$1")
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"

fail() {
    echo "FAILED: $*" >&2
    exit 1
}
# refused MESSAGE ARGUMENT...: the program ends with status 2, says just that, and writes nothing.
refused() {
    local message=$1 status=0
    shift
    "$program" "$@" >out 2>err || status=$?
    [ "$status" -eq 2 ] || fail "status $status of: $*"
    [ ! -s out ] || fail "output of: $*"
    grep -qxF -- "$message" err || fail "'$(cat err)' instead of '$message'"
}

# The unit sphere: |p| - 1, with the gradient p / |p|.
printf '\xEF\xBB\xBF  # a comment\n\n+2 0,1e-60\n 0,\t3 4 \r\n-1e-3 , 0.1 -7.25\n' >good
"$program" good --scene sphere >fromFile
"$program" - --scene sphere <good >fromInput
cmp fromFile fromInput || fail "a file and standard input differ"
awk 'function near(a, b) { return a - b < 2e-6 && b - a < 2e-6 }
     { r = sqrt($1 * $1 + $2 * $2 + $3 * $3)
       if (NF != 7 || !near($4, r - 1) || !near($5, $1 / r) || !near($6, $2 / r) ||
           !near($7, $3 / r)) { print "wrong: " $0; exit 1 } }
     END { if (NR != 3) { print NR " lines"; exit 1 } }' fromFile || fail "values of the sphere"
[ "$(sed -n 3p fromFile | cut -d' ' -f1-3)" = "-0.00100000005 0.100000001 -7.25" ] ||
    fail "positions do not round-trip: $(sed -n 3p fromFile)"

# A bad line: an earlier output stays, and nothing lies beside it.
mkdir results
echo earlier >results/samples
for case in '1 2|fewer than three numbers' '1 2 3 4|more than three numbers' '1 x 3|not a number' \
    '1 2 3z|not a number' '+-1 2 3|not a number' '1,,2 3|not a number' '1 2 1e39|number out of range'; do
    line=${case%|*}
    printf '1 2 3\n\n%s\n4 5 6\n' "$line" >bad
    refused "bad:3: ${case#*|}: $line" bad --output results/samples
    refused "standard input:3: ${case#*|}: $line" --output results/samples <bad
done
[ "$(cat results/samples)" = earlier ] || fail "a failure touched the output"
[ "$(ls -A results)" = samples ] || fail "left beside the output: $(ls -A results)"
chmod 666 results/samples
ln -s samples results/link
"$program" good --output results/link
cmp fromFile results/samples || fail "the output file"
[ -L results/link ] && [ "$(stat -c %a results/samples)" = 666 ] || fail "$(ls -l results)"
rm results/link

refused "sample_points: no scene is named 'nowhere'; --list shows them all, and a file ends in .json" \
    good --scene nowhere
echo '{"version": 1, "root": {"type": "Sphere", "radius": "one"}}' >ball.json
refused 'sample_points: ball.json: /root/radius: wanted a number, or "inf", "-inf" or "nan", found "one"' \
    good --scene ball.json
sed -i 's/"one"/1/' ball.json
"$program" good --scene ball.json | cmp - fromFile || fail "a scene in a file"
echo '{"version": 1, "root": {"type": "ScalarGeoPropertyFound", "property": "mass"}}' >leaf.json
"$program" good --scene leaf.json 2>err >out || fail "an unbound scene"
grep -qF '/root: zel::ScalarGeoPropertyFound: no property "mass"' err || fail "no warning: $(cat err)"
cannot="sample_points: %s: cannot be %s: %s"
refused "$(printf "$cannot" missing opened 'No such file or directory')" missing
refused "$(printf "$cannot" results read 'Is a directory')" results --output results/samples
refused "$(printf "$cannot" 'standard input' read 'Bad file descriptor')" --output results/samples <&-
refused "$(printf "$cannot" results written 'Is a directory')" good --output results
refused "$(printf "$cannot" /dev/full written 'No space left on device')" good --output /dev/full
cmp fromFile results/samples || fail "a failure touched the output"
"$program" good --output /dev/stdout | cmp - fromFile || fail "output to a device"

# Standard output that cannot be written, of this program and of the others beside it.
others=$(dirname "$program")
for command in "$program good" "$program --list" "$program --help" "$others/hello" "$others/own_nodes" \
    "$others/bind_properties" "$others/sample_volume"; do
    for target in 'full >/dev/full' 'closed >&-'; do
        status=0
        eval "$command ${target#* }" 2>err || status=$?
        [ "$status" -eq 2 ] && grep -q 'standard output' err ||
            fail "status $status of $command, its output ${target% *}: $(cat err)"
    done
done

# Chunks of a large file give what small files give.
awk 'BEGIN { for (i = 0; i < 200000; ++i) print i % 7, i % 11 / 10, -i / 1000 }' >many
"$program" many --scene gear | tail -n 1000 >last
tail -n 1000 many | "$program" --scene gear | cmp - last || fail "a large file"
: >empty
"$program" empty --output results/samples
[ -f results/samples ] && [ ! -s results/samples ] || fail "output file for no input"
"$program" --list | cut -d: -f1 | while read -r scene; do
    [ "$("$program" good --scene "$scene" | wc -l)" -eq 3 ] || fail "scene $scene"
done

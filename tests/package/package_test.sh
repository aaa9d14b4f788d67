#!/usr/bin/env bash
# package_test.sh SOURCE BUILD MODE COMPILER: builds and runs the consumer project, against the
# library in BUILD installed to an empty prefix (MODE install) or against its sources (MODE sources).
set -euo pipefail
source=$(realpath "$1") build=$(realpath "$2") mode=$3 compiler=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$source"/tests/package/CMakeLists.txt "$work"
configure() {
    cmake -S "$work" -B "$work/build" -G Ninja -DREADME="$source/README.md" \
        -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_BUILD_TYPE=Release "$@" >"$work/log" ||
        { cat "$work/log"; exit 1; }
}

case $mode in
install)
    cmake --install "$build" --prefix "$work/prefix" >/dev/null
    configure -DCMAKE_PREFIX_PATH="$work/prefix"
    # Nothing of the source or build tree may be named in what was installed.
    if grep -rlE "$source|$build" "$work/prefix" --include='*.cmake' --include='*.h'; then
        echo "these installed files name the source or the build tree"
        exit 1
    fi
    ;;
sources)
    configure -DZEL_SOURCE_DIR="$source"
    ;;
esac
cmake --build "$work/build" --target app
diff <("$work/build/app") <(printf '%s\n' -0.5 0.5 1)

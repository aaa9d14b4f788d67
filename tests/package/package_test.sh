#!/usr/bin/env bash
# package_test.sh SOURCE BUILD COMPILER MODE [PYTHON]: ZEL as other projects take it. The modes `install` and
# `install_static` put a shared and a static ZEL where the others look for them, below BUILD/package.
# Each way in builds and runs the first program of README.
set -euo pipefail
source=$(realpath "$1") build=$(realpath "$2") compiler=$3 mode=$4 python=${5:-}
here=$(dirname "$(realpath "${BASH_SOURCE[0]}")")
package=$build/package work=$build/package/consumers/$mode
rm -rf "$work"
mkdir -p "$work"
cd "$work"

extract() {  # PAGE
    awk -v name="$work/$(basename "$1" .md)" -f "$here/extract_programs.awk" "$1"
}
extract "$source/README.md"
mv README-1.cpp app.cpp
expect_output() {  # COMMAND...
    "$@" >output
    diff output README-1.txt
}
quietly() {
    "$@" >log 2>&1 || { cat log; exit 1; }
}
cmake_project() {  # OPTION...
    quietly cmake -S "$here" -B b -G Ninja -DPROGRAM="$work/app.cpp" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_CXX_COMPILER="$compiler" "$@"
    quietly cmake --build b --target app
    expect_output b/app
}
use_pkg_config() {  # PREFIX
    PKG_CONFIG_PATH=$(dirname "$(find "$1" -name zel.pc)")
    LD_LIBRARY_PATH=$(dirname "$(find "$1" -name 'libzel.*' -not -type d | head -n 1)")
    export PKG_CONFIG_PATH LD_LIBRARY_PATH
}
packages=(zel)
compile() {  # PROGRAM.cpp OPTION...: to PROGRAM
    # shellcheck disable=SC2046
    "$compiler" -std=c++20 "$1" "${@:2}" -o "${1%.cpp}" $(pkg-config --cflags --libs "${packages[@]}")
}

case $mode in
install)
    rm -rf "$package/shared"
    cmake --install "$build" --prefix "$package/shared" >/dev/null
    if grep -rlE "$source|$build" "$package/shared" --include='*.cmake' --include='*.h' \
        --include='*.pc'; then
        echo "these installed files name the source or the build tree"
        exit 1
    fi
    other=$(find "$package/shared/include" -mindepth 1 -maxdepth 1 -not -name zel \
        -not -name zel_platform -not -name zel_scene -not -name zel_exchange)
    [ -z "$other" ] || { echo "installed beside the libraries: $other"; exit 1; }
    ;;
install_static)
    # From a project that takes in the sources. Without optimisation and with few, large translation
    # units, which takes the least time.
    rm -rf "$package/static"
    cmake_project -DZEL_SOURCE_DIR="$source" -DCMAKE_BUILD_TYPE=Debug -DBUILD_SHARED_LIBS=OFF \
        -DZEL_INSTALL=ON -DCMAKE_UNITY_BUILD=ON -DCMAKE_UNITY_BUILD_BATCH_SIZE=25
    ninja -C b -t commands app >commands
    grep -q -- "-isystem $work/b/zel/include " commands
    cmake --install b --prefix "$package/static" >/dev/null
    rm -rf b
    ;;
find_package)
    cmake_project -DCMAKE_PREFIX_PATH="$package/shared"
    for component in scene exchange; do
        [ ! -e "$package/shared/include/zel_$component" ] ||
            cmake_project -DCMAKE_PREFIX_PATH="$package/shared" -DCOMPONENT=$component
    done
    ;;
find_package_static)
    cmake_project -DCMAKE_PREFIX_PATH="$package/static"
    TALLOW_DUMP_VERSION_INFO=1 b/app 2>&1 >/dev/null | grep -q ' ZEL: Orvane version '
    ;;
pkg_config)
    use_pkg_config "$package/shared"
    compile app.cpp
    expect_output ./app
    ;;
pkg_config_static)
    use_pkg_config "$package/static"
    compile app.cpp
    expect_output env -u LD_LIBRARY_PATH ./app
    ;;
meson)
    use_pkg_config "$package/shared"
    cp "$here/meson.build" .
    CXX=$compiler quietly meson setup b
    quietly meson compile -C b
    expect_output b/app
    ;;
headers)
    # By the warnings of a strict project that does not take them as system headers. That each can
    # be included alone, .ci/tidy finds.
    cd "$package/shared/include"
    find . -name '*.h' -printf '#include "%p"\n' | LC_ALL=C sort -r >"$work/all.cpp"
    "$compiler" -std=c++20 -fsyntax-only -Wall -Wextra -Wshadow -Wconversion -pedantic -Werror -I. \
        "$work/all.cpp"
    ;;
python)
    module=$(find "$package/shared" -path '*/zel/__init__.py')
    PYTHONPATH=${module%/zel/__init__.py} "$python" -B "$here/import_module.py" "$package/shared"
    ;;
pages)
    use_pkg_config "$package/shared"
    rm app.cpp README-*
    for page in "$source/README.md" "$source"/docs/*.md; do extract "$page"; done
    if pkg-config --exists zel_scene; then packages+=(zel_scene); else rm scenes-*; fi
    if pkg-config --exists zel_exchange; then packages+=(zel_exchange); else rm files-* exchange-*; fi
    for program in *.cpp; do
        echo "$program"
        compile "$program" -Wall -Wextra -Werror
        "./${program%.cpp}" >output
        [ ! -e "${program%.cpp}.txt" ] || diff output "${program%.cpp}.txt"
    done
    ;;
*)
    echo "$0: no mode $mode" >&2
    exit 2
    ;;
esac

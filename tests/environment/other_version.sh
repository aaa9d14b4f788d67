#!/usr/bin/env bash
# other_version.sh PATCHELF FOLDER VERSION PLUGIN LIBZEL LIBZEL_PLATFORM: copies a plugin and its
# libraries, which get another version.
set -euo pipefail
patchelf=$1 folder=$2 version=$3 plugin=$4
rm -rf "$folder"
mkdir -p "$folder"
cp "$plugin" "$folder/plugin.so"
for library in "${@:5}"; do
    name=$(basename "$library")
    renamed=${name%%.so*}.so.$version
    cp -L "$library" "$folder/$renamed"
    "$patchelf" --set-soname "$renamed" "$folder/$renamed"
    renames+=(--replace-needed "$name" "$renamed")
done
"$patchelf" "${renames[@]}" --set-rpath "\$ORIGIN" "$folder"/*

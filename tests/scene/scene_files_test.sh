#!/usr/bin/env bash
# scene_files_test.sh SCENE_TOOL SOURCE: the schema is that of the node classes, and validators and
# graphviz accept the scenes of the examples and what is written of them.
set -euo pipefail
tool=$(realpath "$1") source=$(realpath "$2")
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"

"$tool" schema >schema.json
diff schema.json "$source/docs/scene.schema.json" ||
    { echo "renew it: scene_tool schema >docs/scene.schema.json"; exit 1; }

count=0
for scene in "$source"/examples/scenes/*.json; do
    name=$(basename "$scene" .json)
    "$tool" json "$scene" >"$name.json"
    "$tool" json "$name.json" | cmp - "$name.json"
    "$tool" dot "$scene" | dot -Tsvg >"$name.svg"
    grep -q '</svg>' "$name.svg"
    count=$((count + 1))
done
[ "$count" -ge 15 ]

# Files read the same where numbers have a decimal comma, or a decimal point of several bytes.
export LOCPATH=$folder
for locale in de_DE ps_AF; do
    localedef -c -i $locale -f UTF-8 ./$locale.UTF-8 >/dev/null 2>&1 || true
    [ "$(LC_ALL=$locale.UTF-8 locale decimal_point)" != . ] ||
        { echo "localedef cannot make $locale; the package locales has its sources"; exit 1; }
    for scene in "$source"/examples/scenes/*.json; do
        LC_ALL=$locale.UTF-8 "$tool" json "$scene" | cmp - "$(basename "$scene")"
    done
    LC_ALL=$locale.UTF-8 "$tool" schema | cmp - schema.json
done
unset LOCPATH

# What the reader refuses, the schema refuses.
bad=()
add_bad() {
    echo "{\"version\": 1, \"root\": $1}" >"bad${#bad[@]}.json"
    if "$tool" json "bad${#bad[@]}.json" 2>/dev/null; then echo "read: $1"; exit 1; fi
    bad+=("bad${#bad[@]}.json")
}
add_bad true
add_bad '{"type": "Spere"}'
add_bad '{"type": "ScalarFieldSphere", "raduis": 1}'
add_bad '{"type": "ScalarFieldSphere", "radius": "one"}'
add_bad '{"type": "ScalarFieldNegative"}'
add_bad '{"type": "ScalarFieldNegative", "field": [1, 2, 3]}'
add_bad '{"type": "ScalarFieldAdd", "a": 1, "b": 1, "children": [1]}'
add_bad '{"type": "ScalarFieldAdd", "a": 1, "children": [1]}'
add_bad '{"type": "VectorFieldComponent", "field": [1, 2, 3], "component": 2147483648}'
python3 - schema.json "$source"/examples/scenes/*.json -- ./*.json <<'PYTHON'
import glob, json, sys
import jsonschema
schema = json.load(open(sys.argv[1]))
jsonschema.Draft7Validator.check_schema(schema)
validator = jsonschema.Draft7Validator(schema)
for file in sys.argv[2:]:
    if file in ("--", "./schema.json"):
        continue
    valid = validator.is_valid(json.load(open(file)))
    if valid == file.startswith("./bad"):
        sys.exit(f"{file}: {'valid' if valid else next(validator.iter_errors(json.load(open(file))))}")
PYTHON

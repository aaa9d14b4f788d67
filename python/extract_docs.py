"""Writes the comments above node classes as a table in C++: extract_docs.py OUTPUT HEADER..."""

import pathlib
import re
import sys

# What Python calls by another name.
NAMES = {r"`?\bwithExactGradients\(\)`?": "zel.exact_gradients()", r"(type )?`?\bfloat3\b`?": "vectors",
         r"(type )?`?\bfloat4\b`?": "quaternions"}

output, headers = sys.argv[1], sys.argv[2:]
entries = []
for header in headers:
    text = pathlib.Path(header).read_text()
    for comment, name in re.findall(r"((?:^///.*\n)+)^class ZEL_API ((?:Scalar|Vector)\w+)\b", text, re.MULTILINE):
        doc = "\n".join(line[4:] for line in comment.splitlines())
        for name_in_cpp, name_here in NAMES.items():
            doc = re.sub(name_in_cpp, name_here, doc)
        entries.append(f'    {{"{name}", R"zel({doc})zel"}},\n')
pathlib.Path(output).write_text("".join(sorted(entries)))

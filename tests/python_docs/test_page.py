"""The code of docs/python.md prints what the page says."""

import contextlib
import io
import pathlib
import re

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs" / "python.md"


def outputs(page):
    """Runs the blocks of a page as one program. Yields the output of each, and what the page has."""
    blocks = re.findall(r"^```(python|text)\n(.*?)^```$", page, re.MULTILINE | re.DOTALL)
    scope = {}
    for (kind, code), (next_kind, text) in zip(blocks, blocks[1:] + [("", "")]):
        if kind != "python":
            continue
        printed = io.StringIO()
        with contextlib.redirect_stdout(printed):
            exec(compile(code, PAGE.name, "exec"), scope)
        yield printed.getvalue(), text if next_kind == "text" else ""


def test_the_page():
    results = list(outputs(PAGE.read_text()))
    assert len(results) > 8
    for printed, expected in results:
        assert printed == expected


def test_links():
    for link in re.findall(r"\]\(([^):#]+)", PAGE.read_text()):
        assert (PAGE.parent / link).exists(), link

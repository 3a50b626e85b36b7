#!/usr/bin/env python3
"""check_reference.py: holds what docs/reference.md lists against the sources. Nothing of theirs may be missing."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
LITERAL = r'"(?:\\.|[^"\\])*"'


def in_one_line(text):
    return re.sub(r"[ \n]+", " ", text)


def sources():
    """All sources of the product but the fakes, one after the other and without their comments."""
    paths = sorted(path for room in ("common", "host") for path in (ROOT / room).rglob("*")
                   if path.suffix in (".h", ".cpp") and "testing" not in path.parts)
    return re.sub(r"^ *//.*$", "", "".join(path.read_text() for path in paths), flags=re.MULTILINE)


def log_texts(text):
    """The literals that are streamed into log lines."""
    lines = re.findall(rf'(?:LogItem(?: item)?|LOG_LINE)\(\w+, (?:[^;"]|{LITERAL})*;', text)
    return {re.sub(r"\\(.)", r"\1", literal[1:-1]) for line in lines for literal in re.findall(LITERAL, line)}


def main():
    text = sources()
    document = in_one_line((ROOT / "docs/reference.md").read_text())
    complaints = []
    for what, names, at_least, quote in (
            ("tunables", re.findall(r"\bt_[A-Za-z]\w+", text), 7, ""),
            ("log texts", log_texts(text), 40, ""),
            ("broken expectations", re.findall(r"\bEXPECT_OR_REPORT\(([^;\n]*?)\)(?:;|\n| <<)", text), 10, ""),
            ("parcel keys", re.findall(r'addEntry\(\s*"(\w+)"', text), 15, "`")):
        if len(set(names)) < at_least:
            complaints.append(f"the sources were not read as they should be: {len(set(names))} {what}")
        complaints += [f"missing of the {what}: {name}" for name in sorted(set(names))
                       if quote + in_one_line(name) + quote not in document]
    sys.exit("\n".join(complaints) or 0)


main()

#!/usr/bin/env python3
"""declared.py PREFIX: every function that a header installed below PREFIX declares without a body
is defined in a library installed there, where a user's program can link it."""

import pathlib
import re
import subprocess
import sys

# Comments, directives, macros and texts.
NO_CODE = re.compile(r"//.*|/\*[\s\S]*?\*/|^#(?:.*\\\n)*.*|__attribute__\(\(.*?\)\)+"
                     r"|\bANALYTICS_\w+(?:\(\w+\))?|\"(?:\\.|[^\"\\])*\"",
                     re.MULTILINE)
SCOPE = re.compile(r"^(?:class|struct|namespace)\s+(?:\w+\([^)]*\)\s*)?(\w+)")
# Declares no function, or one that the compiler writes or a derived class.
NO_FUNCTION = re.compile(r"^(?:friend|using|typedef|static_assert|template)\b"
                         r"|=\s*(?:default|delete|0)$|\(\s*\*")


def functions(text, scope=()):
    """Yields (class..., name) of each declaration that ends without a body."""
    statement, position = "", 0
    while position < len(text):
        character = text[position]
        position += 1
        if character == "(":  # an argument list has neither bodies nor statements
            depth, start = 1, position
            while depth > 0:
                depth += {"(": 1, ")": -1}.get(text[position], 0)
                position += 1
            statement += "(" + text[start:position - 1].replace(";", "") + ")"
        elif character == "{":
            depth, start = 1, position
            while depth > 0:
                depth += {"{": 1, "}": -1}.get(text[position], 0)
                position += 1
            opened = SCOPE.match(statement.strip())
            if opened:
                inner = () if statement.strip().startswith("namespace") else (opened[1],)
                yield from functions(text[start:position - 1], scope + inner)
            statement = ""
        elif character == ";":
            declared = statement.strip()
            while re.search(r"<[^<>]*>", declared):
                declared = re.sub(r"<[^<>]*>", "", declared)
            name = re.match(r"[^=(]*?(~?\w+)\s*\(", declared)
            if name and not NO_FUNCTION.search(declared):
                yield scope + (name[1],)
            statement = ""
        else:
            statement += character
            if re.search(r"\b(?:public|private|protected)\s*:$", statement):
                statement = ""


def main():
    prefix = pathlib.Path(sys.argv[1])
    libraries = [*prefix.rglob("libanalytics*.so"), *prefix.rglob("libanalytics*.a")]
    defined = ""
    for library in libraries:
        dynamic = ["-D"] if library.suffix == ".so" else []
        defined += subprocess.run(["nm", "-C", "--defined-only", *dynamic, library], check=True,
                                  stdout=subprocess.PIPE, text=True).stdout
    defined = re.sub(r"\[abi:\w+\]", "", defined)
    count, missing = 0, []
    for header in sorted(prefix.glob("include/analytics/*/**/*.h")):
        for name in functions(NO_CODE.sub("", header.read_text())):
            count += 1
            if not re.search(r" [TWBDRVu] (?:\w+::)*" + re.escape("::".join(name)) + r"\(", defined):
                missing.append(f"{header.relative_to(prefix)}: {'::'.join(name)}")
    print(f"{count} functions are declared")
    print("\n".join(missing))
    return 1 if missing or count < 100 else 0


sys.exit(main())

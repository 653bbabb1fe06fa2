#!/usr/bin/python3
"""Checks status-bar lines read from stdin against the JSON schema of their format.

    check_bar_lines.py waybar|i3bar|i3status-rust SCHEMA_DIR

waybar and i3status-rust: every line is one object. i3bar: a header object, a line "[", then
one array of blocks per line, each after the first preceded by a comma. Prints how many lines
passed; exits with 1 and the first problem otherwise, and when there is no line at all.
"""
import json
import pathlib
import sys

import jsonschema


def schema(folder, name):
    return json.loads((folder / f"{name}.schema.json").read_text())


def main():
    if len(sys.argv) != 3 or sys.argv[1] not in ("waybar", "i3bar", "i3status-rust"):
        sys.exit(__doc__)
    bar_format, folder = sys.argv[1], pathlib.Path(sys.argv[2])
    lines = sys.stdin.read().splitlines()
    if not lines:
        sys.exit("no lines")
    checks = []
    if bar_format == "i3bar":
        if len(lines) < 3 or lines[1] != "[":
            sys.exit(f"an i3bar stream starts with a header, then '[', then a status line: {lines}")
        checks.append((lines[0], schema(folder, "i3bar-header")))
        blocks = schema(folder, "i3bar-blocks")
        for index, line in enumerate(lines[2:]):
            if index > 0:
                if not line.startswith(","):
                    sys.exit(f"status line {index + 1} does not start with a comma: {line}")
                line = line[1:]
            checks.append((line, blocks))
    else:
        one = schema(folder, bar_format)
        checks = [(line, one) for line in lines]
    for line, line_schema in checks:
        try:
            jsonschema.validate(json.loads(line), line_schema)
        except (ValueError, jsonschema.ValidationError) as error:
            sys.exit(f"{line}\n{error}")
    print(f"{len(lines)} {bar_format} lines valid")


main()

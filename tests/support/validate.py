#!/usr/bin/env python3
"""validate.py SCHEMA: checks each line of standard input against a JSON Schema."""
import json
import sys

import jsonschema

with open(sys.argv[1], encoding="utf-8") as file:
    validator = jsonschema.Draft202012Validator(json.load(file))
validator.check_schema(validator.schema)
bad = count = 0
for count, line in enumerate(sys.stdin.buffer, 1):
    for error in validator.iter_errors(json.loads(line)):
        bad += 1
        print(f"line {count}: {error.json_path}: {error.message}", file=sys.stderr)
sys.exit(1 if bad or not count else 0)

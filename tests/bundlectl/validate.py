#!/usr/bin/env python3
"""Checks JSON against a schema: validate.py SCHEMA < LINES. One document a line; says on standard error what is wrong."""
import json
import sys

import jsonschema

with open(sys.argv[1], encoding="utf-8") as file:
    schema = json.load(file)
jsonschema.Draft202012Validator.check_schema(schema)
validator = jsonschema.Draft202012Validator(schema)
lines = sys.stdin.read().splitlines()
faults = [f"line {number}: {error.json_path}: {error.message}"
          for number, line in enumerate(lines, 1)
          for error in validator.iter_errors(json.loads(line))]
if not lines:
    faults.append("there is nothing to check")
print("\n".join(faults), file=sys.stderr)
sys.exit(1 if faults else 0)

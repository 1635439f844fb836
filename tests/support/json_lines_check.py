#!/usr/bin/python3
"""json_lines_check.py SCHEMA LINES: prints each line that is not JSON or that the schema (draft
2020-12) refuses, with the reason, and exits 1 when there was one."""
import json
import sys

from jsonschema import Draft202012Validator

with open(sys.argv[1], encoding="utf-8") as schema_file:
    validator = Draft202012Validator(json.load(schema_file))
bad = 0
with open(sys.argv[2], encoding="utf-8") as lines:
    for number, line in enumerate(lines, 1):
        try:
            reasons = [error.message for error in validator.iter_errors(json.loads(line))]
        except ValueError as error:
            reasons = [str(error)]
        for reason in reasons:
            print(f"line {number}: {reason}: {line.rstrip()}")
        bad += bool(reasons)
sys.exit(1 if bad else 0)

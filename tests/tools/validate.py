#!/usr/bin/env python3
"""validate.py DIRECTORY: reads "SCHEMA LENGTH\\n" and a JSON document of that many bytes, again and again, and answers
each with "valid" or with what is wrong, on one line."""
import json
import pathlib
import sys

import jsonschema

directory = pathlib.Path(sys.argv[1]).resolve()


def check(name, document):
    schema = json.loads((directory / f"{name}.schema.json").read_text())
    validator = jsonschema.validators.validator_for(schema)
    validator.check_schema(schema)
    resolver = jsonschema.RefResolver(base_uri=f"{directory.as_uri()}/", referrer=schema)
    # Every document is one line of its own: a reader of lines gets whole documents.
    if document.count(b"\n") != 1 or not document.endswith(b"\n"):
        return "not one line"
    errors = validator(schema, resolver=resolver).iter_errors(json.loads(document))
    return "; ".join(f"{error.json_path}: {error.message}" for error in errors) or "valid"


while line := sys.stdin.buffer.readline():
    name, length = line.split()
    document = sys.stdin.buffer.read(int(length))
    try:
        answer = check(name.decode(), document)
    except Exception as error:  # a broken schema or document is an answer too
        answer = f"{type(error).__name__}: {error}"
    print(" ".join(answer.split()), flush=True)

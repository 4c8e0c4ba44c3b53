"""Validates JSON documents, one a line on standard input, against the schema in the file named."""
import json
import sys

import jsonschema


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        schema = json.load(file)
    validator = jsonschema.validators.validator_for(schema)
    validator.check_schema(schema)
    count = 0
    for line in sys.stdin:
        for error in validator(schema).iter_errors(json.loads(line)):
            print(f"line {count + 1}: {error.message}")
            return 1
        count += 1
    if count == 0:
        print("there is no document")
    return 0 if count else 1


if __name__ == "__main__":
    sys.exit(main())

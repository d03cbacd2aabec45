// JSON documents against the schemas in doc/.
#pragma once

#include <string>
#include <utility>

#include "tests/support/process.h"
#include "tests/support/scratch.h"

/// What is wrong with the lines, or "". Each is one document.
inline std::string schema_errors(const std::string& schema, const std::string& lines) {
  constexpr char program[] = R"(
import json, sys, jsonschema
schema = json.load(open(sys.argv[1]))
jsonschema.Draft202012Validator.check_schema(schema)
validator = jsonschema.Draft202012Validator(schema)
lines = open(sys.argv[2], encoding="utf-8").read().splitlines()
for line in lines:
    document = json.loads(line)
    if next(iter(document)) != "schema":
        print("schema is not the first member:", line)
    for e in validator.iter_errors(document):
        print(e.message, [c.message for c in e.context or ()], "in:", line)
)";
  const scratch dir;
  const ending e =
      process({"/usr/bin/python3", "-c", program, SOURCE_DIR "/doc/" + schema, dir.file(lines, "lines")}).end();
  return e.status == 0 ? e.out : e.out + e.err;
}

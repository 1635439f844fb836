// Checks varnoch-flash --json output against docs/json-events.schema.json with Debian's
// python3-jsonschema (json_lines_check.py beside this file): a maintained validator, not our own.
#pragma once

#include <string>

namespace jsonschema {

/// "" when every line of `lines` is JSON that the schema accepts, otherwise the validator's report.
std::string checkLines(const std::string& lines);

}  // namespace jsonschema

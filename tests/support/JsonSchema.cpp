#include "JsonSchema.h"

#include <cstdlib>

#include "TempDir.h"

namespace jsonschema {

std::string checkLines(const std::string& lines) {
    const TempDir folder("json");
    const std::string command = VARNOCH_PYTHON3 " " VARNOCH_JSON_CHECK " " VARNOCH_JSON_SCHEMA " " +
                                folder.write("lines.json", lines) + " >" + folder.path("report") + " 2>&1";
    const int status = std::system(command.c_str());
    return status == 0
               ? ""
               : "exit status " + std::to_string(status) + " of " + command + "\n" + folder.read("report");
}

}  // namespace jsonschema

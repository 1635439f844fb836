#include "JsonSchema.h"

#include <cstdio>

#include "TempDir.h"

namespace jsonschema {

std::string checkLines(const std::string& lines) {
    const TempDir folder("json");
    const std::string command = VARNOCH_PYTHON3 " " VARNOCH_JSON_CHECK " " VARNOCH_JSON_SCHEMA " " +
                                folder.write("lines.json", lines) + " 2>&1";
    std::FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return "cannot start " + command;
    }
    std::string report;
    char buffer[4096];
    for (std::size_t count; (count = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
        report.append(buffer, count);
    }
    const int status = pclose(pipe);
    return status == 0 ? "" : "exit status " + std::to_string(status) + " of " + command + "\n" + report;
}

}  // namespace jsonschema

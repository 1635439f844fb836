// Checks JSON text against a JSON Schema (draft 2020-12), for the tests of machine-readable output.
// Only the keywords our schemas use: type, const, enum, properties, required, additionalProperties
// (false or a schema), items, minimum, maximum, pattern, oneOf and local $ref ("#/$defs/name").
#pragma once

#include <string>

namespace jsonschema {

/// Parses `schemaText` once; valid() is false (with error()) when it is not JSON.
class Schema {
  public:
    explicit Schema(const std::string& schemaText);
    ~Schema();
    Schema(const Schema&) = delete;
    Schema& operator=(const Schema&) = delete;

    bool valid() const;
    const std::string& error() const;
    /// "" when `json` is one JSON value that the schema accepts, otherwise what is wrong and where.
    std::string check(const std::string& json) const;

  private:
    struct Impl;
    Impl* impl_;
};

}  // namespace jsonschema

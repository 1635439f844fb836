// The schema of varnoch-flash --json (docs/json-events.schema.json) and the checker the tests apply
// it with: lines it must take and lines it must refuse.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "JsonSchema.h"

namespace {

std::string schemaText() {
    std::stringstream text;
    text << std::ifstream(VARNOCH_JSON_SCHEMA).rdbuf();
    return text.str();
}

const std::string kHead = R"({"v":1,"time":"2026-11-23T21:06:50.123Z","elapsedMs":5,)";

TEST(JsonEvents, SchemaTakesEachEventKind) {
    const jsonschema::Schema schema(schemaText());
    ASSERT_TRUE(schema.valid()) << schema.error();
    for (const std::string& line : {
             kHead +
                 R"("event":"identity","pid":1234,"processName":"varnoch","version":"0.00a","buildTag":"x"})",
             kHead +
                 R"("event":"status","mode":0,"modeName":"ISO Style","state":5,"stateName":"Programming",)"
                 R"("progress":42,"address":38,"identifier":4294967295,"messagesDone":420,)"
                 R"("messagesTotal":1000,"remainingMs":1500})",
             kHead +
                 R"("event":"result","command":"upload","exitStatus":0,"state":6,"stateName":"Done",)"
                 R"("states":[{"state":2,"stateName":"Preparing for upload","ms":3}],"totalMs":3,"sha256":)"
                 R"("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"})",
             kHead + R"("event":"result","command":"status","exitStatus":3,"state":null,"stateName":null,)"
                     R"("states":[],"totalMs":0,"error":"cannot connect"})",
             kHead +
                 R"("event":"result","command":"check","exitStatus":15,"state":105,"stateName":"x",)"
                 R"("states":[],"totalMs":0,"check":{"file":"a.hex","accepted":false,"records":1,"line":2,)"
                 R"("rule":"checksum"}})",
         }) {
        EXPECT_EQ(schema.check(line), "") << line;
    }
}

TEST(JsonEvents, SchemaRefusesWhatAConsumerCouldNotTrust) {
    const jsonschema::Schema schema(schemaText());
    const std::string identity =
        R"("event":"identity","pid":1,"processName":"a","version":"b","buildTag":"c")";
    for (const std::string& line : {
             std::string(R"({"time":"2026-11-23T21:06:50.123Z","elapsedMs":5,)") + identity + "}",  // no "v"
             R"({"v":2,"time":"2026-11-23T21:06:50.123Z","elapsedMs":5,)" + identity + "}",
             R"({"v":1,"time":"2026-11-23 21:06:50","elapsedMs":5,)" + identity + "}",
             kHead + R"("event":"hello"})",
             kHead + identity + R"(,"extra":1})",
             kHead + R"("event":"identity","pid":-1,"processName":"a","version":"b","buildTag":"c"})",
             kHead + R"("event":"result","command":"upload","exitStatus":0,"state":6,"stateName":"Done",)"
                     R"("states":[],"totalMs":1.5})",
             kHead + identity,  // cut short
             kHead + identity + "} {}",
         }) {
        EXPECT_NE(schema.check(line), "") << line;
    }
}

}  // namespace

#pragma once
// Shared by the report tests: strict JSON parsing of a line.

#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <json/json.h>

namespace ReportTest {

inline Json::Value Parse(const std::string& line)
{
    Json::CharReaderBuilder builder;
    builder["strictRoot"] = true;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    EXPECT_TRUE(reader->parse(line.data(), line.data() + line.size(), &value, &errors))
        << "not JSON: " << line << " (" << errors << ")";
    return value;
}

}  // namespace ReportTest

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sdk/JsonUtils.h"
#include "testsupport/TestSupport.h"

using SDK::JsonUtils;

namespace {

Json::Value Parse(const std::string& text)
{
    Json::Value v;
    EXPECT_EQ(0, JsonUtils::ParseJsonStr(text, v)) << text;
    return v;
}

std::string Nested(int depth)
{
    return std::string(depth, '[') + std::string(depth, ']');
}

// An independent strict check: Python decodes each line as UTF-8 (errors
// raise) and parses it as JSON.
bool PythonAcceptsJsonLines(const std::vector<std::string>& docs)
{
    TestSupport::TempDir dir("ardent-json");
    std::string text;
    for (const std::string& doc : docs) {
        text += doc + "\n";
    }
    const std::string path = dir.Write("docs.jsonl", text);
    return TestSupport::RunCommand(
               "python3 -c 'import json,sys\nfor l in open(sys.argv[1], \"rb\").read()"
               ".decode(\"utf-8\").split(\"\\n\")[:-1]: json.loads(l)' '" + path + "'") == 0;
}

}  // namespace

TEST(JsonUtils, ParseAcceptsOneDocumentAndRefusesEverythingElseAndGettersAreTotal)
{
    Json::Value v;
    EXPECT_EQ(0, JsonUtils::ParseJsonStr(std::string("{\"a\":1}  \n"), v));
    EXPECT_EQ(1, v["a"].asInt());
    EXPECT_EQ(0, JsonUtils::ParseJsonStr(std::string("42"), v));
    EXPECT_EQ(42, v.asInt());

    // Only `length` bytes count, whatever follows them.
    const char* text = "{\"b\":2}garbage";
    ASSERT_EQ(0, JsonUtils::ParseJsonStr(text, 7, v));
    EXPECT_EQ(2, v["b"].asInt());

    v = Json::Value("kept");
    for (const std::string bad :
         {"", " ", "{\"a\":1} x", "{\"a\":1}{}", "{\"a\":", "[1,2", "{'a':1}",
          "// note\n{}", "{\"a\":NaN}", "nul", "\"unterminated"}) {
        EXPECT_EQ(-1, JsonUtils::ParseJsonStr(bad, v)) << "accepted: " << bad;
    }
    EXPECT_EQ(-1, JsonUtils::ParseJsonStr(nullptr, 5, v));
    EXPECT_EQ("kept", v.asString()) << "a failed parse must not touch the output";

    // Deep nesting is refused, not recursed into.
    EXPECT_EQ(0, JsonUtils::ParseJsonStr(Nested(1000), v));
    EXPECT_EQ(-1, JsonUtils::ParseJsonStr(Nested(1001), v));
    EXPECT_EQ(-1, JsonUtils::ParseJsonStr(std::string(500000, '['), v));
    std::string objects;
    for (int i = 0; i < 200000; ++i) {
        objects += "{\"a\":";
    }
    EXPECT_EQ(-1, JsonUtils::ParseJsonStr(objects, v));

    // The getters are total.
    const Json::Value doc = Parse(
        R"({"s":"text","i":7,"neg":-3,"big":2147483648,"min":-2147483648,"max":2147483647,)"
        R"("r":1.5,"tenth":0.1,"whole":5.0,"b":true,"n":null,"o":{"k":"v"},"a":["x",2,false],)"
        R"("si":"5"})");
    // A string is a string or the text of a number or bool; an int fits in 32
    // bits and is not a numeric string; a bool is a bool; defaults otherwise.
    struct Case {
        const char* key;
        std::string text;
        int number;
    };
    const Case cases[] = {
        {"s", "text", -1},    {"i", "7", 7},         {"neg", "-3", -3},     {"r", "1.5", -1},
        {"tenth", "0.1", -1}, {"b", "true", -1},     {"n", "d", -1},        {"o", "d", -1},
        {"a", "d", -1},       {"missing", "d", -1},  {"si", "5", -1},       {"big", "2147483648", -1},
        {"max", "2147483647", 2147483647},           {"min", "-2147483648", -2147483647 - 1},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.text, JsonUtils::GetStringValue(doc, c.key, "d")) << c.key;
        EXPECT_EQ(c.number, JsonUtils::GetIntValue(doc, c.key, -1)) << c.key;
        EXPECT_EQ(std::string(c.key) == "b", JsonUtils::GetBoolValue(doc, c.key, false)) << c.key;
    }
    EXPECT_EQ(5, JsonUtils::GetIntValue(doc, "whole", -1));
    // Empty key: the value itself (array elements).
    EXPECT_EQ("x", JsonUtils::GetStringValue(doc["a"][0], "", ""));
    EXPECT_EQ("false", JsonUtils::GetStringValue(doc["a"][2], "", ""));

    Json::Value out("untouched");
    EXPECT_TRUE(JsonUtils::GetSubobjectValue(doc, "o", out));
    EXPECT_EQ("v", out["k"].asString());
    EXPECT_TRUE(JsonUtils::GetArrayValue(doc, "a", out));
    EXPECT_EQ(3u, out.size());
    out = "untouched";
    EXPECT_FALSE(JsonUtils::GetSubobjectValue(doc, "a", out));
    EXPECT_FALSE(JsonUtils::GetArrayValue(doc, "o", out));
    EXPECT_EQ("untouched", out.asString());

    // A root that is not an object: JsonCpp would throw on a member lookup.
    for (const Json::Value& root :
         {Json::Value(Json::arrayValue), Json::Value("s"), Json::Value(3), Json::Value(),
          Json::Value(true)}) {
        EXPECT_EQ("d", JsonUtils::GetStringValue(root, "k", "d"));
        EXPECT_TRUE(JsonUtils::GetBoolValue(root, "k", true));
        EXPECT_EQ(9, JsonUtils::GetIntValue(root, "k", 9));
        EXPECT_FALSE(JsonUtils::GetSubobjectValue(root, "k", out));
        EXPECT_FALSE(JsonUtils::GetArrayValue(root, "k", out));
    }
}

TEST(JsonUtils, JsonToStringIsCompactSortedAndValidForAnyBytes)
{
    std::string controls;
    for (int c = 0; c < 0x20; ++c) {
        controls += static_cast<char>(c);
    }
    controls += "\x7f\"\\/";
    const std::string utf8 = "caf\xc3\xa9 \xe2\x82\xac \xf0\x9d\x84\x9e \xe4\xb8\xad";

    struct Case {
        std::string in;
        std::string expected;  // after writing and reading back
    };
    const Case cases[] = {
        {controls, controls},
        {utf8, utf8},
        {"a\xff" "b", "a\xc3\xbf" "b"},            // stray byte -> U+00FF
        {"\xc3" "A", "\xc3\x83" "A"},              // truncated sequence: the A survives
        {"\x80x", "\xc2\x80x"},                    // lone continuation byte
        {"\xc0\xaf", "\xc3\x80\xc2\xaf"},          // overlong '/'
        {"\xed\xa0\x80", "\xc3\xad\xc2\xa0\xc2\x80"},  // UTF-16 surrogate
        {"\xf4\x90\x80\x80", "\xc3\xb4\xc2\x90\xc2\x80\xc2\x80"},  // above U+10FFFF
        {"\xe2\x82", "\xc3\xa2\xc2\x82"},          // cut at the end
    };
    std::vector<std::string> written;
    for (const Case& c : cases) {
        Json::Value v;
        v["path"] = c.in;
        v["list"].append(c.in);
        v[c.in] = 1;  // keys too
        const std::string text = JsonUtils::JsonToString(v);
        EXPECT_EQ(std::string::npos, text.find('\n')) << "one line";
        written.push_back(text);
        Json::Value back;
        ASSERT_EQ(0, JsonUtils::ParseJsonStr(text, back)) << text;
        EXPECT_EQ(c.expected, back["path"].asString());
        EXPECT_EQ(c.expected, back["list"][0].asString());
        EXPECT_TRUE(back.isMember(c.expected));
    }
    EXPECT_TRUE(PythonAcceptsJsonLines(written));

    // Embedded NUL bytes survive; the text is compact, its keys sorted.
    Json::Value v;
    v["zeta"] = std::string("a\0b", 3);
    v["alpha"]["inner"].append(true);
    v["alpha"]["inner"].append(Json::Value());
    v["big"] = Json::Int64(1) << 40;
    const std::string text = JsonUtils::JsonToString(v);
    EXPECT_EQ(text, std::string(R"({"alpha":{"inner":[true,null]},"big":1099511627776,"zeta":"a\u0000b"})"));
    EXPECT_EQ(v, Parse(text));
}

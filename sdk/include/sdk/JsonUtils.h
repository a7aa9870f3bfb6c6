#pragma once
// JSON helpers over JsonCpp. Every getter is total: a missing key, a value of
// the wrong type or a root that is not an object yields the default (or
// false), never an exception.

#include <cstddef>
#include <string>

#include <json/json.h>

namespace SDK {

class JsonUtils {
public:
    // 0 on success, -1 when `text` is not one JSON document. Nesting deeper
    // than 1000 levels is refused rather than recursed into.
    static int ParseJsonStr(const char* text, std::size_t length, Json::Value& out);
    static int ParseJsonStr(const std::string& text, Json::Value& out);

    // With an empty key the value itself is read (array elements). A string
    // yields itself; a number or bool yields its text; anything else `def`.
    static std::string GetStringValue(const Json::Value& value, const std::string& key,
                                      const std::string& def);
    // Only a JSON bool counts.
    static bool GetBoolValue(const Json::Value& value, const std::string& key, bool def);
    // Only an integral number that fits in 32 bits counts.
    static int GetIntValue(const Json::Value& value, const std::string& key, int def);
    // true and `out` set when the member exists and is an object.
    static bool GetSubobjectValue(const Json::Value& value, const std::string& key,
                                  Json::Value& out);
    // true and `out` set when the member exists and is an array.
    static bool GetArrayValue(const Json::Value& value, const std::string& key,
                              Json::Value& out);

    // Compact one-line JSON, members in key order. Bytes that are not UTF-8
    // and control characters are escaped, so the text is always valid JSON.
    static std::string JsonToString(const Json::Value& value);
};

}  // namespace SDK

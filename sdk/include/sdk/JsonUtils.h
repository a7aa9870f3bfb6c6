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

    // Compact one-line JSON, members in key order. Control characters are
    // escaped (\n, \u0001, ...) and well-formed UTF-8 is written as it is.
    // A byte that is not part of well-formed UTF-8 (in a value or a key) is
    // written as the character with the same number, U+0080..U+00FF (read as
    // Latin-1): the text is always valid UTF-8 JSON and the byte stays visible.
    static std::string JsonToString(const Json::Value& value);
    // A file name for event text that never merges two names. Valid UTF-8
    // comes back as it is (`escaped` false). Otherwise (`escaped` true) each
    // byte that is not part of well-formed UTF-8 becomes "\xhh" and a
    // backslash becomes "\\", so the bytes can be recovered; callers add
    // the exact bytes alongside, since a UTF-8 name may spell "\xhh" itself.
    static std::string EscapeNonUtf8(const std::string& text, bool& escaped);
};

}  // namespace SDK

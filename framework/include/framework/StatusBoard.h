#pragma once
// Process-wide figures that components publish for `ardent-agent ctl status`
// and the `scan` summary (last pass statistics, discovered assets, followed
// containers...). Keys are dotted component names.

#include <string>

#include <json/json.h>

namespace Framework {

class StatusBoard {
public:
    static void Publish(const std::string& key, const Json::Value& value);
    static void Remove(const std::string& key);
    static Json::Value Get(const std::string& key);  // null when absent
    static Json::Value Snapshot();                   // object of all keys
};

}  // namespace Framework

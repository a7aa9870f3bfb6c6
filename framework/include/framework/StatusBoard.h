#pragma once
// Process-wide figures that components render for `ardent-agent ctl status`
// (last pass statistics, discovered assets, followed containers...). Keys
// are dotted component names. Nothing decides by reading them back: typed
// outcomes travel on Topics (Topics.h).

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

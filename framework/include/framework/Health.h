#pragma once
// What the agent cannot do right now, for the verdict of `ctl status`.
//
// A component raises a problem under a stable key ("webshell.rules",
// "report.sink") while it cannot do what its policy asks, and clears it when
// it can again. The verdict is the worst severity raised: "ok" with none,
// "degraded" when part of the protection is missing, "failing" when the
// agent detects nothing. Each change of verdict is logged once at warning,
// not every time a component repeats itself.

#include <cstdint>
#include <string>

#include <json/json.h>

namespace Framework {

class Health {
public:
    enum class Severity { Degraded = 1, Failing = 2 };

    // Raising again under the same key replaces the reason (and keeps when
    // it was first raised).
    static void Raise(const std::string& key, Severity severity, const std::string& reason);
    static void Clear(const std::string& key);
    // Clears every key that starts with `prefix` ("webshell." at unload).
    static void ClearPrefix(const std::string& prefix);

    // Whether changes of verdict are logged (on by default). A one-shot
    // `scan` reports on stderr instead.
    static void LogVerdictChanges(bool on);

    // "ok", "degraded" or "failing".
    static std::string Verdict();
    // {"verdict": ..., "reasons": [{"key", "severity", "reason", "since_ms"}]}
    static Json::Value Render();
};

}  // namespace Framework

#pragma once
// What the end-to-end tests share beyond tests/support: one run of the
// binary, `ctl` requests, policy files, and what the event sink and the
// agent's log say.

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "testsupport/TestSupport.h"

namespace E2e {

struct Outcome {
    int code = -1;
    std::string out, err;
};

// The agent binary run to its end.
inline Outcome Run(const std::vector<std::string>& args, const std::string& workDir = "")
{
    TestSupport::AgentProcess agent;
    Outcome r;
    if (!agent.Start(args, workDir)) {
        ADD_FAILURE() << "cannot start " << TestSupport::AgentBinary();
        return r;
    }
    r.code = agent.Wait(120000);
    r.out = agent.Stdout();
    r.err = agent.Stderr();
    return r;
}

// `ardent-agent ctl REQUEST` for `install`; its exit code, stdout into `out`.
inline int Ctl(const std::string& install, const std::string& request, std::string* out = nullptr)
{
    return TestSupport::RunCommand(TestSupport::AgentBinary() + " ctl " + request + " --install-dir " + install +
                                       (out == nullptr ? " >/dev/null 2>&1" : " 2>&1"),
                                   out);
}

inline Json::Value Component(const std::string& install, const std::string& key)
{
    return TestSupport::CtlStatus(install)["components"][key];
}

// The severity of each health reason raised now.
inline std::map<std::string, std::string> Health(const std::string& install)
{
    std::map<std::string, std::string> out;
    const Json::Value status = TestSupport::CtlStatus(install);
    for (const auto& reason : status["health"]["reasons"]) {
        out[reason["key"].asString()] = reason["severity"].asString();
    }
    return out;
}

// Asks for a pass and returns its figures once it ended.
inline Json::Value ScanNow(const std::string& install)
{
    const uint64_t before = Component(install, "webshell.last_pass")["pass_id"].asUInt64();
    EXPECT_EQ(0, Ctl(install, "scan-now"));
    Json::Value pass;
    EXPECT_TRUE(TestSupport::WaitFor(
        [&] {
            pass = Component(install, "webshell.last_pass");
            return pass["pass_id"].asUInt64() > before && pass["state"].asString() != "running";
        },
        60000, 100))
        << pass;
    return pass;
}

inline std::string Text(const Json::Value& value) { return Json::FastWriter().write(value); }

// A policy written to `rel` under `dir`; returns its path.
inline std::string PolicyFile(TestSupport::TempDir& dir, const std::string& rel, const Json::Value& policy)
{
    return dir.Write(rel, Text(policy));
}

// file_path -> how often the event sink reports it (host and container events).
inline std::map<std::string, int> Reported(const std::string& sink)
{
    std::map<std::string, int> out;
    for (const auto& event : TestSupport::ReadEvents(sink)) {
        const Json::Value& info = event["file_info"];
        ++out[(info.isArray() ? info[0] : info)["file_path"].asString()];
    }
    return out;
}

// How often `needle` occurs in `text`.
inline size_t Count(const std::string& text, const std::string& needle)
{
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++n;
    }
    return n;
}

inline std::string Log(const std::string& install) { return TestSupport::ReadFile(install + "log/agent.log"); }

}  // namespace E2e

#pragma once
// What the end-to-end tests share beyond tests/support: one run of the
// binary, `ctl` requests, policy files, and what the event sink and the
// agent's log say.

#include <algorithm>
#include <fstream>
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

// Events about the file at `path` inside container `name`.
inline std::vector<Json::Value> ContainerEvents(const std::string& sink, const std::string& name,
                                                const std::string& path)
{
    std::vector<Json::Value> out;
    for (const auto& event : TestSupport::ReadEvents(sink)) {
        if (event["container_name"].asString() == name && event["file_info"]["file_path"].asString() == path) {
            out.push_back(event);
        }
    }
    return out;
}

// A periodic pass at once and every second.
inline Json::Value EverySecond(Json::Value policy)
{
    policy["content"]["auto_scan_task"]["task_condition"]["interval_s"] = 1;
    policy["content"]["auto_scan_task"]["task_condition"]["delay_s"] = 0;
    return policy;
}

// `ardent-agent run` on an install tree of its own, events to `events`
// (the default sink when that is empty), stopped when the object goes.
struct Agent {
    explicit Agent(TestSupport::TempDir& dir, const std::vector<std::string>& modules = {})
        : dir(dir), install(TestSupport::MakeInstallTree(dir, modules)), events(dir.Join("events.jsonl"))
    {
    }
    ~Agent()
    {
        if (process.Running()) {
            process.Stop(15, 20000);
        }
    }
    // With `policy` (none when null) and `extra` arguments; a host root
    // without servers unless `extra` names one.
    bool Start(const Json::Value& policy, std::vector<std::string> extra = {})
    {
        std::vector<std::string> args = {"run", "--install-dir", install};
        if (!events.empty()) {
            args.insert(args.end(), {"--events", events});
        }
        if (!policy.isNull()) {
            args.insert(args.end(), {"--policy", PolicyFile(dir, "policy.json", policy)});
        }
        if (std::find(extra.begin(), extra.end(), "--host-root") == extra.end()) {
            args.insert(args.end(), {"--host-root", dir.MkDir("host")});
        }
        args.insert(args.end(), extra.begin(), extra.end());
        return process.Start(args);
    }
    // Until policy 10001 is applied.
    bool Applied()
    {
        return TestSupport::WaitFor([&] { return Status()["policies"].isMember("10001"); }, 30000, 100);
    }
    // The rule library in place before the start, as on a host that has run before.
    void InstallRules(const std::string& source) { std::ofstream(install + "data/webshell/webshell.dat") << source; }

    Json::Value Status() const { return TestSupport::CtlStatus(install); }
    Json::Value Component(const std::string& key) const { return E2e::Component(install, key); }
    std::map<std::string, std::string> Health() const { return E2e::Health(install); }
    Json::Value ScanNow() const { return E2e::ScanNow(install); }
    int Ctl(const std::string& request, std::string* out = nullptr) const { return E2e::Ctl(install, request, out); }
    std::map<std::string, int> Reported() const { return E2e::Reported(events); }
    std::string Log() const { return E2e::Log(install); }
    // For failure messages: the events, the end of the log, stderr.
    std::string Diagnostics() const
    {
        const std::string log = Log();
        return "\nevents:\n" + TestSupport::ReadFile(events) + "\nagent log:\n" +
               log.substr(log.size() - std::min<size_t>(log.size(), 3000)) + "\nagent stderr:\n" + process.Stderr();
    }

    TestSupport::TempDir& dir;
    std::string install, events;
    TestSupport::AgentProcess process;
};

}  // namespace E2e

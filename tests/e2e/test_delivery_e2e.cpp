// Delivery to a SIEM through the real agent: events go to a real rsyslog
// over TCP and to an HTTP receiver; the agent is killed with SIGKILL while a
// batch hangs at the receiver, and after a restart every event arrives, in
// order (at least once: a batch may come twice, never an event not at all).

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "LoopbackHttpServer.h"
#include "RsyslogServer.h"
#include "E2e.h"

namespace {

using TestSupport::TempDir;
using TestSupport::WaitFor;

// The file paths of `lines` (JSON events), in order.
std::vector<std::string> Paths(const std::vector<std::string>& lines)
{
    std::vector<std::string> out;
    for (const auto& line : lines) {
        const Json::Value event = TestSupport::ParseJson(line.substr(line.find('{')));
        out.push_back(event["file_info"][0]["file_path"].asString());
    }
    return out;
}

}  // namespace

TEST(DeliveryE2E, SyslogAndHttpGetEveryEventAndTheSpoolSurvivesAKill)
{
    TempDir dir("e2e-delivery");
    RsyslogServer rsyslog(dir);
    ASSERT_TRUE(rsyslog.ready) << "rsyslogd did not start (apt-get install rsyslog)";
    LoopbackHttpServer receiver;
    receiver.SetIngest(LoopbackHttpServer::Ingest::Hang);

    E2e::Agent agent(dir);
    dir.Write("install/etc/agent.properties",
              "report.syslog.target = tcp://127.0.0.1:" + std::to_string(rsyslog.tcpPort) + "\n" +
                  "report.http.url = " + receiver.Url("/ingest") + "\n" +
                  "report.http.header = Authorization: Splunk e2e\n"
                  "report.http.batch_events = 25\nreport.http.batch_ms = 100\n"
                  "report.http.timeout_s = 30\nreport.http.retry_max_ms = 300\n");
    const std::string rules = dir.Write("rules/webshell.yar", TestSupport::kShellRules);
    const int kShells = 120;
    for (int i = 0; i < kShells; ++i) {
        dir.Write("www/s" + std::to_string(i) + ".php", TestSupport::kShell);
    }
    const Json::Value policy = TestSupport::WebshellPolicy({dir.Join("www")}, rules);
    agent.events = "";  // the default sink
    Json::Value http;
    const auto httpStatus = [&] {
        http = agent.Component("report.http");
        return http;
    };

    // A pass asked for before the policy is applied has nothing to scan with.
    ASSERT_TRUE(agent.Start(policy) && agent.Applied()) << agent.Diagnostics();
    agent.ScanNow();
    // Every event is in the spool and a batch is out at the receiver, which
    // never answers: the agent dies there.
    ASSERT_TRUE(WaitFor([&] { return httpStatus()["spooled"].asInt() == kShells; }, 60000, 100)) << http;
    ASSERT_TRUE(WaitFor([&] { return receiver.Hits("/ingest") > 0; }, 10000));
    EXPECT_EQ(http["sent"].asInt(), 0);
    const std::vector<std::string> order = Paths(TestSupport::ReadLines(agent.install + "log/webshell_events.jsonl"));
    ASSERT_EQ(order.size(), static_cast<size_t>(kShells));
    ASSERT_TRUE(WaitFor([&] { return rsyslog.Lines().size() == static_cast<size_t>(kShells); }, 10000))
        << rsyslog.Lines().size();
    EXPECT_EQ(Paths(rsyslog.Lines()), order);  // syslog in the same order, whole
    EXPECT_EQ(agent.process.Stop(9), 128 + 9);

    // Down while the agent starts again; then up: the spool goes out.
    receiver.SetIngest(LoopbackHttpServer::Ingest::Accept);
    receiver.Down();
    ASSERT_TRUE(agent.Start(policy));
    ASSERT_TRUE(WaitFor([&] { return httpStatus()["failed"].asInt() > 0; }, 20000, 100)) << http;
    EXPECT_EQ(http["pending"].asInt(), kShells);
    const Json::Value degraded = agent.Status()["health"];
    EXPECT_NE(Json::FastWriter().write(degraded).find("report.http"), std::string::npos) << degraded;
    receiver.Up();
    ASSERT_TRUE(WaitFor([&] { return httpStatus()["pending"].asInt() == 0; }, 20000, 100)) << http;
    EXPECT_EQ(http["sent"].asInt(), kShells);
    EXPECT_EQ(http["dropped"].asInt(), 0);
    EXPECT_EQ(Paths(receiver.Ingested()), order);
    EXPECT_EQ(receiver.Authorization(), "Splunk e2e");
    EXPECT_EQ(agent.Status()["health"]["verdict"], "ok");
    EXPECT_EQ(agent.process.Stop(15, 20000), 0);
    const std::string log = agent.Log();
    EXPECT_NE(log.find("cannot deliver events: Connection refused"), std::string::npos) << log;
    EXPECT_NE(log.find("delivers events again"), std::string::npos);
}

// A real Apache httpd on loopback (whose parent/child layout a fake /proc
// only imitates), discovered by the real libasset_module.so loaded into an
// engine; and a service module refused a task name already taken.

#include <algorithm>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>

#include "RealServer.h"
#include "asset/ProcessTable.h"
#include "framework/StatusBoard.h"
#include "message/AssetMessage.h"
#include "sdk/TimeUtils.h"
#include "testsupport/TestSupport.h"

using TestSupport::TempDir;
using TestSupport::WaitFor;
using AssetTest::Accepts;
using AssetTest::FindProgram;
using AssetTest::FreePort;
using AssetTest::ServerProcess;

namespace {

constexpr int kServerStartMs = 15000;
constexpr int kDiscoveryMs = 20000;  // rounds run every second; slack for a loaded machine

// The web directories of the asset of `pid` in the latest message of kind
// 0, sorted; "gone" when none. (That a receiving task gets them through its
// AbstractMessageReceiver is the end-to-end asset test's to prove.)
std::vector<std::string> Dirs(TestSupport::CaptureTask& consumer, int pid)
{
    const auto messages = consumer.MessagesOf<Engine::AssetMessage>();
    for (auto it = messages.rbegin(); it != messages.rend(); ++it) {
        if ((*it)->kind != 0) {
            continue;
        }
        for (const auto& kv : (*it)->assets) {
            if (kv.second->pid == pid) {
                std::vector<std::string> out;
                for (const auto& d : kv.second->webDirList) {
                    out.push_back(d->path);
                }
                std::sort(out.begin(), out.end());
                return out;
            }
        }
        break;
    }
    return {"gone"};
}

// Waits until the asset of `pid` carries exactly `expected` (sorted).
void ExpectDirs(TestSupport::CaptureTask& consumer, int pid, std::vector<std::string> expected)
{
    std::sort(expected.begin(), expected.end());
    EXPECT_TRUE(WaitFor([&] { return Dirs(consumer, pid) == expected; }, kDiscoveryMs))
        << "pid " << pid << "; status: " << Framework::StatusBoard::Get("asset").toStyledString();
}

std::string StartApache(TempDir& dir, ServerProcess& server)
{
    const std::string bin = FindProgram("apache2");
    const std::string modules = "/usr/lib/apache2/modules/";
    const std::string t = dir.Path();
    const int port = FreePort();
    for (const char* sub : {"www/main", "www/vhost", "www/media", "apache/run"}) {
        dir.MkDir(sub);
    }
    dir.Write("apache/mime.types", "text/html html\n");
    std::string conf = "ServerRoot \"" + t + "/apache\"\nDefaultRuntimeDir run\nPidFile run/httpd.pid\n"
                       "Mutex file:" + t + "/apache/run default\nErrorLog " + t + "/apache/error.log\n";
    for (const char* m : {"mpm_event", "authz_core", "alias", "dir", "mime"}) {
        conf += std::string("LoadModule ") + m + "_module " + modules + "mod_" + m + ".so\n";
    }
    conf += "User www-data\nGroup www-data\nTypesConfig mime.types\n"
            "Listen 127.0.0.1:" + std::to_string(port) + "\nServerName localhost\n"
            "Define WWW " + t + "/www\nDocumentRoot \"${WWW}/main\"\nIncludeOptional sites/*.conf\n";
    dir.Write("apache/httpd.conf", conf);
    dir.Write("apache/sites/vhost.conf",
              "<VirtualHost 127.0.0.1:" + std::to_string(port) + ">\n"
              "    DocumentRoot " + t + "/www/vhost\n"
              "    <IfModule alias_module>\n"
              "        Alias /media \"" + t + "/www/media\"\n"
              "    </IfModule>\n"
              "</VirtualHost>\n");
    if (bin.empty() || port <= 0 ||
        !server.Start(bin, {bin, "-f", t + "/apache/httpd.conf", "-DFOREGROUND"}, t + "/output.log") ||
        !WaitFor([&] { return Accepts(port); }, kServerStartMs)) {
        return TestSupport::ReadFile(t + "/output.log") + TestSupport::ReadFile(t + "/apache/error.log");
    }
    return "";
}

}  // namespace

TEST(RealServers, ApacheIsReportedWithItsWebDirectoriesUntilItStops)
{
    // A real nginx is found end to end by the agent (tests/e2e).
    if (FindProgram("apache2").empty() || access("/usr/lib/apache2/modules/mod_mpm_event.so", R_OK) != 0) {
        GTEST_SKIP() << "apache2 is not installed (scripts/install-deps.sh installs it)";
    }
    TestSupport::TestEngine te({"asset"});
    te.engine().config().setInt("asset.interval_s", 1);
    ASSERT_EQ(te.engine().LoadModules(te.InstallDir() + "module"), 1);
    Poco::AutoPtr<TestSupport::CaptureTask> consumer(new TestSupport::CaptureTask("asset_test_consumer"));
    ASSERT_EQ(te.engine().RegisterTask(consumer.get(), nullptr), 0);
    ASSERT_TRUE(te.engine().SendDirectMsg("msg_sync_task",
                                          new Engine::AssetRegisterMessage(0, consumer.get())));

    TempDir dir("asset-apache-real");
    ServerProcess apache;
    ASSERT_EQ(StartApache(dir, apache), "");
    const std::string a = dir.Path();
    ExpectDirs(*consumer, apache.Pid(), {a + "/www/main", a + "/www/vhost", a + "/www/media"});
    // Only the parent is a server: its children (forked when it is ready) are not reported.
    std::vector<int> children;
    EXPECT_TRUE(WaitFor([&] {
        Asset::ProcessTable table("/");
        table.Load();
        children.clear();
        for (const auto& kv : table.Processes()) {
            if (kv.second.ppid == apache.Pid()) {
                children.push_back(kv.first);
            }
        }
        return !children.empty();
    }, kServerStartMs));
    // A round that saw them lists no asset of theirs.
    const int64_t seen = SDK::TimeUtils::GetCurrentTimestampMS();
    ASSERT_TRUE(WaitFor([&] {
        return Framework::StatusBoard::Get("asset")["last_discovery_ms"].asInt64() > seen;
    }, kDiscoveryMs));
    for (const auto& asset : Framework::StatusBoard::Get("asset")["assets"]) {
        EXPECT_EQ(std::count(children.begin(), children.end(), asset["pid"].asInt()), 0);
    }

    const int pid = apache.Pid();
    apache.Stop();
    ExpectDirs(*consumer, pid, {"gone"});
    te.engine().UnRegisterTask("asset_test_consumer");
    te.engine().UnloadModules();
}

// Each module running its tasks with the agent's configuration is covered by
// the end-to-end tests; what they cannot set up is a name already taken.
TEST(ServiceModules, AServiceIsWholeOrAbsent)
{
    TestSupport::TestEngine te({"report"});
    Poco::AutoPtr<TestSupport::CaptureTask> squatter(new TestSupport::CaptureTask("file_comm_report_task"));
    ASSERT_EQ(te.engine().RegisterTask(squatter.get(), nullptr), 0);
    te.engine().LoadModules(te.InstallDir() + "module");
    EXPECT_EQ(te.engine().FindTask("data_comm_report_task"), nullptr);
    EXPECT_EQ(te.engine().FindTask("file_comm_report_task"), squatter.get());
    te.engine().UnloadModules();
    te.engine().UnRegisterTask("file_comm_report_task");
}

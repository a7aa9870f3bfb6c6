// Real servers on loopback, discovered by the real libasset_module.so loaded
// into an engine: a real nginx, a real Apache httpd and a process that looks
// like Tomcat to /proc. Each test stops what it started, even on failure.

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>

#include "RealServer.h"
#include "asset/ProcessTable.h"
#include "framework/StatusBoard.h"
#include "message/AbstractMessageReceiver.h"
#include "message/AssetMessage.h"
#include "testsupport/TestSupport.h"

using TestSupport::TempDir;
using TestSupport::WaitFor;
using AssetMap = Engine::AssetMessage::AssetMap;
using AssetTest::Accepts;
using AssetTest::FindProgram;
using AssetTest::FreePort;
using AssetTest::ServerProcess;

namespace {

constexpr int kServerStartMs = 15000;
constexpr int kDiscoveryMs = 20000;  // rounds run every second; slack for a loaded machine

// A consumer in the position the asset messages rely on: Framework::Task
// first, AbstractMessageReceiver second.
class AssetConsumer : public Framework::Task, public Engine::AbstractMessageReceiver {
public:
    AssetConsumer()
        : Framework::Task("asset_test_consumer", "asset_test",
                          Framework::TaskCondition::TASK_TYPE_RESIDENT, 1024)
    {
    }

    int Run() override
    {
        while (!IsCancelling()) {
            GetEventWaiter().WaitAndHandleEvent(200, 128);
        }
        return 0;
    }

    void AssetMessageAction(unsigned int kind, const AssetMap& assets) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_latest[kind] = assets;
        ++m_updates[kind];
    }

    std::shared_ptr<Engine::AssetMessage::assetInfo> Find(unsigned int kind, int pid)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& kv : m_latest[kind]) {
            if (kv.second->pid == pid) {
                return kv.second;
            }
        }
        return nullptr;
    }

    bool Received(unsigned int kind)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_updates[kind] > 0;
    }

private:
    std::mutex m_mutex;
    std::map<unsigned int, AssetMap> m_latest;
    std::map<unsigned int, int> m_updates;
};

std::vector<std::string> SortedPaths(const Engine::AssetMessage::assetInfo& asset)
{
    std::vector<std::string> out;
    for (const auto& d : asset.webDirList) {
        out.push_back(d->path);
    }
    std::sort(out.begin(), out.end());
    return out;
}

class RealServers : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_engine = std::make_unique<TestSupport::TestEngine>(std::vector<std::string>{"asset"});
        m_engine->engine().config().setInt("asset.interval_s", 1);
        ASSERT_EQ(m_engine->engine().LoadModules(m_engine->InstallDir() + "module"), 1);
        ASSERT_NE(m_engine->engine().FindTask("msg_sync_task"), nullptr);
        m_consumer = new AssetConsumer();
        ASSERT_EQ(m_engine->engine().RegisterTask(m_consumer.get(), nullptr), 0);
        for (unsigned int kind : {0u, 4u}) {
            ASSERT_TRUE(m_engine->engine().SendDirectMsg(
                "msg_sync_task", new Engine::AssetRegisterMessage(kind, m_consumer.get())));
        }
        ASSERT_TRUE(WaitFor([this] { return m_consumer->Received(0) && m_consumer->Received(4); },
                            kDiscoveryMs));
    }

    void TearDown() override
    {
        if (m_engine) {
            m_engine->engine().UnRegisterTask("asset_test_consumer");
            m_engine->engine().UnloadModules();
        }
        m_consumer = nullptr;
        m_engine.reset();
    }

    // Waits until the asset of `pid` carries exactly `expected`; explains
    // what was seen when it does not.
    void ExpectDirs(unsigned int kind, int pid, std::vector<std::string> expected)
    {
        std::sort(expected.begin(), expected.end());
        bool ok = WaitFor(
            [&] {
                auto asset = m_consumer->Find(kind, pid);
                return asset && SortedPaths(*asset) == expected;
            },
            kDiscoveryMs);
        auto asset = m_consumer->Find(kind, pid);
        ASSERT_TRUE(asset) << "no asset of kind " << kind << " for pid " << pid << "; status: "
                           << Framework::StatusBoard::Get("asset").toStyledString();
        EXPECT_TRUE(ok);
        EXPECT_EQ(SortedPaths(*asset), expected);
        EXPECT_TRUE(asset->containerId.empty());
    }

    void ExpectGone(unsigned int kind, int pid)
    {
        EXPECT_TRUE(WaitFor([&] { return m_consumer->Find(kind, pid) == nullptr; }, kDiscoveryMs))
            << "pid " << pid << " still reported after it stopped";
    }

    std::unique_ptr<TestSupport::TestEngine> m_engine;
    Poco::AutoPtr<AssetConsumer> m_consumer;
};

}  // namespace

TEST_F(RealServers, NginxRootsAliasesAndIncludedServersAreReportedUntilItStops)
{
    const std::string nginxBin = FindProgram("nginx");
    if (nginxBin.empty()) {
        GTEST_SKIP() << "nginx is not installed (scripts/install-deps.sh installs nginx-light)";
    }
    TempDir dir("asset-nginx-real");
    const std::string t = dir.Path();
    const int port1 = FreePort();
    const int port2 = FreePort();
    ASSERT_GT(port1, 0);
    ASSERT_GT(port2, 0);
    for (const char* sub : {"www/main", "www/files", "www/second", "tmp"}) {
        dir.MkDir(sub);
    }
    dir.Write("nginx.conf", AssetTest::NginxMainConf(t, "    include conf.d/*.conf;\n"));
    dir.Write("conf.d/10-main.conf",
              "server {\n"
              "    listen 127.0.0.1:" + std::to_string(port1) + ";\n"
              "    root " + t + "/www/main;\n"
              "    location /files/ { alias " + t + "/www/files/; }\n"
              "    location /api/ { proxy_pass http://127.0.0.1:9; }\n"
              "}\n");
    dir.Write("conf.d/20-second.conf",
              "server {\n"
              "    listen 127.0.0.1:" + std::to_string(port2) + ";\n"
              "    server_name second.test;\n"
              "    root \"" + t + "/www/second\";\n"
              "}\n");
    dir.Write("conf.d/30-not-included.txt", "server { root /srv/never; }\n");

    ServerProcess nginx;
    ASSERT_TRUE(nginx.Start(nginxBin,
                            {nginxBin, "-c", t + "/nginx.conf", "-g", "pid " + t + "/nginx.pid;"},
                            t + "/output.log"));
    ASSERT_TRUE(WaitFor([&] { return Accepts(port1) && Accepts(port2); }, kServerStartMs))
        << TestSupport::ReadFile(t + "/output.log") << TestSupport::ReadFile(t + "/error.log");

    ExpectDirs(0, nginx.Pid(), {t + "/www/main", t + "/www/files", t + "/www/second"});
    auto asset = m_consumer->Find(0, nginx.Pid());
    ASSERT_TRUE(asset);
    EXPECT_EQ(asset->server, "nginx");
    EXPECT_EQ(asset->configFile, t + "/nginx.conf");
    EXPECT_EQ(asset->exe, nginxBin);
    for (const auto& d : asset->webDirList) {
        if (d->path == t + "/www/files") {
            EXPECT_EQ(d->origin, "alias");
            EXPECT_EQ(d->configFile, t + "/conf.d/10-main.conf");
            EXPECT_EQ(d->line, 4);
        }
    }
    // What `ctl status` shows.
    bool listed = false;
    const Json::Value status = Framework::StatusBoard::Get("asset");
    for (const auto& a : status["assets"]) {
        listed = listed || (a["pid"].asInt() == nginx.Pid() && a["server"].asString() == "nginx");
    }
    EXPECT_TRUE(listed);

    const int pid = nginx.Pid();
    nginx.Stop();
    ExpectGone(0, pid);
}

TEST_F(RealServers, ApacheDocumentRootsVirtualHostsAndAliasesAreReportedUntilItStops)
{
    const std::string apacheBin = FindProgram("apache2");
    const std::string modules = "/usr/lib/apache2/modules/";
    if (apacheBin.empty() || access((modules + "mod_mpm_event.so").c_str(), R_OK) != 0) {
        GTEST_SKIP() << "apache2 is not installed (scripts/install-deps.sh installs it)";
    }
    TempDir dir("asset-apache-real");
    const std::string t = dir.Path();
    const int port = FreePort();
    ASSERT_GT(port, 0);
    for (const char* sub : {"www/main", "www/vhost", "www/media", "apache/run"}) {
        dir.MkDir(sub);
    }
    dir.Write("apache/mime.types", "text/html html\n");
    std::string conf = "ServerRoot \"" + t + "/apache\"\n"
                       "DefaultRuntimeDir run\n"
                       "PidFile run/httpd.pid\n"
                       "Mutex file:" + t + "/apache/run default\n"
                       "ErrorLog " + t + "/apache/error.log\n"
                       "LogLevel warn\n";
    for (const char* m : {"mpm_event", "authz_core", "alias", "dir", "mime"}) {
        conf += std::string("LoadModule ") + m + "_module " + modules + "mod_" + m + ".so\n";
    }
    conf += "User www-data\n"
            "Group www-data\n"
            "TypesConfig mime.types\n"
            "Listen 127.0.0.1:" + std::to_string(port) + "\n"
            "ServerName localhost\n"
            "Define WWW " + t + "/www\n"
            "DocumentRoot \"${WWW}/main\"\n"
            "IncludeOptional sites/*.conf\n";
    dir.Write("apache/httpd.conf", conf);
    dir.Write("apache/sites/vhost.conf",
              "<VirtualHost 127.0.0.1:" + std::to_string(port) + ">\n"
              "    ServerName vhost.test\n"
              "    DocumentRoot " + t + "/www/vhost\n"
              "    <IfModule alias_module>\n"
              "        Alias /media \"" + t + "/www/media\"\n"
              "    </IfModule>\n"
              "</VirtualHost>\n");

    ServerProcess apache;
    ASSERT_TRUE(apache.Start(apacheBin, {apacheBin, "-f", t + "/apache/httpd.conf", "-DFOREGROUND"},
                             t + "/output.log"));
    ASSERT_TRUE(WaitFor([&] { return Accepts(port); }, kServerStartMs))
        << TestSupport::ReadFile(t + "/output.log") << TestSupport::ReadFile(t + "/apache/error.log");

    ExpectDirs(0, apache.Pid(), {t + "/www/main", t + "/www/vhost", t + "/www/media"});
    auto asset = m_consumer->Find(0, apache.Pid());
    ASSERT_TRUE(asset);
    EXPECT_EQ(asset->server, "apache");
    EXPECT_EQ(asset->configFile, t + "/apache/httpd.conf");

    // Only the parent is a server: its children are not reported.
    Asset::ProcessTable table("/");
    table.Load();
    int children = 0;
    for (const auto& kv : table.Processes()) {
        if (kv.second.ppid == apache.Pid()) {
            ++children;
            EXPECT_EQ(m_consumer->Find(0, kv.first), nullptr);
        }
    }
    EXPECT_GT(children, 0);

    const int pid = apache.Pid();
    apache.Stop();
    ExpectGone(0, pid);
}

TEST_F(RealServers, TomcatLookalikeIsReportedWithAppBaseAndDocBasesUntilItStops)
{
    TempDir dir("asset-tomcat-real");
    const std::string t = dir.Path();
    dir.MkDir("tomcat/webapps/ROOT");
    dir.Write("tomcat/conf/server.xml",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<Server port=\"-1\" shutdown=\"SHUTDOWN\">\n"
              "  <Service name=\"Catalina\">\n"
              "    <Connector port=\"8080\" protocol=\"HTTP/1.1\"/>\n"
              "    <Engine name=\"Catalina\" defaultHost=\"localhost\">\n"
              "      <Host name=\"localhost\" appBase=\"webapps\" unpackWARs=\"true\">\n"
              "        <Context path=\"/shop\" docBase=\"" + t + "/www/shop\"/>\n"
              "      </Host>\n"
              "    </Engine>\n"
              "  </Service>\n"
              "</Server>\n");
    dir.Write("tomcat/conf/Catalina/localhost/blog.xml",
              "<Context docBase=\"${catalina.base}/../www/blog\"/>\n");

    const std::vector<std::string> argv = {
        "java",
        "-Djava.util.logging.manager=org.apache.juli.ClassLoaderLogManager",
        "-Dcatalina.base=" + t + "/tomcat",
        "-Dcatalina.home=" + t + "/tomcat",
        "-classpath",
        t + "/tomcat/bin/bootstrap.jar",
        "org.apache.catalina.startup.Bootstrap",
        "start"};
    ServerProcess tomcat;
    ASSERT_TRUE(tomcat.Start(ASSET_FAKE_JAVA, argv, t + "/output.log"));
    // /proc must really show Tomcat's command line.
    std::string expectedCmdline;
    for (const auto& a : argv) {
        expectedCmdline += a;
        expectedCmdline += '\0';
    }
    ASSERT_TRUE(WaitFor(
        [&] {
            return TestSupport::ReadFile("/proc/" + std::to_string(tomcat.Pid()) + "/cmdline") ==
                   expectedCmdline;
        },
        kServerStartMs));

    ExpectDirs(4, tomcat.Pid(),
               {t + "/tomcat/webapps", t + "/www/shop", t + "/tomcat/../www/blog"});
    auto asset = m_consumer->Find(4, tomcat.Pid());
    ASSERT_TRUE(asset);
    EXPECT_EQ(asset->server, "tomcat");
    EXPECT_EQ(asset->configFile, t + "/tomcat/conf/server.xml");
    EXPECT_EQ(m_consumer->Find(0, tomcat.Pid()), nullptr);

    const int pid = tomcat.Pid();
    tomcat.Stop();
    ExpectGone(4, pid);
}

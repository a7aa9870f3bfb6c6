// Discovery from a fake host tree (/proc, configuration files, Docker's
// state) and the asset service task's fan-out to consumers.

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>

#include "FakeHost.h"
#include "asset/AssetDiscovery.h"
#include "asset/AssetSyncTask.h"
#include "framework/StatusBoard.h"
#include "message/AssetMessage.h"
#include "testsupport/TestSupport.h"

using namespace Asset;
using TestSupport::TempDir;

namespace {

const std::string kContainerId = "4f1c9b7a2e3d5c6b8a9f0e1d2c3b4a5f6e7d8c9b0a1f2e3d4c5b6a7f8e9d0c1b";

// A host tree whose /proc holds init and the processes the test describes.
struct FakeHost : ContainerTest::FakeHost {
    FakeHost()
    {
        AddProcess(1, 0, "systemd", {"/sbin/init"}, "/usr/lib/systemd/systemd");
        Dir().Symlink("mnt:[4026531840]", "proc/1/ns/mnt");
    }
};

// The host, a Docker container, a chroot jail, an Apache with children and a Tomcat.
void Populate(FakeHost& host)
{
    TempDir& d = host.Dir();
    // nginx on the host; the worker must not count as a second server.
    host.AddProcess(100, 1, "nginx",
                    {"nginx: master process /usr/sbin/nginx -g daemon on; master_process on;"},
                    "/usr/sbin/nginx");
    host.AddProcess(101, 100, "nginx", {"nginx: worker process"}, "/usr/sbin/nginx");
    d.Write("etc/nginx/nginx.conf",
            "events {}\n"
            "http {\n"
            "    include /etc/nginx/sites-enabled/*;\n"
            "}\n");
    d.Write("etc/nginx/sites-enabled/default",
            "server {\n"
            "    root /var/www/html;\n"
            "    location /downloads/ { alias /srv/downloads/; }\n"
            "}\n");

    // nginx in a Docker container: read through /proc/<pid>/root, where an
    // absolute link must resolve inside the container.
    host.AddProcess(200, 1, "nginx", {"nginx: master process nginx -g daemon off;"},
                    "/usr/sbin/nginx", "0::/system.slice/docker-" + kContainerId + ".scope\n");
    d.Write("proc/200/root/etc/nginx/nginx.conf", "http { include sites-enabled/*; }\n");
    d.Write("proc/200/root/etc/nginx/sites-available/shop", "server { root /srv/shop; }\n");
    d.Symlink("/etc/nginx/sites-available/shop", "proc/200/root/etc/nginx/sites-enabled/shop");
    d.MkDir("proc/200/root/srv/shop");
    d.Write("var/lib/docker/containers/" + kContainerId + "/config.v2.json",
            "{\"ID\":\"" + kContainerId + "\",\"Name\":\"/shop-web\"}");

    // nginx in its own mount namespace with another root, no runtime in its
    // cgroup: still a container.
    host.AddProcess(300, 1, "nginx",
                    {"nginx: master process /usr/sbin/nginx -p /opt/jail-nginx/ -c conf/main.conf"},
                    "/usr/sbin/nginx");
    d.Symlink("mnt:[4026532999]", "proc/300/ns/mnt");
    d.Symlink("jail-root", "proc/300/root");
    d.Write("proc/300/jail-root/opt/jail-nginx/conf/main.conf",
            "http { server { root html; } }\n");

    // A service with a private mount namespace but the host's root (systemd
    // PrivateTmp) is a host process.
    host.AddProcess(400, 1, "apache2", {"/usr/sbin/apache2", "-k", "start", "-DSSL"},
                    "/usr/sbin/apache2", "0::/system.slice/apache2.service\n",
                    {"APACHE_RUN_DIR=/var/run/apache2", "SITES=/var/www/sites"});
    d.Symlink("mnt:[4026533001]", "proc/400/ns/mnt");
    d.Symlink("/", "proc/400/root");
    host.AddProcess(401, 400, "apache2", {"/usr/sbin/apache2", "-k", "start"}, "/usr/sbin/apache2");
    host.AddProcess(402, 400, "apache2", {"/usr/sbin/apache2", "-k", "start"}, "/usr/sbin/apache2");
    d.Write("etc/apache2/envvars", "export APACHE_LOG_DIR=/var/log/apache2$SUFFIX\n");
    d.Write("etc/apache2/apache2.conf",
            "DefaultRuntimeDir ${APACHE_RUN_DIR}\n"
            "ErrorLog ${APACHE_LOG_DIR}/error.log\n"
            "IncludeOptional sites-enabled/*.conf\n"
            "<IfDefine SSL>\n"
            "  DocumentRoot ${SITES}/secure\n"
            "</IfDefine>\n"
            "DocumentRoot\n");  // broken: logged with its line, the rest used
    d.Write("etc/apache2/sites-enabled/blog.conf",
            "<VirtualHost *:80>\n"
            "  DocumentRoot /var/www/blog\n"
            "  Alias /static /srv/blog-static\n"
            "</VirtualHost>\n");

    // Tomcat.
    host.AddProcess(500, 1, "java",
                    {"/usr/lib/jvm/java-17/bin/java", "-Djava.util.logging.config.file=x",
                     "-Dcatalina.base=/var/lib/tomcat9", "-Dcatalina.home=/usr/share/tomcat9",
                     "-Dapps.dir=/srv/apps", "org.apache.catalina.startup.Bootstrap", "start"},
                    "/usr/lib/jvm/java-17/bin/java");
    d.Write("var/lib/tomcat9/conf/server.xml",
            "<Server><Service><Engine name=\"Catalina\">\n"
            "<Host name=\"localhost\" appBase=\"webapps\">\n"
            "  <Context docBase=\"${apps.dir}/shop\"/>\n"
            "</Host></Engine></Service></Server>\n");

    // Processes that are no server.
    host.AddProcess(600, 1, "bash", {"-bash"}, "/usr/bin/bash");
    host.AddProcess(601, 1, "java", {"java", "-jar", "other.jar"}, "/usr/bin/java");
}

std::vector<std::string> DirPaths(const AssetInfo& asset)
{
    std::vector<std::string> out;
    for (const auto& d : asset.webDirList) {
        out.push_back(d->path);
    }
    return out;
}

std::shared_ptr<AssetInfo> ByPid(const AssetList& list, int pid)
{
    for (const auto& a : list) {
        if (a->pid == pid) {
            return a;
        }
    }
    return nullptr;
}

}  // namespace

TEST(AssetDiscovery, FindsServersOnTheHostAndInContainersWithHostVisiblePaths)
{
    FakeHost host;
    Populate(host);
    const std::string r = host.Root();
    AssetDiscovery discovery(r + "/");
    DiscoveryResult result = discovery.Discover();

    ASSERT_EQ(result.byKind.size(), 2u);
    const AssetList& web = result.byKind[Engine::AssetMessage::KIND_WEB_SERVER];
    const AssetList& java = result.byKind[Engine::AssetMessage::KIND_JAVA_APP_SERVER];
    std::vector<int> pids;
    for (const auto& a : web) {
        pids.push_back(a->pid);
    }
    // Canonical order: host assets first, then by container id.
    EXPECT_EQ(pids, (std::vector<int>{400, 100, 200, 300}));
    ASSERT_EQ(java.size(), 1u);

    struct Expected {
        int pid;
        std::string server;
        std::string containerId;
        std::string configFile;
        std::vector<std::string> dirs;
    };
    const std::string c200 = r + "/proc/200/root";
    const std::string c300 = r + "/proc/300/root";
    const Expected expected[] = {
        {100, "nginx", "", r + "/etc/nginx/nginx.conf", {r + "/var/www/html", r + "/srv/downloads"}},
        // An absolute link in the container resolves inside it.
        {200, "nginx", kContainerId, c200 + "/etc/nginx/nginx.conf", {c200 + "/srv/shop"}},
        {300, "nginx", "mntns-4026532999", c300 + "/opt/jail-nginx/conf/main.conf",
         {c300 + "/opt/jail-nginx/html"}},
        {400, "apache", "", r + "/etc/apache2/apache2.conf",
         {r + "/var/www/blog", r + "/srv/blog-static", r + "/var/www/sites/secure"}},
        {500, "tomcat", "", r + "/var/lib/tomcat9/conf/server.xml",
         {r + "/var/lib/tomcat9/webapps", r + "/srv/apps/shop"}},
    };
    for (const auto& e : expected) {
        auto asset = ByPid(e.pid == 500 ? java : web, e.pid);
        ASSERT_NE(asset, nullptr) << e.pid;
        EXPECT_EQ((std::vector<std::string>{asset->server, asset->containerId, asset->configFile}),
                  (std::vector<std::string>{e.server, e.containerId, e.configFile}));
        EXPECT_EQ(DirPaths(*asset), e.dirs) << e.pid;
    }
    auto nginx = ByPid(web, 100);
    EXPECT_EQ(nginx->exe, "/usr/sbin/nginx");
    EXPECT_EQ(nginx->webDirList[1]->configFile, r + "/etc/nginx/sites-enabled/default");
    EXPECT_EQ(ByPid(web, 200)->containerName, "shop-web");
    EXPECT_EQ(ByPid(web, 200)->webDirList[0]->configFile, c200 + "/etc/nginx/sites-available/shop");

    // The broken Apache line is reported with the host-visible file and its line.
    bool found = false;
    for (const auto& i : result.issues) {
        found = found || (i.server == "apache" && i.pid == 400 &&
                          i.issue.file == r + "/etc/apache2/apache2.conf" && i.issue.line == 7);
    }
    EXPECT_TRUE(found);
}

TEST(AssetDiscovery, ServersAreRecognisedByTheirProcessesAlone)
{
    FakeHost host;
    // An nginx started without a master (or not yet retitled) serves itself.
    host.AddProcess(10, 1, "nginx", {"/usr/sbin/nginx", "-c", "/etc/x.conf"}, "/usr/sbin/nginx");
    host.AddProcess(11, 10, "nginx", {"/usr/sbin/nginx", "-c", "/etc/x.conf"}, "/usr/sbin/nginx");
    host.AddProcess(12, 1, "nginx", {"nginx: cache manager process"}, "/usr/sbin/nginx");
    // A renamed binary is recognised by the executable, not by its name.
    host.AddProcess(13, 1, "httpd", {"httpd", "-h", "/www"}, "/bin/busybox");
    host.AddProcess(14, 1, "httpd", {"/usr/sbin/httpd", "-DFOREGROUND"}, "/usr/sbin/httpd");
    // Tomcat by its catalina properties, whatever the launcher's name.
    host.AddProcess(15, 1, "sleep", {"java", "-Dcatalina.home=/opt/tc", "Bootstrap"}, "/usr/bin/sleep");
    host.AddProcess(16, 1, "java", {"java", "-Dcatalina.other=/x"}, "/usr/bin/java");
    // A zombie nginx and a kernel thread are no servers.
    host.Dir().Write("proc/17/stat", "17 (nginx) Z 1 17 17 0 -1\n");
    host.Dir().Write("proc/17/cmdline", "");
    host.Dir().Write("proc/18/stat", "18 (nginx) S 2 0 0 0 -1\n");
    host.Dir().Write("proc/18/cmdline", "");
    ProcessTable table(host.Root());
    table.Load();
    EXPECT_EQ(table.Find(17), nullptr);
    EXPECT_EQ(table.Find(18), nullptr);
    std::map<int, ServerType> expected = {
        {1, ServerType::NONE},   {10, ServerType::NGINX}, {11, ServerType::NONE},
        {12, ServerType::NONE},  {13, ServerType::NONE},  {14, ServerType::APACHE},
        {15, ServerType::TOMCAT}, {16, ServerType::NONE},
    };
    ASSERT_EQ(table.Processes().size(), expected.size());
    for (const auto& kv : expected) {
        const ProcessInfo* p = table.Find(kv.first);
        ASSERT_NE(p, nullptr) << kv.first;
        EXPECT_EQ(AssetDiscovery::Classify(*p, table), kv.second) << "pid " << kv.first;
    }
    // A missing configuration is an issue that names the file, and the asset stays.
    DiscoveryResult result = AssetDiscovery(host.Root()).Discover();
    ASSERT_EQ(result.byKind[0].size(), 2u);
    auto nginx = ByPid(result.byKind[0], 10);
    ASSERT_NE(nginx, nullptr);
    EXPECT_EQ(nginx->configFile, host.Root() + "/etc/x.conf");
    EXPECT_TRUE(nginx->webDirList.empty());
    bool named = false;
    for (const auto& i : result.issues) {
        named = named || (i.pid == 10 && i.issue.file == host.Root() + "/etc/x.conf");
    }
    EXPECT_TRUE(named);
    // httpd without its files falls back to the Red Hat layout.
    auto httpd = ByPid(result.byKind[0], 14);
    ASSERT_NE(httpd, nullptr);
    EXPECT_EQ(httpd->configFile, host.Root() + "/etc/httpd/conf/httpd.conf");
}

TEST(AssetSyncTask, SubscribersGetAssetsAtOnceAndOnlyChangesAfterwards)
{
    FakeHost host;
    Populate(host);
    TestSupport::TestEngine te;
    Poco::AutoPtr<TestSupport::CaptureTask> consumer(new TestSupport::CaptureTask("asset_consumer"));
    ASSERT_EQ(te.engine().RegisterTask(consumer.get(), nullptr), 0);

    // Driven on the test thread: the handlers and rounds run where we call them.
    Poco::AutoPtr<Engine::AssetSyncTask> task(new Engine::AssetSyncTask({host.Root(), 1}));
    task->DiscoverNow();
    auto handle = [&](Framework::Message* raw) {
        std::shared_ptr<Framework::Message> msg(raw);
        return task->HandleMsg(msg);
    };
    EXPECT_EQ(handle(new Engine::AssetRegisterMessage(4, consumer.get())), 1);
    ASSERT_TRUE(consumer->WaitForCount(1));
    auto first = consumer->MessagesOf<Engine::AssetMessage>();
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0]->kind, 4u);
    ASSERT_EQ(first[0]->assets.size(), 1u);
    EXPECT_EQ(first[0]->assets.at(0)->server, "tomcat");

    handle(new Engine::AssetRegisterMessage(0, consumer.get()));
    ASSERT_TRUE(consumer->WaitForCount(2));
    EXPECT_EQ(consumer->MessagesOf<Engine::AssetMessage>()[1]->assets.size(), 4u);

    // An unchanged round sends nothing; the next change is the very next message.
    task->DiscoverNow();
    host.StopProcess(100);
    host.StopProcess(101);
    task->DiscoverNow();
    ASSERT_TRUE(consumer->WaitForCount(3));
    auto msgs = consumer->MessagesOf<Engine::AssetMessage>();
    EXPECT_EQ(msgs[2]->kind, 0u);
    EXPECT_EQ(msgs[2]->assets.size(), 3u);
    for (const auto& kv : msgs[2]->assets) {
        EXPECT_NE(kv.second->pid, 100);
    }

    Json::Value status = Framework::StatusBoard::Get("asset");
    EXPECT_EQ(status["assets"].size(), 4u);  // 3 web servers and Tomcat
    EXPECT_EQ(status["consumers"]["0"].asInt(), 1);
    EXPECT_EQ(status["consumers"]["4"].asInt(), 1);
    EXPECT_GT(status["last_discovery_ms"].asInt64(), 0);
    EXPECT_FALSE(status["configuration_issues"].empty());

    // After unsubscribing from kind 0 only kind 4 changes reach the consumer.
    EXPECT_EQ(handle(new Engine::AssetUnRegisterMessage(0, consumer.get())), 0);
    host.StopProcess(400);
    host.StopProcess(500);
    task->DiscoverNow();
    ASSERT_TRUE(consumer->WaitForCount(4));
    msgs = consumer->MessagesOf<Engine::AssetMessage>();
    EXPECT_EQ(msgs[3]->kind, 4u);
    EXPECT_TRUE(msgs[3]->assets.empty());
    EXPECT_EQ(Framework::StatusBoard::Get("asset")["consumers"]["0"].asInt(), 0);
    te.engine().UnRegisterTask("asset_consumer");
}

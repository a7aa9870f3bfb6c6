// Discovery of containers from runtime state written by the test: what the
// collector reports for each runtime, when it says a container stopped, and
// what it does with state it cannot use.

#include <sys/stat.h>

#include <algorithm>
#include <map>

#include <gtest/gtest.h>

#include "ContainerCollector.h"
#include "FakeHost.h"
#include "OciBundle.h"
#include "container/RuntimeState.h"
#include "testsupport/TestSupport.h"

using namespace ContainerTest;
using Container::ContainerCollector;
using InfoList = std::vector<std::shared_ptr<Engine::ContainerInfo>>;

namespace {

// Log lines an operator reads that name both `what` and `why`.
size_t Lines(TestSupport::LogCapture& log, const std::string& what, const std::string& why)
{
    size_t n = 0;
    for (const auto& text : log.Texts(what, Poco::Message::PRIO_INFORMATION)) {
        n += text.find(why) != std::string::npos ? 1 : 0;
    }
    return n;
}

std::map<std::string, std::shared_ptr<Engine::ContainerInfo>> ById(const InfoList& list)
{
    std::map<std::string, std::shared_ptr<Engine::ContainerInfo>> out;
    for (const auto& i : list) {
        out[i->id] = i;
    }
    return out;
}

// What the scan module reads of a container, in a fixed order: id, name,
// image, image id, root, runtime, namespace, bundle, pid, pod, pod
// namespace, container name.
std::vector<std::string> Describe(const Engine::ContainerInfo& i)
{
    return {i.id,    i.name,  i.imageName, i.imageId, i.rootPath, i.text1,
            i.text2, i.text3, i.text4,     i.text5,   i.text6,    i.text7};
}

bool HasProblem(const ContainerCollector& c, const std::string& path, const std::string& reasonPart)
{
    for (const auto& p : c.Problems()) {
        if (p.path == path && p.reason.find(reasonPart) != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace

TEST(ContainerRuntime, DockerContainerIsReportedOnceWithItsNameAndImageThroughRestartAndDamage)
{
    FakeHost host;
    const std::string id = HexId(1);
    const std::string bundle = host.StartDocker(id, "/web1", 4242);
    ContainerCollector collector(host.Root(), nullptr);

    InfoList changes = collector.Poll();
    ASSERT_EQ(changes.size(), 1u);
    const auto& info = *changes[0];
    EXPECT_TRUE(info.running);
    EXPECT_EQ(Describe(info), (std::vector<std::string>{id, "web1", "nginx:1.25", "sha256:" + HexId(99),
                                                         bundle + "/rootfs", "docker", "moby", bundle,
                                                         "4242", "", "", ""}));
    EXPECT_EQ(info.list1, (std::vector<std::string>{"nginx", "-g", "daemon off;"}));
    EXPECT_EQ(info.list2.size(), 2u);
    EXPECT_EQ(info.list3, (std::vector<std::string>{"maintainer=ops@example.com"}));
    EXPECT_EQ(info.list4, (std::vector<std::string>{"80/tcp"}));
    EXPECT_EQ(info.list5, (std::vector<std::string>{"bridge"}));
    ASSERT_EQ(info.mountPointList.size(), 1u);
    const auto& mount = info.mountPointList[0];
    EXPECT_EQ((std::vector<std::string>{mount.mountText1, mount.mountText2, mount.mountText3}),
              (std::vector<std::string>{"/srv/uploads", "/var/www/html/uploads", "bind"}));
    EXPECT_TRUE(mount.mountFlag);
    EXPECT_FALSE(info.flag3);  // it has a network namespace of its own

    // Nothing new: nothing reported, and the running set is unchanged.
    EXPECT_TRUE(collector.Poll().empty());
    ASSERT_EQ(collector.Running().size(), 1u);
    EXPECT_EQ(collector.Running()[0]->id, id);
    EXPECT_TRUE(collector.Problems().empty());

    // Restarted with a new process: a stop, then a start; the record sent
    // earlier is not changed by the stop.
    host.StopProcess(4242);
    host.StartDocker(id, "/web1", 4243);
    InfoList restart = collector.Poll();
    ASSERT_EQ(restart.size(), 2u);
    EXPECT_EQ((std::vector<bool>{restart[0]->running, restart[1]->running}), (std::vector<bool>{false, true}));
    EXPECT_EQ(restart[0]->text4, "4242");
    EXPECT_EQ(restart[1]->text4, "4243");
    EXPECT_TRUE(changes[0]->running);

    // A bundle being rewritten or damaged is neither a stop nor a second
    // start; once the bundle is gone, the container has stopped.
    host.Dir().Write(FakeHost::BundleRel("moby", id) + "/config.json", "{");
    EXPECT_TRUE(collector.Poll().empty());
    host.Remove(FakeHost::BundleRel("moby", id) + "/config.json");
    EXPECT_TRUE(collector.Poll().empty());
    EXPECT_EQ(collector.Running().size(), 1u);
    host.Remove(FakeHost::BundleRel("moby", id));
    restart = collector.Poll();
    ASSERT_EQ(restart.size(), 1u);
    EXPECT_FALSE(restart[0]->running);

    // Started again, then stopped by Docker's own record: one stop, and the
    // stopped copy still describes the container.
    host.StartDocker(id, "/web1", 4244);
    ASSERT_EQ(collector.Poll().size(), 1u);
    host.DockerRecord(id, "/web1", "nginx:1.25", 4244, false);
    restart = collector.Poll();
    ASSERT_EQ(restart.size(), 1u);
    EXPECT_FALSE(restart[0]->running);
    EXPECT_EQ((std::vector<std::string>{restart[0]->name, restart[0]->rootPath}),
              (std::vector<std::string>{"web1", bundle + "/rootfs"}));
    EXPECT_TRUE(collector.Poll().empty());
}

TEST(ContainerRuntime, RootPathFollowsTheBundleConfiguration)
{
    FakeHost host;
    // Absolute root.path: under the host root (Docker's overlay mount).
    const std::string absId = HexId(5);
    Json::Value absConfig = OciConfig("/var/lib/docker/overlay2/abc/merged/");
    host.Bundle("moby", absId, 300, absConfig);
    host.Dir().MkDir("var/lib/docker/overlay2/abc/merged");
    host.StartProcess(300);
    // Relative root.path: against the bundle.
    const std::string relId = HexId(6);
    const std::string relBundle = host.Bundle("default", relId, 301, OciConfig("other-root"));
    host.Dir().MkDir(FakeHost::BundleRel("default", relId) + "/other-root");
    host.StartProcess(301);
    // No root.path and no rootfs visible: the process's own view.
    const std::string procId = HexId(7);
    host.Bundle("default", procId, 302, OciConfig(""));
    host.Remove(FakeHost::BundleRel("default", procId) + "/rootfs");
    host.Dir().MkDir("proc/302/root/var/www/html");
    // A root that climbs out of the host root is refused.
    const std::string badId = HexId(8);
    const std::string badBundle = host.Bundle("default", badId, 303, OciConfig("../../../../etc"));
    host.StartProcess(303);

    ContainerCollector collector(host.Root(), nullptr);
    auto found = ById(collector.Poll());
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[absId]->rootPath, host.Path("var/lib/docker/overlay2/abc/merged"));
    EXPECT_EQ(found[absId]->text1, "docker");  // the moby namespace is Docker's
    EXPECT_EQ(found[relId]->rootPath, relBundle + "/other-root");
    EXPECT_EQ(found[relId]->text1, "containerd");
    EXPECT_EQ(found[relId]->text2, "default");
    EXPECT_EQ(found[relId]->name, relId.substr(0, 12));
    EXPECT_EQ(found[procId]->rootPath, host.Path("proc/302/root"));
    EXPECT_EQ(found.count(badId), 0u);
    EXPECT_TRUE(HasProblem(collector, badBundle + "/config.json", "climbs out"));
}

// Docker, containerd and Podman are run for real by the end-to-end tests
// (tests/e2e/test_runtimes_e2e.cpp); Kubernetes under containerd or CRI-O,
// and what the real runtimes cannot be made to write, are here.
TEST(ContainerRuntime, KubernetesContainersAreNamedFromTheirAnnotationsUnderContainerdAndCrio)
{
    FakeHost host;
    const std::string id = HexId(10);
    const std::string sandboxId = HexId(11);
    const std::string crioId = HexId(21);
    const std::string bundle =
        host.StartK8s(id, "shop-7d9f", "prod", "php-fpm", "registry.local/shop:2.1", 400);
    host.StartK8s(sandboxId, "shop-7d9f", "prod", "", "", 399, true);
    const std::string crioBundle = host.StartCrio(crioId, "api-5c", "team-a", "app", "quay.io/acme/api:3", 501);
    // A stopped CRI-O container: its state stays on disk without a pidfile.
    host.Dir().Write(FakeHost::StorageRel("var/lib", HexId(22)) + "/config.json", ToJson(OciConfig()));

    ContainerCollector collector(host.Root(), nullptr);
    auto found = ById(collector.Poll());
    ASSERT_EQ(found.size(), 3u);
    const auto& info = *found[id];
    EXPECT_EQ(Describe(info),
              (std::vector<std::string>{id, "php-fpm", "registry.local/shop:2.1", "", bundle + "/rootfs",
                                        "containerd", "k8s.io", bundle, "400", "shop-7d9f", "prod",
                                        "php-fpm"}));
    EXPECT_EQ(info.textMap.at("io.kubernetes.cri.sandbox-name"), "shop-7d9f");
    // The pod's sandbox is named after the pod.
    EXPECT_EQ(found[sandboxId]->name, "shop-7d9f");
    const std::string overlay = host.Path("var/lib/containers/storage/overlay/");
    EXPECT_EQ(Describe(*found[crioId]),
              (std::vector<std::string>{crioId, "app", "quay.io/acme/api:3", "sha256:" + HexId(10),
                                        overlay + HexId(9) + "/merged", "cri-o", "", crioBundle, "501",
                                        "api-5c", "team-a", "app"}));
    EXPECT_TRUE(collector.Problems().empty());

    host.Remove(FakeHost::StorageRel("run", crioId));
    auto changes = collector.Poll();
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_FALSE(changes[0]->running);
    EXPECT_EQ(changes[0]->id, crioId);
}

TEST(ContainerRuntime, StateIsFoundWhereContainerdsConfigurationPutsItAndBadDaemonStateIsSaid)
{
    TestSupport::LogCapture log("container_module");
    FakeHost host;
    const std::string ctdId = HexId(51);
    Json::Value config = OciConfig();
    config["annotations"]["nerdctl/name"] = "plain";
    // containerd whose state directory is set in its configuration file.
    host.AddProcess(910, 1, "containerd", {"containerd", "-c", "/etc/ctd.toml"});
    host.Dir().Write("etc/ctd.toml", "version = 2\nstate = \"/srv/ctd-state\"  # moved\n[grpc]\n  state = \"/no\"\n");
    const std::string ctdBundle = "srv/ctd-state/io.containerd.runtime.v2.task/default/" + ctdId;
    host.Dir().Write(ctdBundle + "/config.json", ToJson(config));
    host.Dir().Write(ctdBundle + "/init.pid", "911");
    host.Dir().MkDir(ctdBundle + "/rootfs");
    host.StartProcess(911);
    // What cannot be used: a daemon naming a directory that is not there, a
    // malformed index of Podman's.
    host.AddProcess(930, 1, "dockerd", {"dockerd", "--data-root=/srv/gone"});
    host.Dir().Write("var/lib/containers/storage/vfs-containers/containers.json", "[{\"id\": ");

    ContainerCollector collector(host.Root(), Poco::Logger::has("container_module"));
    auto found = ById(collector.Poll());
    ASSERT_EQ(found.size(), 1u);
    const auto& i = *found[ctdId];
    EXPECT_EQ((std::vector<std::string>{i.name, i.imageName, i.text1, i.rootPath}),
              (std::vector<std::string>{"plain", "", "containerd", host.Path(ctdBundle + "/rootfs")}));
    const std::string gone = host.Path("srv/gone");
    const std::string index = host.Path("var/lib/containers/storage/vfs-containers/containers.json");
    EXPECT_TRUE(HasProblem(collector, gone, "--data-root of dockerd (pid 930)"));
    EXPECT_TRUE(HasProblem(collector, index, "not valid JSON; Podman names and images unknown"));
    EXPECT_EQ(collector.Problems().size(), 2u);
    EXPECT_EQ(Lines(log, gone, "not a directory"), 1u);
    EXPECT_EQ(Lines(log, index, "not valid JSON"), 1u);

    // The daemon dies; its container lives on and stays followed.
    host.StopProcess(910);
    EXPECT_TRUE(collector.Poll().empty());
    EXPECT_EQ(collector.Running().size(), 1u);
}

TEST(ContainerRuntime, UnusableStateIsSkippedLoggedOnceAndNeverStopsTheOthers)
{
    TestSupport::LogCapture log("container_module");
    FakeHost host;
    const std::string good = HexId(30);
    const std::string goodBundle = host.StartDocker(good, "/web1", 600);

    // Each of these is a container the collector must skip, with a reason:
    // its file replaced by `content` ("@fifo": a FIFO, "@link": a link).
    struct Bad {
        std::string file;
        std::string content;
        std::string reason;
    };
    const std::vector<Bad> bad = {
        {"config.json", "{\"ociVersion\": \"1.0\", \"root\": ", "not valid JSON"},
        {"config.json", "@fifo", "not a regular file"},
        {"config.json", "{\"x\":\"" + std::string(5 * 1024 * 1024, 'a') + "\"}", "larger than"},
        {"config.json", "@link", "symbolic link"},
        {"config.json", "[1,2,3]", "not a JSON object"},
        {"init.pid", "12ab\n", "does not hold a process id"},
    };
    auto bundleRel = [](const std::string& id) { return FakeHost::BundleRel("moby", id); };
    host.Dir().Write("elsewhere/config.json", ToJson(OciConfig()));
    for (size_t i = 0; i < bad.size(); ++i) {
        const Bad& b = bad[i];
        host.StartDocker(HexId(31 + i), "/bad" + std::to_string(i), 601 + static_cast<long>(i));
        const std::string rel = bundleRel(HexId(31 + i)) + "/" + b.file;
        if (b.content[0] == '@') {
            host.Remove(rel);
        }
        if (b.content == "@fifo") {
            host.Dir().Fifo(rel);
        } else if (b.content == "@link") {
            host.Dir().Symlink(host.Path("elsewhere/config.json"), rel);
        } else {
            host.Dir().Write(rel, b.content);
        }
    }

    // Odd directory names: not a container id a runtime writes.
    const std::string oddName = std::string("web shell\xff;rm -rf");
    host.Bundle("moby", oddName, 607, OciConfig());
    host.Dir().MkDir(std::string(FakeHost::kTaskRoot) + "/.hidden-ns/" + HexId(37));

    // Docker's record is broken: the container is still reported, from its bundle.
    const std::string badRecord = HexId(38);
    host.StartDocker(badRecord, "/record", 608);
    host.Dir().Write("var/lib/docker/containers/" + badRecord + "/config.v2.json", "{nope");

    ContainerCollector collector(host.Root(), Poco::Logger::has("container_module"));
    auto found = ById(collector.Poll());
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[good]->name, "web1");
    EXPECT_EQ(found[good]->rootPath, goodBundle + "/rootfs");
    EXPECT_EQ(found[badRecord]->name, badRecord.substr(0, 12));
    EXPECT_EQ(found[badRecord]->text1, "docker");

    auto pathOf = [&](size_t i) { return host.Path(bundleRel(HexId(31 + i)) + "/" + bad[i].file); };
    for (size_t i = 0; i < bad.size(); ++i) {
        EXPECT_TRUE(HasProblem(collector, pathOf(i), bad[i].reason)) << bad[i].reason;
        EXPECT_EQ(Lines(log, pathOf(i), bad[i].reason), 1u) << bad[i].reason;
    }
    EXPECT_TRUE(HasProblem(collector, host.Path(bundleRel(oddName)), "not a plain name"));
    EXPECT_TRUE(HasProblem(collector, host.Path(std::string(FakeHost::kTaskRoot) + "/.hidden-ns"),
                           "not a plain name"));
    EXPECT_TRUE(HasProblem(
        collector, host.Path("var/lib/docker/containers/" + badRecord + "/config.v2.json"),
        "not valid JSON"));

    // Still broken at the next poll: still in the status, not logged again.
    EXPECT_TRUE(collector.Poll().empty());
    for (size_t i = 0; i < bad.size(); ++i) {
        EXPECT_EQ(Lines(log, pathOf(i), bad[i].reason), 1u) << bad[i].reason;
    }
    EXPECT_EQ(collector.Problems().size(), bad.size() + 3);
}

TEST(ContainerRuntime, NamesAndPidsARuntimeNeverWritesAreRefused)
{
    for (const std::string& name : {HexId(1), std::string("k8s.io"), std::string("moby")}) {
        EXPECT_TRUE(Container::IsPlainName(name)) << name;
    }
    for (const char* name : {"", ".", "..", ".hidden", "a/b", "a b", "x\n", "caf\xc3\xa9"}) {
        EXPECT_FALSE(Container::IsPlainName(name)) << name;
    }
    EXPECT_FALSE(Container::IsPlainName(std::string(129, 'a')));
    // Stand-in names: a generated id is shortened, one a user chose is kept.
    EXPECT_EQ(Container::ShortId(HexId(1)), HexId(1).substr(0, 12));
    EXPECT_EQ(Container::ShortId("web-frontend-blue"), "web-frontend-blue");
    EXPECT_EQ(Container::ParsePid(" 4242\n"), 4242);
    EXPECT_EQ(Container::ParsePid("4194304"), 4194304);
    for (const char* text : {"", "0", "-1", "4194305", "12ab", "1 2", "99999999999999999999"}) {
        EXPECT_EQ(Container::ParsePid(text), 0) << text;
    }
    for (const char* path : {"../x", "/a/../b", "a/.."}) {
        EXPECT_TRUE(Container::HasDotDot(path)) << path;
    }
    EXPECT_FALSE(Container::HasDotDot("/a/..b/c.."));
}

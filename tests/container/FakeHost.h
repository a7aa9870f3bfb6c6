#pragma once
// A fake host tree as container runtimes leave it on disk, built in a temp
// dir: containerd bundles (Docker's "moby" and Kubernetes' "k8s.io"
// namespaces), Docker's own container records, CRI-O's containers/storage
// directories, and DIR/proc/PID for running processes. (The asset tests
// describe their servers' processes with it too.)

#include <cstdio>
#include <string>
#include <vector>

#include <Poco/File.h>
#include <json/json.h>

#include "sdk/JsonUtils.h"
#include "testsupport/TestSupport.h"

namespace ContainerTest {

// A 64-hex-digit id, different for every seed.
inline std::string HexId(unsigned seed)
{
    std::string id;
    char piece[9];
    for (unsigned i = 0; i < 8; ++i) {
        std::snprintf(piece, sizeof(piece), "%08x", seed * 2654435761u + i * 40503u);
        id += piece;
    }
    return id;
}

inline std::string ToJson(const Json::Value& v)
{
    return SDK::JsonUtils::JsonToString(v);
}

// An OCI runtime configuration as runc reads it.
inline Json::Value OciConfig(const std::string& rootPath = "rootfs")
{
    Json::Value doc = TestSupport::ParseJson(R"({"ociVersion": "1.0.2",
        "process": {"args": ["nginx", "-g", "daemon off;"], "env": ["PATH=/usr/sbin:/usr/bin", "NGINX_VERSION=1.25.3"]},
        "mounts": [{"destination": "/var/www/html/uploads", "type": "bind", "source": "/srv/uploads",
                    "options": ["rbind", "ro"]}],
        "linux": {"namespaces": [{"type": "network"}]}})");
    if (!rootPath.empty()) {
        doc["root"]["path"] = rootPath;
    }
    return doc;
}

class FakeHost {
public:
    static constexpr const char* kTaskRoot = "run/containerd/io.containerd.runtime.v2.task";

    FakeHost() : m_dir("ardent-container-host") {}

    TestSupport::TempDir& Dir() { return m_dir; }
    const std::string& Root() const { return m_dir.Path(); }
    std::string Path(const std::string& rel) const { return m_dir.Join(rel); }

    static std::string BundleRel(const std::string& ns, const std::string& id)
    {
        return std::string(kTaskRoot) + "/" + ns + "/" + id;
    }

    // A containerd bundle: config.json, rootfs/var/www/html, init.pid.
    // Returns the bundle's host path.
    std::string Bundle(const std::string& ns, const std::string& id, long pid,
                       const Json::Value& config)
    {
        const std::string rel = BundleRel(ns, id);
        m_dir.Write(rel + "/config.json", ToJson(config));
        m_dir.MkDir(rel + "/rootfs/var/www/html");
        if (pid > 0) {
            m_dir.Write(rel + "/init.pid", std::to_string(pid));
        }
        return m_dir.Join(rel);
    }

    void StartProcess(long pid) { m_dir.MkDir("proc/" + std::to_string(pid)); }
    // A process's /proc entry as the kernel shows it: stat, comm, cmdline,
    // cgroup, environ and the exe link (none when `exe` is empty).
    void AddProcess(long pid, long ppid, const std::string& comm, const std::vector<std::string>& argv,
                    const std::string& exe = "", const std::string& cgroup = "0::/init.scope\n",
                    const std::vector<std::string>& environ = {})
    {
        const std::string base = "proc/" + std::to_string(pid) + "/";
        auto nulJoined = [](const std::vector<std::string>& items) {
            std::string out;
            for (const auto& item : items) {
                out += item + '\0';
            }
            return out;
        };
        m_dir.Write(base + "stat", std::to_string(pid) + " (" + comm + ") S " + std::to_string(ppid) +
                                       " 1 1 0 -1 4194560 100 0 0 0\n");
        m_dir.Write(base + "comm", comm + "\n");
        m_dir.Write(base + "cmdline", nulJoined(argv));
        m_dir.Write(base + "cgroup", cgroup);
        m_dir.Write(base + "environ", nulJoined(environ));
        if (!exe.empty()) {
            m_dir.Symlink(exe, base + "exe");
        }
    }

    void StopProcess(long pid) { Poco::File(m_dir.Join("proc/" + std::to_string(pid))).remove(true); }
    void Remove(const std::string& rel) { Poco::File(m_dir.Join(rel)).remove(true); }

    // Docker's record of a container.
    void DockerRecord(const std::string& id, const std::string& name, const std::string& image,
                      long pid, bool running)
    {
        Json::Value doc = TestSupport::ParseJson(R"({"Config": {"Labels": {"maintainer": "ops@example.com"}, "ExposedPorts": {"80/tcp": {}}},
                                    "NetworkSettings": {"Networks": {"bridge": {}}}})");
        doc["ID"] = id;
        doc["Name"] = name;
        doc["Config"]["Image"] = image;
        doc["Image"] = "sha256:" + HexId(99);
        doc["State"]["Running"] = running;
        doc["State"]["Pid"] = static_cast<Json::Int64>(running ? pid : 0);
        m_dir.Write("var/lib/docker/containers/" + id + "/config.v2.json", ToJson(doc));
    }

    // A Docker container exactly as on a Docker host; returns the bundle.
    std::string StartDocker(const std::string& id, const std::string& name, long pid,
                            const std::string& image = "nginx:1.25")
    {
        std::string bundle = Bundle("moby", id, pid, OciConfig());
        DockerRecord(id, name, image, pid, true);
        StartProcess(pid);
        return bundle;
    }

    // A Kubernetes container run by containerd's CRI plugin.
    std::string StartK8s(const std::string& id, const std::string& pod, const std::string& podNs,
                         const std::string& container, const std::string& image, long pid,
                         bool sandbox = false)
    {
        Json::Value config = OciConfig();
        auto& ann = config["annotations"];
        ann["io.kubernetes.cri.container-type"] = sandbox ? "sandbox" : "container";
        ann["io.kubernetes.cri.sandbox-name"] = pod;
        ann["io.kubernetes.cri.sandbox-namespace"] = podNs;
        if (!sandbox) {
            ann["io.kubernetes.cri.container-name"] = container;
            ann["io.kubernetes.cri.image-name"] = image;
        }
        std::string bundle = Bundle("k8s.io", id, pid, config);
        StartProcess(pid);
        return bundle;
    }

    static std::string StorageRel(const std::string& base, const std::string& id)
    {
        return base + "/containers/storage/overlay-containers/" + id + "/userdata";
    }

    // A CRI-O container: annotations only, root given by MountPoint.
    std::string StartCrio(const std::string& id, const std::string& pod, const std::string& podNs,
                          const std::string& container, const std::string& image, long pid)
    {
        const std::string mount = "/var/lib/containers/storage/overlay/" + HexId(9) + "/merged";
        Json::Value config = OciConfig("");
        auto& ann = config["annotations"];
        ann["io.kubernetes.cri-o.ContainerType"] = "container";
        ann["io.kubernetes.cri-o.Name"] = "k8s_" + container + "_" + pod + "_" + podNs + "_0";
        ann["io.kubernetes.cri-o.ImageName"] = image;
        ann["io.kubernetes.cri-o.ImageRef"] = "sha256:" + HexId(10);
        ann["io.kubernetes.cri-o.MountPoint"] = mount;
        Json::Value labels(Json::objectValue);
        labels["io.kubernetes.pod.name"] = pod;
        labels["io.kubernetes.pod.namespace"] = podNs;
        labels["io.kubernetes.container.name"] = container;
        ann["io.kubernetes.cri-o.Labels"] = ToJson(labels);
        const std::string userdata = StorageRel("run", id);
        m_dir.Write(userdata + "/config.json", ToJson(config));
        m_dir.Write(userdata + "/pidfile", std::to_string(pid));
        m_dir.MkDir(mount.substr(1) + "/var/www/html");
        StartProcess(pid);
        return m_dir.Join(userdata);
    }

private:
    TestSupport::TempDir m_dir;
};

}  // namespace ContainerTest

#include "ContainerdRuntime.h"

#include "OciBundle.h"

namespace Container {

namespace {

// Annotations of containerd's Kubernetes (CRI) plugin.
const char* const kCriContainerType = "io.kubernetes.cri.container-type";
const char* const kCriSandboxName = "io.kubernetes.cri.sandbox-name";
const char* const kCriSandboxNamespace = "io.kubernetes.cri.sandbox-namespace";
const char* const kCriContainerName = "io.kubernetes.cri.container-name";
const char* const kCriImageName = "io.kubernetes.cri.image-name";
// nerdctl names its containers this way.
const char* const kNerdctlName = "nerdctl/name";

}  // namespace

void ContainerdRuntime::Discover(const SDK::HostRoot& host, Discovery& out)
{
    for (const auto& taskRoot : out.where.taskRoots) {
        for (const auto& ns : Subdirectories(host, taskRoot, out)) {
            const std::string nsDir = taskRoot + "/" + ns;
            if (!IsPlainName(ns)) {
                out.AddProblem(host, nsDir, "namespace name is not a plain name, skipped");
                continue;
            }
            for (const auto& id : Subdirectories(host, nsDir, out)) {
                const std::string bundleDir = nsDir + "/" + id;
                if (!IsPlainName(id)) {
                    out.AddProblem(host, bundleDir, "container id is not a plain name, skipped");
                    continue;
                }
                ReadBundle(host, ns, id, bundleDir, out);
            }
        }
    }
}

void ContainerdRuntime::ReadBundle(const SDK::HostRoot& host, const std::string& ns,
                                   const std::string& id, const std::string& bundleDir,
                                   Discovery& out)
{
    const std::string configPath = bundleDir + "/config.json";
    Json::Value doc;
    std::string reason;
    SDK::ReadResult r = ReadStateJson(host, configPath, kStateFileCap, doc);
    if (r.error == SDK::ReadError::Missing) {
        // Being created or removed: decided at the next poll.
        out.unsure.insert(id);
        return;
    }
    OciConfig oci;
    reason = r.reason;
    if (!r.ok() || !ParseOciConfig(doc, oci, reason)) {
        out.AddProblem(host, configPath, reason + ", container skipped");
        out.unsure.insert(id);
        return;
    }

    long pid = 0;
    const std::string pidPath = bundleDir + "/init.pid";
    std::string pidText;
    r = host.ReadFile(pidPath, kPidFileCap, pidText, SDK::HostRoot::FinalLink::Refuse);
    if (!r.ok() && r.error != SDK::ReadError::Missing) {
        out.AddProblem(host, pidPath, r.reason + ", container skipped");
        out.unsure.insert(id);
        return;
    }
    if (r.ok()) {
        pid = ParsePid(pidText);
        if (pid == 0) {
            out.AddProblem(host, pidPath, "does not hold a process id, container skipped");
            out.unsure.insert(id);
            return;
        }
    }

    // Docker's record, from the first data root that has one.
    DockerState docker;
    bool isDocker = false;
    for (const auto& dataRoot : out.where.dockerDataRoots) {
        const SDK::ReadError e = ReadDockerState(host, dataRoot, id, docker, out.problems);
        if (e != SDK::ReadError::Missing) {
            isDocker = e == SDK::ReadError::None;
            break;
        }
    }
    if (isDocker && docker.stateKnown && !docker.running) {
        return;  // Docker says it stopped; the bundle is on its way out
    }
    if (pid == 0 && isDocker) {
        pid = docker.pid;
    }
    if (pid == 0) {
        out.unsure.insert(id);  // the shim has not written init.pid yet
        return;
    }
    if (!ProcessRunning(host, pid)) {
        return;  // its process is gone: stopped
    }

    auto info = std::make_shared<Engine::ContainerInfo>();
    std::string fallback;
    if (!ResolveRootPath(host, bundleDir, oci.rootPath, fallback, pid, info->rootPath, reason)) {
        out.AddProblem(host, configPath, reason);
        out.unsure.insert(id);
        return;
    }
    FillFromOci(oci, *info);
    info->running = true;
    info->id = id;
    info->text1 = (isDocker || ns == "moby") ? "docker" : "containerd";
    info->text2 = ns;
    info->text3 = host.Path(bundleDir);
    info->text4 = std::to_string(pid);

    const auto& ann = oci.annotations;
    const bool sandbox = Lookup(ann, kCriContainerType) == "sandbox";
    info->text5 = Lookup(ann, kCriSandboxName);
    info->text6 = Lookup(ann, kCriSandboxNamespace);
    info->text7 = Lookup(ann, kCriContainerName);
    info->imageName = Lookup(ann, kCriImageName);
    if (isDocker) {
        info->name = docker.name;
        info->imageName = docker.image;
        info->imageId = docker.imageId;
        info->list3 = docker.labels;
        info->list4 = docker.ports;
        info->list5 = docker.networks;
        info->flag2 = docker.privileged;
        info->flag3 = info->flag3 || docker.hostNetwork;
        if (info->text5.empty()) {
            info->text5 = docker.podName;
            info->text6 = docker.podNamespace;
            info->text7 = docker.containerName;
        }
    }
    if (info->name.empty()) {
        info->name = sandbox ? info->text5 : info->text7;
    }
    if (info->name.empty()) {
        info->name = Lookup(ann, kNerdctlName);
    }
    if (info->name.empty()) {
        info->name = ShortId(id);
    }
    out.running.push_back(info);
}

}  // namespace Container

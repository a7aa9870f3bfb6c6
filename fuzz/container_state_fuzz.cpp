// Container runtime state as the collector finds it on a host: a containerd
// bundle of Docker's "moby" namespace with Docker's own record of it, and a
// containers/storage container (Podman's index and bundle). Each part of
// the input becomes one of those files in a fake host root; every runtime
// then discovers what runs there.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ContainerRuntime.h"
#include "FuzzSupport.h"
#include "sdk/HostRoot.h"
#include "OciBundle.h"

namespace {

const char* const kId = "4f1c2a9b7e3d";
std::string g_root;
std::vector<std::string> g_files;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Fuzz::SilenceLogs();
    g_root = Fuzz::ScratchDir() + "/host";
    const std::string bundle = g_root + "/run/containerd/io.containerd.runtime.v2.task/moby/" + kId;
    const std::string docker = g_root + "/var/lib/docker/containers/" + kId;
    const std::string storage = g_root + "/run/containers/storage/overlay-containers";
    g_files = {
        bundle + "/config.json",         // OCI runtime configuration
        bundle + "/init.pid",            // the container's process
        docker + "/config.v2.json",      // Docker's record: name, image, state
        docker + "/hostconfig.json",     // privileged, network mode
        g_root + "/etc/docker/daemon.json",
        storage + "/" + kId + "/userdata/config.json",
        storage + "/" + kId + "/userdata/pidfile",
        storage + "/containers.json",    // Podman's index of names and images
    };
    Fuzz::MakeDirs(bundle + "/rootfs/var/www");
    Fuzz::MakeDirs(g_root + "/proc/4242/root");
    Fuzz::MakeDirs(storage + "/" + kId + "/userdata");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<std::string> parts = Fuzz::Split(data, size, g_files.size());
    for (size_t i = 0; i < g_files.size(); ++i) {
        Fuzz::WriteFile(g_files[i], parts[i]);
    }
    SDK::HostRoot host(g_root);
    for (auto& runtime : Container::MakeDefaultRuntimes()) {
        Container::Discovery out;
        runtime->Discover(host, out);
        for (const auto& info : out.running) {
            // Whatever the state says, a container's root stays inside the host root.
            FUZZ_CHECK(info->rootPath.empty() || info->rootPath.compare(0, g_root.size(), g_root) == 0,
                       "root path outside the host root");
        }
    }
    // The OCI parser alone on the first part, whatever else it holds.
    Json::Value doc;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (reader->parse(parts[0].data(), parts[0].data() + parts[0].size(), &doc, &errors)) {
        Container::OciConfig config;
        std::string reason;
        Container::ParseOciConfig(doc, config, reason);
    }
    Container::ParsePid(parts[1]);
    return 0;
}

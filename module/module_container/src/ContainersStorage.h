#pragma once
// Podman and CRI-O keep their containers in containers/storage: one
// directory per container under <storage>/<driver>-containers/<id>/userdata/
// holding the OCI config.json and the pidfile of the container's process,
// with <storage> /run/containers/storage (run-time state) and
// /var/lib/containers/storage (persistent), or where storage.conf, conmon's
// bundle or podman's --root/--runroot put them (see StateLocations.h).
// Podman marks its bundles "io.container.manager": "libpod". The two runtimes share the
// layout and tell their containers apart by the bundle's annotations.
// Rootless containers (under a user's home) are read only while their conmon
// runs.

#include <map>
#include <string>
#include <vector>

#include "ContainerRuntime.h"
#include "OciBundle.h"

namespace Container {

class ContainersStorageRuntime : public ContainerRuntime {
public:
    void Discover(const SDK::HostRoot& host, Discovery& out) override;

protected:
    // Every <storage>/<driver>-containers directory.
    static std::vector<std::string> StorageContainerDirs(const SDK::HostRoot& host, Discovery& out);

    // Called once per Discover, before any container.
    virtual void BeginPoll(const SDK::HostRoot& host, Discovery& out) {}
    // True when this runtime made the container that `oci` describes.
    virtual bool Owns(const OciConfig& oci) const = 0;
    // Fills the runtime's own fields: name, image, Kubernetes names.
    virtual void Describe(const OciConfig& oci, Engine::ContainerInfo& info) = 0;
    // Where the root is when root.path is empty (as the host sees it), or "".
    virtual std::string RootFallback(const OciConfig& oci) const { return std::string(); }

private:
    void ReadContainer(const SDK::HostRoot& host, const std::string& id,
                       const std::vector<std::string>& userdataDirs, Discovery& out);
};

class PodmanRuntime : public ContainersStorageRuntime {
public:
    std::string Name() const override { return "podman"; }

protected:
    void BeginPoll(const SDK::HostRoot& host, Discovery& out) override;
    bool Owns(const OciConfig& oci) const override;
    void Describe(const OciConfig& oci, Engine::ContainerInfo& info) override;

private:
    struct Record {
        std::string name;
        std::string imageId;
        std::string imageName;
    };
    // Image id -> first name, from <dir>/images.json.
    static std::map<std::string, std::string> ImageNames(const SDK::HostRoot& host,
                                                         const std::string& dir, Discovery& out);

    std::map<std::string, Record> m_records;  // containers.json, by id
};

class CrioRuntime : public ContainersStorageRuntime {
public:
    std::string Name() const override { return "cri-o"; }
    // Annotations CRI-O writes into every bundle it creates start with this.
    static bool IsCrioBundle(const OciConfig& oci);

protected:
    bool Owns(const OciConfig& oci) const override { return IsCrioBundle(oci); }
    void Describe(const OciConfig& oci, Engine::ContainerInfo& info) override;
    std::string RootFallback(const OciConfig& oci) const override;
};

}  // namespace Container

#pragma once
// containerd's task bundles, one directory per namespace and container:
//   /run/containerd/io.containerd.runtime.v2.task/<namespace>/<id>/
//     config.json  rootfs/  init.pid
// Docker runs its containers in the namespace "moby" (its own record adds
// name, image and state), the Kubernetes CRI plugin in "k8s.io" (the
// bundle's annotations name pod and container); every namespace is read.
// Older layouts (the v1 shim, Docker's private containerd) are read too, and
// every state directory a running containerd or dockerd names.

#include <string>
#include <vector>

#include "ContainerRuntime.h"

namespace Container {

class ContainerdRuntime : public ContainerRuntime {
public:
    std::string Name() const override { return "containerd"; }
    void Discover(const SDK::HostRoot& host, Discovery& out) override;

private:
    void ReadBundle(const SDK::HostRoot& host, const std::string& ns, const std::string& id,
                    const std::string& bundleDir, Discovery& out);
};

}  // namespace Container

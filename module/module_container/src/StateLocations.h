#pragma once
// Where the runtimes keep their state on this host. The standard places are
// always read; a daemon started with other directories says so on its
// command line or in its configuration, which is read here:
//   dockerd     --data-root, --exec-root, --config-file (daemon.json:
//               "data-root", "exec-root"); a dockerd that runs its own
//               containerd keeps task bundles under <exec-root>/containerd
//   containerd  --root, --state, --config (config.toml: root, state)
//   /etc/containers/storage.conf  [storage] graphroot, runroot
//   conmon      -b/--bundle <storage>/<driver>-containers/<id>/userdata,
//               and podman's --root/--runroot passed as --exit-command-arg
// A directory a daemon names that does not exist is left out, with a
// problem naming the daemon: it may be starting, or its state was removed.

#include <string>
#include <vector>

#include "container/RuntimeState.h"
#include "sdk/HostRoot.h"

namespace Container {

struct StateLocations {
    // Directories of containerd task bundles: <dir>/<namespace>/<id>/.
    std::vector<std::string> taskRoots;
    // Docker data roots (<root>/containers/<id>/config.v2.json).
    std::vector<std::string> dockerDataRoots;
    // containers/storage roots (graph roots and run roots) of Podman and CRI-O.
    std::vector<std::string> storageRoots;
};

// Paths in the host root's namespace, the standard ones first, no duplicates.
StateLocations FindStateLocations(const SDK::HostRoot& host, std::vector<Problem>& problems);

// Adds to `now` the directories of `earlier` that still exist: a daemon that
// died or restarts leaves its containers running, and they stay followed.
void KeepEarlierLocations(const SDK::HostRoot& host, const StateLocations& earlier,
                          StateLocations& now);

// The value of flag `name` ("data-root", "b") in a command line: "--name V",
// "--name=V", "-name V" and "-name=V" alike. The last one given wins; "" when
// absent.
std::string FlagValue(const std::vector<std::string>& args, const std::string& name);

// `key = "value"` in table `table` of a TOML file ("" for the top level,
// before any [table]); enough for containerd's root and state and
// containers/storage's graphroot and runroot. "" when absent.
std::string TomlString(const std::string& text, const std::string& table, const std::string& key);

}  // namespace Container

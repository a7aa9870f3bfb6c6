#pragma once
// Runs a shell script as the first process of new mount and pid namespaces,
// the way a container runtime starts a container.

#include <fcntl.h>
#include <spawn.h>
#include <sys/types.h>

#include <string>
#include <vector>

extern char** environ;

namespace ContainerTest {

// `unshare`'s own pid, or -1. Its stderr is dropped: unshare complains there
// when its child dies of SIGKILL at the end of a test.
inline pid_t SpawnInNamespaces(const std::string& script)
{
    std::vector<std::string> args{"unshare", "--mount", "--pid", "--fork", "--propagation",
                                  "private", "sh", "-c", script};
    std::vector<char*> argv;
    for (auto& a : args) {
        argv.push_back(&a[0]);
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, "unshare", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return rc == 0 ? pid : -1;
}

}  // namespace ContainerTest

#pragma once
// Records and events of the container collector ("container_collect_task").

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "message/AbstructMessage.h"

namespace Engine {

struct MountPoint {
    std::string mountText1;  // source on the host
    std::string mountText2;  // destination in the container
    std::string mountText3;  // type
    bool mountFlag = false;  // read-only
};

struct ContainerPair {
    int32_t first = 0;
    int32_t second = 0;
    std::string text;
};

// One container. Fields the scan module does not read carry what the
// collector knows (see the comments); their order and types are shared.
struct ContainerInfo {
    bool running;             // started (true) or stopped/gone (false)
    bool flag2;               // privileged
    bool flag3;               // host network
    bool flag4 = false;       // reserved
    std::string id;           // full container id
    std::string name;         // name without Docker's leading slash
    std::string text1;        // runtime: "docker", "containerd", "podman", "cri-o"
    std::vector<std::string> list1;  // command line
    std::vector<std::string> list2;  // environment
    std::vector<std::string> list3;  // labels as key=value
    std::vector<std::string> list4;  // exposed ports
    std::vector<std::string> list5;  // networks
    std::string text2;        // namespace ("moby", "k8s.io", ...)
    std::string imageId;
    std::string imageName;
    std::vector<std::string> list6;  // reserved
    std::string text3;        // bundle directory on the host
    std::string text4;        // process id as text
    std::string text5;        // Kubernetes pod name
    std::string text6;        // Kubernetes pod namespace
    std::string text7;        // Kubernetes container name
    std::string text8;        // reserved
    std::vector<std::string> list7;  // reserved
    std::map<std::string, std::string> textMap;  // annotations
    std::vector<ContainerPair> pairList;         // reserved
    std::string text9;        // reserved
    std::vector<MountPoint> mountPointList;
    std::string rootPath;     // host path of the container's root file system

    ContainerInfo() : running(false), flag2(false), flag3(false) {}
};

// A container started (info->running true) or stopped (false).
class ContainerMessage : public AbstructMessage<ContainerMessage> {
public:
    ContainerMessage(bool event, std::shared_ptr<ContainerInfo> info)
        : AbstructMessage<ContainerMessage>("container_message"), event(event), info(std::move(info)) {}

    bool event;
    std::shared_ptr<ContainerInfo> info;
};

}  // namespace Engine

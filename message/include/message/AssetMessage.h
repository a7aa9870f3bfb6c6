#pragma once
// Publish/subscribe with the asset service ("msg_sync_task").
//
// Asset kinds:
//   0  HTTP servers whose configuration names document roots (nginx, Apache httpd)
//   4  Java application servers (Tomcat: appBase and docBase)

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "framework/Message.h"
#include "framework/Task.h"

namespace Engine {

// The consumer is named by the task that sends the message, which is alive
// then: its handle is taken here, and only the handle is used later (the
// consumer may be gone by the time the asset service handles it).
class AssetRegisterMessage : public Framework::Message {
public:
    AssetRegisterMessage(unsigned int kind, Framework::Task* task)
        : kind(kind), task(task), consumer(task != nullptr ? task->GetMailbox() : Framework::MailboxRef()) {}
    int MessageHandle(void* task) override;

    unsigned int kind;
    Framework::Task* task;  // identifies the consumer; never dereferenced by the receiver
    Framework::MailboxRef consumer;
};

class AssetUnRegisterMessage : public Framework::Message {
public:
    AssetUnRegisterMessage(unsigned int kind, Framework::Task* task)
        : kind(kind), task(task), consumer(task != nullptr ? task->GetMailbox() : Framework::MailboxRef()) {}
    int MessageHandle(void* task) override;

    unsigned int kind;
    Framework::Task* task;  // identifies the consumer; never dereferenced by the receiver
    Framework::MailboxRef consumer;
};

class AssetMessage : public Framework::Message {
public:
    enum Kind : unsigned int { KIND_WEB_SERVER = 0, KIND_JAVA_APP_SERVER = 4 };

    // One web directory of an asset: a host-visible path.
    struct webDirInfo {
        std::string path;    // host-visible (for a container: under /proc/<pid>/root)
        std::string origin;  // where it was found, e.g. "root", "alias", "DocumentRoot", "appBase"
        std::string configFile;
        int line = 0;
    };

    // One running server.
    struct assetInfo {
        std::string containerId;    // empty for a server of the host itself
        std::string containerName;
        std::string server;         // "nginx", "apache", "tomcat"
        int pid = 0;
        std::string exe;
        std::string configFile;     // main configuration file
        std::vector<std::shared_ptr<webDirInfo>> webDirList;
    };

    using AssetMap = std::map<int, std::shared_ptr<assetInfo>>;

    AssetMessage(unsigned int kind, const AssetMap& assets)
        : Framework::Message("asset_message"), kind(kind), assets(assets) {}
    int MessageHandle(void* task) override;

    unsigned int kind;
    AssetMap assets;
};

}  // namespace Engine

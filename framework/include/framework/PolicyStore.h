#pragma once
// The policies of one engine: applies documents (from the policy directory,
// the control socket or a command), keeps the policy in force per id,
// watches the directory for changes and persists installed documents.
//
// Applying a document calls the policy callback of the module that
// registered the id with the document's "feature_name", dispatches the
// returned policy to the tasks of the feature, and then announces it on the
// topic kPolicyAppliedTopic (a PolicyAppliedMessage), so services that
// derive something from policies (the asset service re-sending its assets)
// subscribe rather than being named here.
//
// Policy files are read without blocking: anything but a regular file (a
// FIFO named 10001.json) is refused with a warning naming it, once per
// change of what is wrong with it.

#include <functional>
#include <memory>
#include <map>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Mutex.h>

#include "framework/Message.h"
#include "framework/Policy.h"

namespace Framework {

class ModuleLoader;
class OnDemandTasks;

constexpr const char* kPolicyAppliedTopic = "policy.applied";

class PolicyAppliedMessage : public Message {
public:
    PolicyAppliedMessage(const std::string& policyId, const std::string& feature)
        : Message("policy_applied"), policyId(policyId), feature(feature) {}
    const std::string policyId;
    const std::string feature;
};

class PolicyStore {
public:
    // `directory` gives the policy directory (ends with "/") when asked:
    // configuration may change after the store is made.
    PolicyStore(ModuleLoader& modules, std::shared_ptr<OnDemandTasks> onDemand,
                Poco::Mutex& control, std::function<std::string()> directory)
        : m_modules(modules), m_onDemand(std::move(onDemand)), m_control(control),
          m_directory(std::move(directory)) {}

    // false (and `error`) when no module takes the id or its callback
    // rejects the document; the policy in force stays.
    bool Apply(const std::string& policyId, const std::string& content, std::string& error);
    // Applies every <id>.json of the directory that is new or changed since
    // the last call (every one with `force`). Returns how many were applied.
    int ApplyDirectory(bool force);
    // Apply, then keep the document as <id>.json so it survives a restart.
    bool Install(const std::string& policyId, const std::string& content, std::string& error);

    struct Entry {
        std::string id;
        std::string feature;
        std::string hash;
        bool enabled = true;
    };
    std::vector<Entry> Current();
    void Clear();

private:
    ModuleLoader& m_modules;
    std::shared_ptr<OnDemandTasks> m_onDemand;
    Poco::Mutex& m_control;
    std::function<std::string()> m_directory;
    Poco::FastMutex m_mutex;
    std::map<std::string, Poco::AutoPtr<Policy>> m_policies;  // by policy id
    std::map<std::string, std::string> m_fileStamps;          // id -> digest of the content
    std::map<std::string, std::string> m_fileRefusals;        // id -> why it was last skipped
};

}  // namespace Framework

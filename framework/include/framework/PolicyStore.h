#pragma once
// The policies of one engine: applies documents (from the policy directory,
// the control socket or a command), keeps the policy in force per id,
// watches the directory for changes and persists installed documents.
//
// Applying a document first checks it (Check): the module that registered
// the id names the feature the policy belongs to, and a document whose
// "feature_name" is missing or different is applied to that feature with a
// warning; the module's CheckPolicy reports wrong types, missing keys and
// unknown keys. A document with errors is rejected naming them: the policy
// in force stays, status shows the rejection and the health register holds
// "policy.<id>" until a good document arrives. A good document goes to the
// module's policy callback; the returned policy is dispatched to the tasks
// of the feature, and then announced on the
// topic kPolicyAppliedTopic (a PolicyAppliedMessage), so services that
// derive something from policies (the asset service re-sending its assets)
// subscribe rather than being named here.
//
// Policy files are read without blocking: anything but a regular file (a
// FIFO named 10001.json) is refused with a warning naming it, once per
// change of what is wrong with it.

#include <cstddef>
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

class Module;
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
    // Largest policy document read from a file, wherever it comes from.
    static constexpr std::size_t kMaxDocumentBytes = 16 * 1024 * 1024;

    // `directory` gives the policy directory (ends with "/") when asked:
    // configuration may change after the store is made.
    PolicyStore(ModuleLoader& modules, std::shared_ptr<OnDemandTasks> onDemand,
                Poco::Mutex& control, std::function<std::string()> directory)
        : m_modules(modules), m_onDemand(std::move(onDemand)), m_control(control),
          m_directory(std::move(directory)) {}

    // The checks Apply makes before the module's callback sees `content`;
    // `feature` receives the feature the policy is applied to.
    static void Check(Module& module, const std::string& policyId, const std::string& content,
                      PolicyCheck& check, std::string& feature);

    // false (and `error`, with every reason) when no module takes the id, the
    // document fails its check or the callback rejects it; the policy in
    // force stays. `found`, when given, receives what the check found.
    bool Apply(const std::string& policyId, const std::string& content, std::string& error,
               PolicyCheck* found = nullptr);
    // Applies every <id>.json of the directory that is new or changed since
    // the last call (every one with `force`). Returns how many were applied.
    int ApplyDirectory(bool force);
    // Apply, then keep the document as <id>.json so it survives a restart.
    bool Install(const std::string& policyId, const std::string& content, std::string& error,
                 PolicyCheck* found = nullptr);

    struct Entry {
        std::string id;
        std::string feature;
        std::string hash;
        bool enabled = true;
        std::string rejected;  // why the last document for the id was refused, "" after a good one
        bool inForce = true;   // false: no document for the id was ever accepted
    };
    std::vector<Entry> Current();
    void Clear();

private:
    bool Reject(const std::string& policyId, const std::string& reason, std::string& error);

    ModuleLoader& m_modules;
    std::shared_ptr<OnDemandTasks> m_onDemand;
    Poco::Mutex& m_control;
    std::function<std::string()> m_directory;
    Poco::FastMutex m_mutex;
    std::map<std::string, Poco::AutoPtr<Policy>> m_policies;  // by policy id
    std::map<std::string, std::string> m_fileStamps;          // id -> digest of the content
    std::map<std::string, std::string> m_fileRefusals;        // id -> why it was last skipped
    std::map<std::string, std::string> m_rejections;          // id -> why its last document was refused
};

}  // namespace Framework

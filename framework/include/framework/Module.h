#pragma once
// A plug-in module: a lib*_module.so exporting `extern "C" Framework::Module*
// CreateModule()`. The engine calls Init after creating it and UnInit before
// destroying it (in reverse load order).

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <Poco/Util/Subsystem.h>

#include "framework/Callbacks.h"
#include "framework/Export.h"
#include "framework/Policy.h"

namespace Framework {

class Task;

class Module : public Poco::Util::Subsystem {
public:
    explicit Module(const std::string& name);
    ~Module() override;

    const char* name() const override { return m_name.c_str(); }
    void initialize(Poco::Util::Application& app) override { (void)app; }
    void uninitialize() override {}

    virtual int Init();
    // Unregisters whatever tasks of this module are still registered and
    // drops the callbacks; 0.
    virtual int UnInit();
    // Runs the policy callback registered under `policyId`. Returns the new
    // policy (or null); `currentPolicy` is what the engine holds so far.
    virtual Policy* RefreshPolicy(const std::string& policyId, const std::string& featureName,
                                  const std::string& content, Policy*& currentPolicy);

    // The module owns the callbacks from here on; registering an id again
    // replaces (and frees) the older callback.
    void RegisterTaskletCallback(const std::string& id, AbstractTaskletCallback* callback);
    void UnRegisterTaskletCallback(const std::string& id);
    // `feature` is the feature the id's policy belongs to: the engine hands
    // the policy to that feature's tasks whatever the document calls itself.
    void RegisterPolicyCallback(const std::string& id, AbstractPolicyCallback* callback,
                                const std::string& feature = std::string());
    void UnRegisterPolicyCallback(const std::string& id);
    // The feature registered with `id` ("" when none was given).
    std::string GetPolicyFeature(const std::string& id) const;
    // Checks a document for policy `policyId` without applying it: what the
    // policy callback would refuse (errors) or apply with a warning. The
    // engine checks every document this way before the callback sees it, and
    // `ardent-agent check-policy` runs the same check. Default: nothing to say.
    virtual void CheckPolicy(const std::string& policyId, const std::string& content, PolicyCheck& check);
    AbstractTaskletCallback* GetTaskletCallback(const std::string& id) const;
    AbstractPolicyCallback* GetPolicyCallback(const std::string& id) const;
    std::vector<std::string> GetTaskletIds() const;
    std::vector<std::string> GetPolicyIds() const;

    Task* FindTask(const std::string& taskName);
    // 0 on success, -1 when a task of that name is registered already or
    // there is no engine.
    int RegisterTask(Task* task, bool startNow);
    // 1 when a registered task was stopped and removed, 0 otherwise.
    int UnRegisterTask(const std::string& taskName);

private:
    std::string m_name;
    std::map<std::string, std::unique_ptr<AbstractTaskletCallback>> m_tasklets;
    std::map<std::string, std::unique_ptr<AbstractPolicyCallback>> m_policies;
    std::map<std::string, std::string> m_policyFeatures;  // policy id -> feature
};

}  // namespace Framework

// What every module exports:
//   extern "C" ARDENT_EXPORT Framework::Module* CreateModule();
extern "C" {
typedef Framework::Module* (*CreateModuleFunc)();
}

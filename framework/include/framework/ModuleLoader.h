#pragma once
// The loaded modules of one engine: every lib*_module.so of a directory in
// name order, created through CreateModule and initialised. Modules are
// taken out again only by the engine's orderly unload (TakeAll, then
// Destroy), which stops their tasks in between.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <Poco/Mutex.h>
#include <Poco/SharedLibrary.h>

#include "framework/Callbacks.h"
#include "framework/Module.h"

namespace Framework {

class ModuleLoader {
public:
    struct Loaded {
        std::unique_ptr<Poco::SharedLibrary> library;  // null for Add
        Module* module = nullptr;
        std::string path;
    };

    // Init runs under `control`, which serialises it with policy callbacks
    // and tasklets.
    explicit ModuleLoader(Poco::Mutex& control) : m_control(control) {}

    // A file without CreateModule is skipped with an error naming it.
    // Returns how many modules were loaded.
    int LoadDirectory(const std::string& dir);
    bool Load(const std::string& path);
    // A module built into the caller (tests, the agent itself); not unloaded.
    bool Add(Module* module);

    std::vector<std::string> Names();
    Module* ForPolicy(const std::string& policyId);
    // Module name -> the policy ids it takes, for every module that takes
    // one. Call under the control mutex (callbacks change in Init/UnInit).
    std::vector<std::pair<std::string, std::vector<std::string>>> PolicyIdsByModule();
    AbstractTaskletCallback* TaskletCallback(const std::string& id);
    std::vector<std::string> TaskletIds();

    // Every module, in load order, out of the loader.
    std::vector<Loaded> TakeAll();
    // Deletes the modules in reverse order. The libraries stay mapped until
    // the process exits: objects of theirs (static singletons, log channels)
    // may outlive this call.
    void Destroy(std::vector<Loaded>& modules);

private:
    bool InitModule(Loaded entry);

    Poco::Mutex& m_control;
    Poco::FastMutex m_mutex;
    std::vector<Loaded> m_modules;
    std::vector<std::unique_ptr<Poco::SharedLibrary>> m_kept;
};

}  // namespace Framework

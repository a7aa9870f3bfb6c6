#pragma once
// A module whose whole job is to run service tasks. Its library is a start
// function and one line:
//
//   Framework::ServiceStart StartAssets() { ... return {{task}, "what runs"}; }
//   ARDENT_SERVICE_MODULE("asset_module", StartAssets)
//
// Init calls the start function (which reads the engine's configuration and
// makes the tasks), then registers the tasks in order. A service is whole or
// absent: when one task cannot be registered, the ones before it are
// unregistered, an error naming the task is logged, and Init fails. UnInit
// (the base class's) stops and unregisters them.

#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Message.h>

#include "framework/Export.h"
#include "framework/Module.h"
#include "framework/Task.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"

namespace Framework {

struct ServiceStart {
    std::vector<Poco::AutoPtr<Task>> tasks;
    std::string started;  // logged once every task is registered ("events go to ...")
};

class ServiceModule : public Module {
public:
    using StartFunction = ServiceStart (*)();

    ServiceModule(const std::string& name, StartFunction start) : Module(name), m_start(start) {}

    int Init() override
    {
        Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger(name(), false);
        ServiceStart service = m_start();
        for (std::size_t i = 0; i < service.tasks.size(); ++i) {
            if (RegisterTask(service.tasks[i].get(), true) == 0) {
                continue;
            }
            SDK_LOG(logger, Poco::Message::PRIO_ERROR, kSource,
                    "Cannot register %s (a task of that name is registered already, or no engine "
                    "runs); %s does not run.",
                    std::string(service.tasks[i]->GetTaskName()), std::string(name()));
            for (std::size_t j = 0; j < i; ++j) {
                UnRegisterTask(service.tasks[j]->GetTaskName());
            }
            return -1;
        }
        if (!service.started.empty()) {
            SDK_LOG(logger, Poco::Message::PRIO_INFORMATION, kSource, "%s: %s", std::string(name()),
                    service.started);
        }
        return 0;
    }

private:
    static constexpr const char* kSource = "framework/ServiceModule";
    StartFunction m_start;
};

}  // namespace Framework

// The exported entry point of a service module's library.
#define ARDENT_SERVICE_MODULE(moduleName, startFunction)              \
    extern "C" ARDENT_EXPORT Framework::Module* CreateModule()       \
    {                                                                 \
        return new Framework::ServiceModule(moduleName, startFunction); \
    }

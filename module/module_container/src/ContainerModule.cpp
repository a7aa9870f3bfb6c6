// libcontainer_module.so: the container collector "container_collect_task".

#include <Poco/Format.h>

#include "ContainerCollectTask.h"
#include "framework/ServiceModule.h"

namespace {

Framework::ServiceStart StartContainers()
{
    const auto options = Container::ContainerCollectTask::OptionsFromConfig();
    Poco::AutoPtr<Container::ContainerCollectTask> task(
        new Container::ContainerCollectTask(options));
    return {{task}, Poco::format("following containers under %s every %ld ms", options.hostRoot,
                                 task->PollMs())};
}

}  // namespace

ARDENT_SERVICE_MODULE("container_module", StartContainers)

// libfilenotify_module.so: the file-notify service "filenotify_task".

#include "FileNotifyTask.h"
#include "framework/ServiceModule.h"

namespace {

Framework::ServiceStart StartFileNotify()
{
    return {{new FileNotify::FileNotifyTask()}, ""};
}

}  // namespace

ARDENT_SERVICE_MODULE("filenotify_module", StartFileNotify)

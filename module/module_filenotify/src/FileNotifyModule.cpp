#include "framework/Export.h"
#include "framework/Module.h"

namespace {

class FileNotifyModule : public Framework::Module {
public:
    FileNotifyModule() : Framework::Module("filenotify_module") {}
};

}  // namespace

extern "C" ARDENT_EXPORT Framework::Module* CreateModule()
{
    return new FileNotifyModule();
}

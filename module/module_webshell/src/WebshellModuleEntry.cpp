// The module's one exported symbol: the framework's loader looks it up by
// this unmangled name.
#include "framework/Export.h"
#include "webshell/DetectWebshellModule.h"

extern "C" ARDENT_EXPORT Framework::Module* CreateModule()
{
    return new Engine::DetectWebshellModule();
}

// The "detect_webshell" policy document, as the control socket or the
// policy directory hands it to the module.

#include <cstdint>
#include <string>

#include <Poco/AutoPtr.h>

#include "FuzzSupport.h"
#include "webshell/DetectWebshellPolicy.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Fuzz::SilenceLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    Poco::AutoPtr<Engine::DetectWebshellPolicy> policy(new Engine::DetectWebshellPolicy("fuzz"));
    if (policy->Parse(text)) {
        // An accepted policy holds no path a system call would cut short.
        for (const auto* list : {&policy->GetDefaultScanPathList(), &policy->GetCustomizeScanPathList()}) {
            for (const auto& path : *list) {
                FUZZ_CHECK(path.find('\0') == std::string::npos, "NUL in an accepted scan path");
            }
        }
        FUZZ_CHECK(policy->GetLibUrl().find('\0') == std::string::npos, "NUL in an accepted lib_url");
        FUZZ_CHECK(!policy->GetLibHash().empty(), "accepted without lib_hash");
        FUZZ_CHECK(policy->GetRefusal().empty(), "accepted with a refusal");
    } else {
        FUZZ_CHECK(!policy->GetRefusal().empty(), "refused without a reason");
    }
    Engine::DetectWebshellTaskPolicy schedule("auto_scan_wehshell_task");
    schedule.Parse(text);
    return 0;
}

// `ardent-agent check-policy F`: checks a policy document without a running
// agent, with the checks the agent makes before it applies one.
//
// The web-shell module is loaded from the module directory (nothing else:
// the service modules start tasks, which a check has no use for) and asked,
// through PolicyStore::Check, exactly what the agent asks of every document
// for policy 10001: the feature the id belongs to against the document's
// "feature_name", then the module's own key, type and schedule checks.
// Errors and warnings go to stderr, one per line, each naming its key.
// Exit status: 0 the agent would apply it (warnings or not), 2 it would
// refuse it or the check could not be made.

#include <iostream>
#include <string>
#include <vector>

#include <Poco/Mutex.h>

#include "Commands.h"
#include "framework/ModuleLoader.h"
#include "framework/PolicyStore.h"
#include "sdk/LoggerUtils.h"
#include "sdk/Posix.h"

namespace Agent {

namespace {

const char* const kPolicyId = "10001";
const char* const kModule = "module/libwebshell_module.so";

}  // namespace

int CheckPolicyCommandMain(const AgentOptions& options)
{
    if (options.args.size() != 1) {
        std::cerr << "ardent-agent check-policy: give one policy file\n";
        return 2;
    }
    const std::string& file = options.args[0];
    std::string content;
    const SDK::ReadResult read = SDK::ReadRegularFile(file, Framework::PolicyStore::kMaxDocumentBytes, content);
    if (!read.ok()) {
        std::cerr << "ardent-agent check-policy: cannot read " << read.status.message() << "\n";
        return 2;
    }
    // What goes wrong while loading reaches stderr; the module's routine
    // lines do not.
    SDK::LoggerUtils::GetInstance()->Configure("", true, "error");

    Poco::Mutex control;
    Framework::ModuleLoader modules(control);
    const std::string modulePath = options.installDir + kModule;
    int status = 2;
    Framework::Module* module = nullptr;
    if (modules.Load(modulePath)) {
        module = modules.ForPolicy(kPolicyId);
    }
    if (module == nullptr) {
        std::cerr << "ardent-agent check-policy: " << modulePath << " does not take policy " << kPolicyId
                  << "; nothing checked\n";
    } else {
        Framework::PolicyCheck check;
        std::string feature;
        Framework::PolicyStore::Check(*module, kPolicyId, content, check, feature);
        for (const auto& error : check.errors) {
            std::cerr << file << ": error: " << error << "\n";
        }
        for (const auto& warning : check.warnings) {
            std::cerr << file << ": warning: " << warning << "\n";
        }
        if (check.Good()) {
            std::cout << file << ": good for policy " << kPolicyId << " (feature " << feature << ")"
                      << (check.warnings.empty() ? "" : ", with warnings") << "\n";
            status = 0;
        } else {
            std::cerr << file << ": the agent would refuse it\n";
        }
    }
    std::vector<Framework::ModuleLoader::Loaded> loaded = modules.TakeAll();
    for (auto& entry : loaded) {
        Poco::Mutex::ScopedLock lock(control);
        entry.module->UnInit();
    }
    modules.Destroy(loaded);
    return status;
}

}  // namespace Agent

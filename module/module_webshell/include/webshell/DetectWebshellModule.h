#pragma once
// The web-shell detection module ("webshell_module").
//
// Init registers the tasklet "detect_webshell_10001" (an immediate scan) and
// the policy callback "10001". Each accepted "detect_webshell" policy
// registers the periodic task once, registers or unregisters the file-change
// task to follow "monitor_file_change" (the object is kept for reuse), and
// re-initialises the once task with the new policy. A policy with
// "enabled": false stops the periodic and file-change tasks (no pass, no
// watch) and refuses immediate scans until a policy enables the feature
// again. The policy id always belongs to the feature "detect_webshell",
// whatever the document's "feature_name" says. The module owns its
// three task objects; the framework holds its own reference to those it runs.
// The framework calls the callbacks and UnInit one at a time.

#include <atomic>
#include <string>

#include <Poco/Logger.h>

#include "framework/Module.h"
#include "framework/Policy.h"

namespace Engine {

class OnceScanWebshellTask;
class AutoScanWebshellTask;
class DetectFileChangeWebshellTask;
class DetectWebshellPolicy;

class DetectWebshellModule : public Framework::Module {
public:
    DetectWebshellModule();
    ~DetectWebshellModule() override;

    int Init() override;
    int UnInit() override;

    // The policy callback: the new policy, or null when `content` is refused.
    Framework::Policy* RefreshFeaturePolicy(const std::string& featureName, const std::string& content,
                                            Framework::Policy*& currentPolicy);
    // The same checks the policy callback makes, for the engine and
    // `ardent-agent check-policy`.
    void CheckPolicy(const std::string& policyId, const std::string& content,
                     Framework::PolicyCheck& check) override;
    // The tasklet: one whole scan on the calling thread; 0 (-1 while the
    // feature is disabled).
    int UserTriggeredScan(const std::string& argument);

    // The task objects (null until created).
    OnceScanWebshellTask* GetOnceScanTask() const { return m_onceScanTask; }
    AutoScanWebshellTask* GetAutoScanTask() const { return m_autoScanTask; }
    DetectFileChangeWebshellTask* GetFileChangeTask() const { return m_fileChangeTask; }

private:
    void Disable();
    void ReportMissingScanPaths(const DetectWebshellPolicy& policy);

    Poco::Logger* m_logger;
    OnceScanWebshellTask* m_onceScanTask;
    AutoScanWebshellTask* m_autoScanTask;
    DetectFileChangeWebshellTask* m_fileChangeTask;
    std::atomic<bool> m_disabled{false};  // read by the tasklet's worker thread
};

}  // namespace Engine

#include "webshell/DetectWebshellModule.h"

#include <memory>
#include <new>

#include <json/json.h>

#include "framework/Callbacks.h"
#include "sdk/JsonUtils.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "webshell/DetectWebshellPolicy.h"
#include "webshell/ScanWebshellTask.h"

namespace Engine {

namespace {

const char* const kSource = "module/module_webshell/src/DetectWebshellModule";
const char* const kModuleName = "webshell_module";
const char* const kTaskletId = "detect_webshell_10001";
const char* const kPolicyId = "10001";

// Appends the strings of a JSON array, in order, as GetStringValue reads
// each element (no validation: "" stays "", a number becomes its text).
void AppendStrings(const Json::Value& array, std::list<std::string>& out)
{
    for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
        out.push_back(SDK::JsonUtils::GetStringValue(array[i], "", ""));
    }
}

}  // namespace

// ---------------------------------------------------------------- policies

DetectWebshellTaskPolicy::DetectWebshellTaskPolicy(const std::string& name)
    : Framework::TaskPolicy(name)
{
}

DetectWebshellTaskPolicy::~DetectWebshellTaskPolicy() = default;

bool DetectWebshellTaskPolicy::Parse(const std::string& content)
{
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(content.c_str(), content.size(), root) != 0) {
        return false;
    }
    Json::Value condition;
    if (!SDK::JsonUtils::GetSubobjectValue(root, "task_condition", condition)) {
        return false;
    }
    return ParseCondition(SDK::JsonUtils::JsonToString(condition));
}

DetectWebshellPolicy::DetectWebshellPolicy(const std::string& name) : Framework::FeaturePolicy(name) {}

DetectWebshellPolicy::~DetectWebshellPolicy() = default;

bool DetectWebshellPolicy::Parse(const std::string& content)
{
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(content.c_str(), content.size(), root) != 0) {
        return false;
    }
    SetName(SDK::JsonUtils::GetStringValue(root, "feature_name", ""));
    SetHash(SDK::JsonUtils::GetStringValue(root, "hash", ""));
    SetEnabled(SDK::JsonUtils::GetBoolValue(root, "enabled", true));

    Json::Value body;
    if (!SDK::JsonUtils::GetSubobjectValue(root, "content", body)) {
        return false;
    }
    Json::Value paths;
    if (!SDK::JsonUtils::GetArrayValue(body, "customize_scan_paths", paths)) {
        return false;
    }
    AppendStrings(paths, m_customizeScanPathList);
    if (!SDK::JsonUtils::GetArrayValue(body, "default_scan_paths", paths)) {
        return false;
    }
    AppendStrings(paths, m_defaultScanPathList);

    m_libVersion = SDK::JsonUtils::GetStringValue(body, "lib_version", "");
    m_libUrl = SDK::JsonUtils::GetStringValue(body, "lib_url", "");
    m_libHash = SDK::JsonUtils::GetStringValue(body, "lib_hash", "");
    m_monitorFileChange = SDK::JsonUtils::GetBoolValue(body, "monitor_file_change", false);
    m_monitorContainer = SDK::JsonUtils::GetBoolValue(body, "monitor_container", false);
    m_fileType = SDK::JsonUtils::GetStringValue(body, "file_type", "");
    m_maxFileSize = SDK::JsonUtils::GetIntValue(body, "max_file_size", 10485760);
    m_uploadFileCountPerDay = SDK::JsonUtils::GetIntValue(body, "upload_file_count_per_day", 100);
    if (body.isMember("certain_min_score")) {
        // A typo here would silently change what becomes an event: refuse it.
        const Json::Value& score = body["certain_min_score"];
        if ((score.type() != Json::intValue && score.type() != Json::uintValue) || !score.isInt64()) {
            m_parseError = "content.certain_min_score must be an integer";
            return false;
        }
        m_certainMinScore = score.asInt64();
    }

    // Without a complete rule-library description nothing could be scanned.
    if (m_libVersion.empty() || m_libUrl.empty() || m_libHash.empty()) {
        return false;
    }

    std::unique_ptr<DetectWebshellTaskPolicy> taskPolicy(new DetectWebshellTaskPolicy(kAutoScanTaskName));
    Json::Value autoScan;
    if (!SDK::JsonUtils::GetSubobjectValue(body, "auto_scan_task", autoScan)) {
        return false;
    }
    // A schedule that does not parse leaves the periodic task without one;
    // the rest of the policy still holds.
    if (taskPolicy->Parse(SDK::JsonUtils::JsonToString(autoScan))) {
        Add(taskPolicy.release());
    }
    return true;
}

// ------------------------------------------------------------------ module

DetectWebshellModule::DetectWebshellModule()
    : Framework::Module(kModuleName),
      m_logger(SDK::LoggerUtils::GetInstance()->GetModuleLogger(kModuleName, false)),
      m_onceScanTask(nullptr),
      m_autoScanTask(nullptr),
      m_fileChangeTask(nullptr)
{
}

DetectWebshellModule::~DetectWebshellModule()
{
    if (m_onceScanTask != nullptr) {
        delete m_onceScanTask;
        m_onceScanTask = nullptr;
    }
    if (m_autoScanTask != nullptr) {
        delete m_autoScanTask;
        m_autoScanTask = nullptr;
    }
    if (m_fileChangeTask != nullptr) {
        delete m_fileChangeTask;
        m_fileChangeTask = nullptr;
    }
}

int DetectWebshellModule::Init()
{
    RegisterTaskletCallback(kTaskletId, new (std::nothrow) Framework::TaskletCallback<DetectWebshellModule>(
                                            this, &DetectWebshellModule::UserTriggeredScan, true));
    RegisterPolicyCallback(kPolicyId, new (std::nothrow) Framework::PolicyCallback<DetectWebshellModule>(
                                          this, &DetectWebshellModule::RefreshFeaturePolicy));
    Framework::Module::Init();
    return 0;
}

Framework::Policy* DetectWebshellModule::RefreshFeaturePolicy(const std::string& featureName,
                                                              const std::string& content,
                                                              Framework::Policy*& currentPolicy)
{
    DetectWebshellPolicy* policy = new DetectWebshellPolicy(featureName);
    if (!policy->Parse(content)) {
        if (policy->GetParseError().empty()) {
            SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource, "Parse feature(%s) policy failed.", featureName);
        } else {
            SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource, "Parse feature(%s) policy failed: %s.", featureName,
                    policy->GetParseError());
        }
        policy->SetExpired();
        delete policy;
        if (currentPolicy != nullptr) {
            currentPolicy->SetExpired();
        }
        return nullptr;
    }

    // The periodic task gets its policy and schedule from the framework's
    // dispatch of the returned policy, not from here.
    if (FindTask(kAutoScanTaskName) == nullptr) {
        if (m_autoScanTask == nullptr) {
            m_autoScanTask = new AutoScanWebshellTask();
            m_autoScanTask->duplicate();
        }
        RegisterTask(m_autoScanTask, false);
    }

    if (policy->IsMonitorFileChange()) {
        if (FindTask(kFileChangeTaskName) != nullptr) {
            m_fileChangeTask->SetFeaturePolicy(static_cast<Framework::FeaturePolicy*>(policy));
        } else {
            if (m_fileChangeTask == nullptr) {
                m_fileChangeTask = new DetectFileChangeWebshellTask();
                m_fileChangeTask->duplicate();
            }
            m_fileChangeTask->SetFeaturePolicy(static_cast<Framework::FeaturePolicy*>(policy));
            RegisterTask(m_fileChangeTask, false);
        }
    } else if (FindTask(kFileChangeTaskName) != nullptr) {
        UnRegisterTask(kFileChangeTaskName);
    }

    if (m_onceScanTask == nullptr) {
        m_onceScanTask = new OnceScanWebshellTask();
    }
    m_onceScanTask->SetFeaturePolicy(static_cast<Framework::FeaturePolicy*>(policy));
    m_onceScanTask->Init();

    if (currentPolicy != nullptr) {
        currentPolicy->SetExpired();
    }
    return policy;
}

int DetectWebshellModule::UserTriggeredScan(const std::string& argument)
{
    (void)argument;
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
            "Receive a cmd message for immediately scan webshell.");
    // Before the first accepted policy there is nothing to scan with.
    if (m_onceScanTask != nullptr) {
        m_onceScanTask->Run();
    }
    return 0;
}

int DetectWebshellModule::UnInit()
{
    UnRegisterPolicyCallback(kPolicyId);
    UnRegisterTaskletCallback(kTaskletId);
    if (UnRegisterTask(kAutoScanTaskName) != 0) {
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "UnRegister task(%s).",
                std::string(kAutoScanTaskName));
    }
    if (UnRegisterTask(kFileChangeTaskName) != 0) {
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "UnRegister task(%s).",
                std::string(kFileChangeTaskName));
    }
    if (m_onceScanTask != nullptr) {
        m_onceScanTask->UnInit();
        delete m_onceScanTask;
        m_onceScanTask = nullptr;
    }
    return Framework::Module::UnInit();
}

}  // namespace Engine

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
// each element ("" stays "", a number becomes its text).
void AppendStrings(const Json::Value& array, std::list<std::string>& out)
{
    for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
        out.push_back(SDK::JsonUtils::GetStringValue(array[i], "", ""));
    }
}

// A NUL or another control character has no place in a path, a URL or a
// suffix list: it is a typing or copying mistake, or an attempt to cut a
// path short where C code reads it. JSON's "\u0000" survives parsing inside
// the string, so the whole length is checked, not the C string.
bool FindControlCharacter(const std::string& text, std::string::size_type& at)
{
    for (at = 0; at < text.size(); ++at) {
        const unsigned char c = static_cast<unsigned char>(text[at]);
        if (c < 0x20 || c == 0x7F) {
            return true;
        }
    }
    return false;
}

std::string ControlCharacterReason(const std::string& key, const std::string& text,
                                   std::string::size_type at)
{
    static const char kHex[] = "0123456789abcdef";
    const unsigned char c = static_cast<unsigned char>(text[at]);
    return "\"" + key + "\" holds the control character \\x" + kHex[c >> 4] + kHex[c & 0x0F] + " at byte " +
           std::to_string(at);
}

// The reason naming the first path-valued key that holds a control
// character, or "".
std::string CheckPathCharacters(const std::list<std::string>& customize, const std::list<std::string>& defaults,
                                const std::string& libUrl, const std::string& fileType)
{
    std::string::size_type at = 0;
    const std::pair<const char*, const std::list<std::string>*> lists[] = {
        {"customize_scan_paths", &customize}, {"default_scan_paths", &defaults}};
    for (const auto& list : lists) {
        size_t index = 0;
        for (const auto& path : *list.second) {
            if (FindControlCharacter(path, at)) {
                return ControlCharacterReason(std::string(list.first) + "[" + std::to_string(index) + "]", path, at);
            }
            ++index;
        }
    }
    const std::pair<const char*, const std::string*> texts[] = {{"lib_url", &libUrl}, {"file_type", &fileType}};
    for (const auto& text : texts) {
        if (FindControlCharacter(*text.second, at)) {
            return ControlCharacterReason(text.first, *text.second, at);
        }
    }
    return std::string();
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
    m_refusal = "not a JSON object";
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(content.c_str(), content.size(), root) != 0) {
        return false;
    }
    SetName(SDK::JsonUtils::GetStringValue(root, "feature_name", ""));
    SetHash(SDK::JsonUtils::GetStringValue(root, "hash", ""));
    SetEnabled(SDK::JsonUtils::GetBoolValue(root, "enabled", true));

    Json::Value body;
    m_refusal = "no \"content\" object";
    if (!SDK::JsonUtils::GetSubobjectValue(root, "content", body)) {
        return false;
    }
    Json::Value paths;
    m_refusal = "no \"customize_scan_paths\" array";
    if (!SDK::JsonUtils::GetArrayValue(body, "customize_scan_paths", paths)) {
        return false;
    }
    AppendStrings(paths, m_customizeScanPathList);
    m_refusal = "no \"default_scan_paths\" array";
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
            m_refusal = "content.certain_min_score must be an integer";
            return false;
        }
        m_certainMinScore = score.asInt64();
    }

    // Without a complete rule-library description nothing could be scanned.
    if (m_libVersion.empty() || m_libUrl.empty() || m_libHash.empty()) {
        m_refusal = "\"lib_version\", \"lib_url\" and \"lib_hash\" are all required";
        return false;
    }
    m_refusal = CheckPathCharacters(m_customizeScanPathList, m_defaultScanPathList, m_libUrl, m_fileType);
    if (!m_refusal.empty()) {
        return false;
    }

    std::unique_ptr<DetectWebshellTaskPolicy> taskPolicy(new DetectWebshellTaskPolicy(kAutoScanTaskName));
    Json::Value autoScan;
    m_refusal = "no \"auto_scan_task\" object";
    if (!SDK::JsonUtils::GetSubobjectValue(body, "auto_scan_task", autoScan)) {
        return false;
    }
    m_refusal.clear();
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
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource, "Parse feature(%s) policy failed: %s.", featureName,
                policy->GetRefusal());
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

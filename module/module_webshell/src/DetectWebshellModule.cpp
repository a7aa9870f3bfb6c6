#include "webshell/DetectWebshellModule.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <vector>

#include <json/json.h>

#include "framework/Callbacks.h"
#include "framework/Health.h"
#include "sdk/JsonUtils.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/Posix.h"
#include "webshell/AllowList.h"
#include "webshell/DetectWebshellPolicy.h"
#include "webshell/ScanWebshellTask.h"

namespace Engine {

namespace {

const char* const kSource = "module/module_webshell/src/DetectWebshellModule";
const char* const kModuleName = "webshell_module";
const char* const kTaskletId = "detect_webshell_10001";
const char* const kPolicyId = "10001";
const char* const kDisabledHealthKey = "webshell.disabled";

// Appends the strings of a JSON array, in order (the check made sure every
// element is a string).
void AppendStrings(const Json::Value& array, std::list<std::string>& out)
{
    for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
        out.push_back(SDK::JsonUtils::GetStringValue(array[i], "", ""));
    }
}

// The document's keys, level by level. Every key is checked before anything
// is taken from the document: a value of another type would otherwise be
// read as the default ("monitor_file_change": "yes" as false), and a
// misspelt key would be ignored without a word.
enum class Kind { String, Bool, Int, Object, StringArray };

struct KeySpec {
    const char* key;
    Kind kind;
    bool required;
};

const KeySpec kRootKeys[] = {
    {"feature_name", Kind::String, false},
    {"hash", Kind::String, false},
    {"enabled", Kind::Bool, false},
    {"content", Kind::Object, true},
};
const KeySpec kContentKeys[] = {
    {"customize_scan_paths", Kind::StringArray, true},
    {"default_scan_paths", Kind::StringArray, true},
    {"lib_version", Kind::String, true},
    {"lib_url", Kind::String, true},
    {"lib_hash", Kind::String, true},
    {"monitor_file_change", Kind::Bool, false},
    {"monitor_container", Kind::Bool, false},
    {"file_type", Kind::String, false},
    {"max_file_size", Kind::Int, false},
    {"upload_file_count_per_day", Kind::Int, false},
    {"certain_min_score", Kind::Int, false},
    {"allow", Kind::Object, false},
    {"quarantine_certain", Kind::Bool, false},
    {"auto_scan_task", Kind::Object, true},
};
const KeySpec kAutoScanKeys[] = {
    {"task_condition", Kind::Object, true},
};

const char* KindName(Kind kind)
{
    switch (kind) {
    case Kind::String:
        return "a string";
    case Kind::Bool:
        return "true or false";
    case Kind::Int:
        return "an integer";
    case Kind::Object:
        return "an object";
    default:
        return "an array of strings";
    }
}

bool HasKind(const Json::Value& value, Kind kind)
{
    switch (kind) {
    case Kind::String:
        return value.isString();
    case Kind::Bool:
        return value.isBool();
    case Kind::Int:
        // 1.5 and 2048.0 are refused: a size or a count is written as an integer.
        return (value.type() == Json::intValue || value.type() == Json::uintValue) && value.isInt();
    case Kind::Object:
        return value.isObject();
    default:
        return value.isArray();
    }
}

// Edit distance, for "did you mean" on a misspelt key.
size_t Distance(const std::string& a, const std::string& b)
{
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

template <size_t N>
void CheckKeys(const Json::Value& object, const std::string& where, const KeySpec (&specs)[N],
               Framework::PolicyCheck& check)
{
    for (const KeySpec& spec : specs) {
        const std::string name = where + spec.key;
        if (!object.isMember(spec.key)) {
            if (spec.required) {
                check.errors.push_back(name + " is required (" + KindName(spec.kind) + ")");
            }
            continue;
        }
        const Json::Value& value = object[spec.key];
        if (!HasKind(value, spec.kind)) {
            check.errors.push_back(name + " must be " + KindName(spec.kind));
            continue;
        }
        if (spec.kind == Kind::StringArray) {
            for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
                if (!value[i].isString()) {
                    check.errors.push_back(name + "[" + std::to_string(i) + "] must be a string");
                }
            }
        }
    }
    for (const auto& key : object.getMemberNames()) {
        const KeySpec* closest = nullptr;
        size_t best = 3;  // suggest within two edits
        bool known = false;
        for (const KeySpec& spec : specs) {
            known = known || key == spec.key;
            const size_t d = Distance(key, spec.key);
            if (d < best) {
                best = d;
                closest = &spec;
            }
        }
        if (!known) {
            check.warnings.push_back("unknown key " + where + key + " ignored" +
                                     (closest != nullptr ? std::string(" (did you mean ") + closest->key + "?)"
                                                         : std::string()));
        }
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
    m_check = Framework::PolicyCheck();
    m_refusal.clear();
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(content.c_str(), content.size(), root) != 0 || !root.isObject()) {
        m_check.errors.push_back("the document is not a JSON object");
        m_refusal = m_check.ErrorText();
        return false;
    }
    CheckKeys(root, "", kRootKeys, m_check);
    const Json::Value& body = root["content"];
    if (body.isObject()) {
        CheckKeys(body, "content.", kContentKeys, m_check);
        const Json::Value& autoScan = body["auto_scan_task"];
        if (autoScan.isObject()) {
            CheckKeys(autoScan, "content.auto_scan_task.", kAutoScanKeys, m_check);
        }
    }
    if (!m_check.Good()) {
        m_refusal = m_check.ErrorText();
        return false;
    }

    SetName(SDK::JsonUtils::GetStringValue(root, "feature_name", ""));
    SetHash(SDK::JsonUtils::GetStringValue(root, "hash", ""));
    SetEnabled(SDK::JsonUtils::GetBoolValue(root, "enabled", true));
    AppendStrings(body["customize_scan_paths"], m_customizeScanPathList);
    AppendStrings(body["default_scan_paths"], m_defaultScanPathList);
    m_libVersion = SDK::JsonUtils::GetStringValue(body, "lib_version", "");
    m_libUrl = SDK::JsonUtils::GetStringValue(body, "lib_url", "");
    m_libHash = SDK::JsonUtils::GetStringValue(body, "lib_hash", "");
    m_monitorFileChange = SDK::JsonUtils::GetBoolValue(body, "monitor_file_change", false);
    m_monitorContainer = SDK::JsonUtils::GetBoolValue(body, "monitor_container", false);
    m_fileType = SDK::JsonUtils::GetStringValue(body, "file_type", "");
    m_maxFileSize = SDK::JsonUtils::GetIntValue(body, "max_file_size", 10485760);
    m_uploadFileCountPerDay = SDK::JsonUtils::GetIntValue(body, "upload_file_count_per_day", 100);
    if (body.isMember("certain_min_score")) {
        m_certainMinScore = body["certain_min_score"].asInt64();
    }
    m_allow = AllowList::FromPolicy(body["allow"], m_check.errors, m_check.warnings);
    m_quarantineCertain = SDK::JsonUtils::GetBoolValue(body, "quarantine_certain", false);

    // Without a complete rule-library description nothing could be scanned.
    for (const char* key : {"lib_version", "lib_url", "lib_hash"}) {
        if (body[key].asString().empty()) {
            m_check.errors.push_back(std::string("content.") + key + " must not be empty");
        }
    }
    const std::string control =
        CheckPathCharacters(m_customizeScanPathList, m_defaultScanPathList, m_libUrl, m_fileType);
    if (!control.empty()) {
        m_check.errors.push_back(control);
    }
    // A schedule that does not parse would leave the previous one running
    // while status shows the new policy: refuse the document instead.
    std::unique_ptr<DetectWebshellTaskPolicy> taskPolicy(new DetectWebshellTaskPolicy(kAutoScanTaskName));
    std::string why;
    if (!taskPolicy->ParseCondition(SDK::JsonUtils::JsonToString(body["auto_scan_task"]["task_condition"]),
                                    why)) {
        m_check.errors.push_back("content.auto_scan_task.task_condition: " + why);
    }
    if (!m_check.Good()) {
        m_refusal = m_check.ErrorText();
        return false;
    }
    Add(taskPolicy.release());
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
    RegisterPolicyCallback(kPolicyId,
                           new (std::nothrow) Framework::PolicyCallback<DetectWebshellModule>(
                               this, &DetectWebshellModule::RefreshFeaturePolicy),
                           kDetectWebshellFeature);
    Framework::Module::Init();
    return 0;
}

void DetectWebshellModule::CheckPolicy(const std::string& policyId, const std::string& content,
                                       Framework::PolicyCheck& check)
{
    if (policyId != kPolicyId) {
        return;
    }
    Poco::AutoPtr<DetectWebshellPolicy> policy(new DetectWebshellPolicy(kDetectWebshellFeature));
    policy->Parse(content);
    const Framework::PolicyCheck& found = policy->GetCheck();
    check.errors.insert(check.errors.end(), found.errors.begin(), found.errors.end());
    check.warnings.insert(check.warnings.end(), found.warnings.begin(), found.warnings.end());
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
    // One state per feature: every task reads the same policy under the
    // feature's own name, whatever the document calls itself (the engine
    // has warned about a different or missing "feature_name").
    policy->SetName(kDetectWebshellFeature);

    ReportMissingScanPaths(*policy);
    if (!policy->IsEnabled()) {
        Disable();
    } else {
        if (m_disabled.exchange(false)) {
            Framework::Health::Clear(kDisabledHealthKey);
            SDK_LOG(m_logger, Poco::Message::PRIO_NOTICE, kSource,
                    "Feature %s enabled again by policy %s: scan passes and watches resume.",
                    std::string(kDetectWebshellFeature), std::string(kPolicyId));
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

void DetectWebshellModule::ReportMissingScanPaths(const DetectWebshellPolicy& policy)
{
    // Each pass takes the directories that exist then, so a missing one is
    // scanned from the first pass after it appears; said here once per
    // policy rather than at every pass. The built-in roots are expected to
    // be missing on most hosts: one information line for them.
    std::string defaults;
    for (const auto& path : policy.GetDefaultScanPathList()) {
        struct stat st;
        if (::stat(path.c_str(), &st) != 0) {
            defaults += (defaults.empty() ? "" : ", ") + path;
        }
    }
    if (!defaults.empty()) {
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                "Built-in scan paths not on this host (scanned once they appear): %s.", defaults);
    }
    for (const auto& path : policy.GetCustomizeScanPathList()) {
        struct stat st;
        if (::stat(path.c_str(), &st) != 0) {
            const std::string why = SDK::ErrnoText(errno);
            SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                    "Scan path %s cannot be used (%s); it is scanned from the first pass after it appears.",
                    path, why);
        } else if (!S_ISDIR(st.st_mode)) {
            SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                    "Scan path %s is not a directory; it is not scanned.", path);
        }
    }
}

void DetectWebshellModule::Disable()
{
    // Disabled means no pass and no watch: both tasks stop (their objects
    // are kept) and come back with the next policy that enables the feature.
    UnRegisterTask(kAutoScanTaskName);
    UnRegisterTask(kFileChangeTaskName);
    const std::string reason = std::string("feature ") + kDetectWebshellFeature + " is disabled by policy " +
                               kPolicyId + " (\"enabled\": false): no scan pass, no watch";
    Framework::Health::Raise(kDisabledHealthKey, Framework::Health::Severity::Degraded, reason);
    if (!m_disabled.exchange(true)) {
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource, "%s until a policy enables it.", reason);
    }
}

int DetectWebshellModule::UserTriggeredScan(const std::string& argument)
{
    (void)argument;
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
            "Receive a cmd message for immediately scan webshell.");
    if (m_disabled.load()) {
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                "Immediate scan refused: feature %s is disabled by policy %s.",
                std::string(kDetectWebshellFeature), std::string(kPolicyId));
        return -1;
    }
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
    Framework::Health::Clear(kDisabledHealthKey);
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

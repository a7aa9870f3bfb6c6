#include "webshell/ScanWebshellTask.h"

#include <dirent.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <memory>

#include <Poco/String.h>
#include <json/json.h>

#include "filenotify/FileNotifyMessage.h"
#include "framework/Engine.h"
#include "framework/Message.h"
#include "framework/StatusBoard.h"
#include "framework/Topics.h"
#include "message/Outcomes.h"
#include "message/AssetMessage.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/StrUtils.h"
#include "sdk/TimeUtils.h"
#include "Throttle.h"
#include "webshell/DetectWebshellPolicy.h"
#include "webshell/WebshellFileUploadRecorder.h"

// Last: libyara's headers define short macros (parent, ...) that would
// break the C++ headers above.
#include <yara.h>

namespace Engine {

const char* const kAutoScanTaskName = "auto_scan_wehshell_task";
const char* const kOnceScanTaskName = "once_scan_webshell_task";
const char* const kFileChangeTaskName = "detect_file_change_wehshell_task";
const char* const kDetectWebshellFeature = "detect_webshell";

namespace {

const char* const kSource = "module/module_webshell/src/ScanWebshellTask";
const char* const kModuleName = "webshell_module";
const char* const kLibRelativePath = "data/webshell/webshell.dat";
const char* const kMsgSyncTask = "msg_sync_task";
const char* const kFileCommReportTask = "file_comm_report_task";
const char* const kDataCommReportTask = "data_comm_report_task";
const char* const kFileNotifyTask = "filenotify_task";
const char* const kWatchAdd = "add";
const char* const kWatchDelete = "delete";

const long kLibHashSizeLimit = 10485760;   // the rule library is hashed up to 10 MiB
const long kEventHashSizeLimit = 10485760;  // so is a reported file
const int kScanTimeoutS = 5;
const std::string::size_type kMaxUploadPathLength = 256;
const uint64_t kReportWindowS = 59;  // a path is reported at most once per 60 s

// inotify masks of a watch request: created, modified, moved from/to.
const unsigned int kWatchEvents[] = {0x100, 0x2, 0xC0};
const uint32_t kEventIsDir = 0x40000000;

const unsigned int kAssetKinds[] = {AssetMessage::KIND_WEB_SERVER, AssetMessage::KIND_JAVA_APP_SERVER};

// ------------------------------------------------------------------------
// Figures of the running pass, rendered for operators ("webshell.last_pass")
// and announced when the pass ends (kScanPassTopic), and the state of the
// rule library ("webshell.rules"). A pass belongs to the thread that runs
// Check; file checks outside a pass (notifications) are not counted.

std::atomic<uint64_t> g_passCounter{0};

struct PassState : PassFigures {
    std::string task;
    uint64_t passId = 0;
    int64_t startedMs = 0;
    Json::Value roots{Json::arrayValue};
};

const char* SkipText(PassSkip skip)
{
    switch (skip) {
    case PassSkip::None:
        return "";
    case PassSkip::NoPolicy:
        return "no policy";
    case PassSkip::NoScanPath:
        return "scan path empty";
    default:
        return "rules not ready";
    }
}

Json::Value RenderPass(const PassState& pass, const char* state, PassSkip skip, int64_t finishedMs)
{
    Json::Value v(Json::objectValue);
    v["task"] = pass.task;
    v["pass_id"] = Json::UInt64(pass.passId);
    v["state"] = state;
    v["reason"] = SkipText(skip);
    v["started_ms"] = Json::Int64(pass.startedMs);
    v["finished_ms"] = Json::Int64(finishedMs);
    v["seconds"] = finishedMs > 0 ? static_cast<double>(finishedMs - pass.startedMs) / 1000.0 : 0.0;
    v["files_seen"] = Json::UInt64(pass.filesSeen);
    v["files_checked"] = Json::UInt64(pass.filesChecked);
    v["files_matched"] = Json::UInt64(pass.filesMatched);
    v["certain"] = Json::UInt64(pass.certain);
    v["uncertain"] = Json::UInt64(pass.uncertain);
    v["events"] = Json::UInt64(pass.events);
    v["uploads"] = Json::UInt64(pass.uploads);
    v["bytes_checked"] = Json::UInt64(pass.bytesChecked);
    v["roots"] = pass.roots;
    return v;
}

thread_local PassState* t_pass = nullptr;

class PassScope {
public:
    explicit PassScope(const std::string& task) : m_previous(t_pass)
    {
        m_pass.task = task;
        m_pass.passId = g_passCounter.fetch_add(1, std::memory_order_relaxed) + 1;
        m_pass.startedMs = SDK::TimeUtils::GetCurrentTimestampMS();
        t_pass = &m_pass;
        Framework::StatusBoard::Publish("webshell.last_pass", RenderPass(m_pass, "running", PassSkip::None, 0));
    }
    ~PassScope()
    {
        t_pass = m_previous;
        if (!m_ended) {
            End(PassSkip::None, SDK::Status::Ok());
        }
    }
    PassScope(const PassScope&) = delete;
    PassScope& operator=(const PassScope&) = delete;

    void End(PassSkip skip, const SDK::Status& why)
    {
        m_ended = true;
        const int64_t now = SDK::TimeUtils::GetCurrentTimestampMS();
        Framework::StatusBoard::Publish(
            "webshell.last_pass",
            RenderPass(m_pass, skip == PassSkip::None ? "finished" : "skipped", skip, now));
        auto outcome = std::make_shared<ScanPassMessage>();
        outcome->task = m_pass.task;
        outcome->passId = m_pass.passId;
        outcome->skip = skip;
        outcome->reason = why.message();
        outcome->startedMs = m_pass.startedMs;
        outcome->finishedMs = now;
        outcome->figures = m_pass;
        Framework::Topics::Post(kScanPassTopic, outcome);
    }
    PassState& Figures() { return m_pass; }

private:
    PassState m_pass;
    PassState* m_previous;
    bool m_ended = false;
};

// Whether any task said anything about the rule library yet.
std::atomic<bool> g_rulesPublished{false};

void PublishRules(const std::string& path, const char* state, const std::string& loaded,
                  const std::string& wanted, const std::string& hash, const std::string& url)
{
    Json::Value v(Json::objectValue);
    v["path"] = path;
    v["state"] = state;
    v["loaded_version"] = loaded;
    v["wanted_version"] = wanted;
    v["wanted_hash"] = hash;
    v["url"] = url;
    Framework::StatusBoard::Publish("webshell.rules", v);
    g_rulesPublished.store(true);
}

// The admission test of a scan root: status with links followed, then the
// type. A link to a directory is admitted under its own path.
void AdmitScanPath(Poco::Logger* logger, const std::string& path, std::set<std::string>& pathSet,
                   bool logSuccess)
{
    struct stat st;
    memset(&st, 0, sizeof(st));
    if (stat(path.c_str(), &st) != 0) {
        SDK_LOG(logger, Poco::Message::PRIO_DEBUG, kSource, "Get path stat failed, path(%s).", path);
        return;
    }
    if (logSuccess) {
        SDK_LOG(logger, Poco::Message::PRIO_DEBUG, kSource, "Get path stat sucecss, path(%s).", path);
    }
    const std::string real = SDK::PathUtils::GetLinkRealPath(path);
    const unsigned int type = st.st_mode & S_IFMT;
    if (type == S_IFLNK) {
        if (!real.empty()) {
            pathSet.insert(real);
        }
    } else if (type == S_IFDIR) {
        pathSet.insert(path);
    }
}

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

}  // namespace

// ------------------------------------------------------------ construction

ScanWebshellTask::ScanWebshellTask(const std::string& taskName, const std::string& feature,
                                   Framework::TaskCondition::TaskType type)
    : Framework::Task(taskName, feature, type, 1024),
      m_logger(SDK::LoggerUtils::GetInstance()->GetModuleLogger(kModuleName, false)),
      m_yara(&ScanWebshellTask::Callback),
      m_reserved(2),
      m_nextContainerIndex(0),
      m_uploadFileCountPerDay(0)
{
}

ScanWebshellTask::~ScanWebshellTask()
{
    m_yara.CleanUsedRules();
}

DetectWebshellPolicy* ScanWebshellTask::GetDetectPolicy()
{
    return dynamic_cast<DetectWebshellPolicy*>(GetFeaturePolicy());
}

int ScanWebshellTask::Init()
{
    std::string installDir;
    if (SDK::PathUtils::GetInstallationPath(installDir) == -1) {
        return -1;
    }
    m_webshellLibPath = installDir + kLibRelativePath;
    if (!g_rulesPublished.load()) {
        PublishRules(m_webshellLibPath, "none", "", "", "", "");
    }
    for (unsigned int kind : kAssetKinds) {
        SendDirectMsg(kMsgSyncTask, new AssetRegisterMessage(kind, this));
    }
    ContainerWebshellScanInit();
    return Framework::Task::Init();
}

int ScanWebshellTask::UnInit()
{
    ContainerWebshellScanUnInit();
    for (unsigned int kind : kAssetKinds) {
        SendDirectMsg(kMsgSyncTask, new AssetUnRegisterMessage(kind, this));
    }
    return Framework::Task::UnInit();
}

void ScanWebshellTask::ReceiveMsg()
{
    while (!IsCancelling()) {
        GetEventWaiter().WaitAndHandleEvent(1000, 128);
    }
}

bool ScanWebshellTask::GetTime(long& now)
{
    const time_t t = time(nullptr);
    if (t == static_cast<time_t>(-1)) {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource, "get time failed");
        return false;
    }
    now = static_cast<long>(t);
    return true;
}

// ------------------------------------------------------------ rule library

bool ScanWebshellTask::ParsePolicyContent()
{
    PassSkip skip = PassSkip::None;
    return PreparePolicy(skip).ok();
}

SDK::Status ScanWebshellTask::PreparePolicy(PassSkip& skip)
{
    DetectWebshellPolicy* policy = GetDetectPolicy();
    if (policy == nullptr) {
        skip = PassSkip::NoPolicy;
        return SDK::Status::Error("no policy");
    }
    const std::string fileType = policy->GetFileType();
    m_fileTypeList.clear();
    SDK::StrUtils::Split(fileType, ",", m_fileTypeList);

    {
        Poco::FastMutex::ScopedLock lock(m_scanPathMutex);
        m_scanPathSet.clear();
        GetScanPathSet(policy->GetDefaultScanPathList(), m_scanPathSet);
        GetScanPathSet(policy->GetCustomizeScanPathList(), m_scanPathSet);
        GetWebHomePath(policy->IsMonitorContainer());
        if (m_scanPathSet.empty()) {
            SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "Scan path is empty.");
            skip = PassSkip::NoScanPath;
            return SDK::Status::Error("none of the scan paths is an existing directory");
        }
    }

    m_uploadFileCountPerDay = policy->GetUploadFileCountPerDay();
    WebshellFileUploadRecorder::GetInstance().SetUploadFileCountPerDay(m_uploadFileCountPerDay);
    if (!CheckLocalWebshellLib(policy->GetLibVersion(), policy->GetLibUrl(), policy->GetLibHash(), &skip)) {
        switch (skip) {
        case PassSkip::RulesMissing:
            return SDK::Status::Error("the rule library " + m_webshellLibPath + " is missing");
        case PassSkip::RulesMismatch:
            return SDK::Status::Error("the rule library at " + m_webshellLibPath +
                                      " does not match the policy's lib_hash");
        default:
            return SDK::Status::Error("the rule library " + m_webshellLibPath + " cannot be loaded");
        }
    }
    skip = PassSkip::None;
    return SDK::Status::Ok();
}

bool ScanWebshellTask::CheckLocalWebshellLib(const std::string& libVersion, const std::string& libUrl,
                                             const std::string& libHash, PassSkip* why)
{
    bool flag = true;
    std::string digest;
    const int hashResult = SDK::FileUtils::GetFileSha256(m_webshellLibPath, flag, digest, kLibHashSizeLimit);
    if (hashResult == -1 || digest != libHash) {
        PublishRules(m_webshellLibPath, hashResult == -1 ? "missing" : "hash_mismatch", m_loadedLibVersion,
                     libVersion, libHash, libUrl);
        if (why != nullptr) {
            *why = hashResult == -1 ? PassSkip::RulesMissing : PassSkip::RulesMismatch;
        }
        SendFileDownloadMsg(m_webshellLibPath, libUrl);
        return false;
    }
    if (libVersion == m_loadedLibVersion) {
        return true;
    }
    m_yara.CleanUsedRules();
    if (!m_yara.LoadRuleFromFile(m_webshellLibPath)) {
        PublishRules(m_webshellLibPath, "load_failed", m_loadedLibVersion, libVersion, libHash, libUrl);
        if (why != nullptr) {
            *why = PassSkip::RulesUnloadable;
        }
        return false;
    }
    m_loadedLibVersion = libVersion;
    PublishRules(m_webshellLibPath, "loaded", m_loadedLibVersion, libVersion, libHash, libUrl);
    return true;
}

void ScanWebshellTask::SendFileDownloadMsg(const std::string& path, const std::string& url)
{
    SendDirectMsg(kFileCommReportTask, new Framework::FileMessage(Framework::FileMessage::DOWNLOAD, path, "", url));
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "Download file, url(%s).", url);
}

// --------------------------------------------------------- scan directories

void ScanWebshellTask::GetScanPathSet(const std::list<std::string>& pathList, std::set<std::string>& pathSet)
{
    for (const auto& path : pathList) {
        AdmitScanPath(m_logger, path, pathSet, false);
    }
}

void ScanWebshellTask::GetWebHomePath(bool includeContainer)
{
    for (const auto& kind : m_assetInfoMap) {
        for (const auto& asset : kind.second) {
            if (!asset.second) {
                continue;
            }
            if (!asset.second->containerId.empty() && !includeContainer) {
                continue;
            }
            for (const auto& webDir : asset.second->webDirList) {
                if (webDir) {
                    AdmitScanPath(m_logger, webDir->path, m_scanPathSet, true);
                }
            }
        }
    }
}

// ------------------------------------------------------ walk and file check

void ScanWebshellTask::Check()
{
    PassScope pass(GetTaskName());
    PassSkip skip = PassSkip::None;
    const SDK::Status prepared = PreparePolicy(skip);
    if (!prepared) {
        pass.End(skip, prepared);
        return;
    }
    SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "Webshell task check OS web directory. ");
    for (const auto& root : m_scanPathSet) {
        pass.Figures().roots.append(root);
    }

    std::set<std::string> visited;
    for (const auto& path : m_scanPathSet) {
        if (IsCancelling()) {
            break;
        }
        WEBSHELL_THROTTLE_POINT(kSource, GetTaskName());
        if (!path.empty()) {
            ContainerCacheInfo blank;
            ScanFromDir(path, visited, blank);
        }
    }

    Framework::Engine* engine = Framework::Engine::GetInstance();
    auto* fileChangeTask =
        dynamic_cast<ScanWebshellTask*>(engine != nullptr ? engine->FindTask(kFileChangeTaskName) : nullptr);
    if (fileChangeTask == nullptr) {
        SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "Webshell task get scan task failed.");
        return;
    }
    std::map<std::string, ContainerCacheInfo> containers;
    fileChangeTask->GetContainerCacheList(containers);
    SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource,
            "Webshell task check container web directory. cache size is %lu",
            static_cast<unsigned long>(containers.size()));
    for (const auto& entry : containers) {
        WEBSHELL_THROTTLE_POINT(kSource, GetTaskName());
        for (const auto& path : entry.second.scanPathList) {
            WEBSHELL_THROTTLE_POINT(kSource, GetTaskName());
            pass.Figures().roots.append(path);
            ScanFromDir(path, visited, entry.second);
        }
    }
}

void ScanWebshellTask::ScanFromDir(const std::string& dir, std::set<std::string>& visited,
                                   const ContainerCacheInfo& cache)
{
    WEBSHELL_THROTTLE_POINT(kSource, GetTaskName());
    SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "ScanFromDir, path(%s), index(%lu)", dir, cache.index);
    if (dir.empty() || visited.count(dir) != 0) {
        return;
    }
    visited.insert(dir);

    std::unique_ptr<DIR, DirCloser> handle(opendir(dir.c_str()));
    if (!handle) {
        return;
    }
    while (struct dirent* entry = readdir(handle.get())) {
        if (IsCancelling()) {
            return;
        }
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) {
            continue;
        }
        WEBSHELL_THROTTLE_POINT(kSource, GetTaskName());
        // The separator is always added: a dir ending in "/" gives "//".
        const std::string child = dir + "/" + entry->d_name;
        struct stat st;
        memset(&st, 0, sizeof(st));
        // The type comes from stat (links followed), never from d_type.
        if (stat(child.c_str(), &st) != 0) {
            SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "ScanFromDir stat failed: file(%s), index(%lu)",
                    child, cache.index);
            continue;
        }
        switch (st.st_mode & S_IFMT) {
        case S_IFDIR:
            ScanFromDir(child, visited, cache);
            break;
        case S_IFLNK:
            ScanFromLink(child, visited, cache);
            break;
        case S_IFREG:
            ScanFromFile(child, cache);
            break;
        default:
            SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "ScanFromDir stat check file %s Unknown", child);
            break;
        }
    }
}

void ScanWebshellTask::ScanFromLink(const std::string& link, std::set<std::string>& visited,
                                    const ContainerCacheInfo& cache)
{
    const std::string real = SDK::PathUtils::GetLinkRealPath(link);
    if (real.empty()) {
        return;
    }
    struct stat st;
    memset(&st, 0, sizeof(st));
    if (stat(real.c_str(), &st) != 0) {
        return;
    }
    const unsigned int type = st.st_mode & S_IFMT;
    if (type == S_IFLNK) {
        visited.insert(real);
        ScanFromDir(real, visited, cache);
    } else if (type == S_IFREG) {
        ScanFromFile(real, cache);
    }
}

void ScanWebshellTask::ScanFromFile(const std::string& path, const ContainerCacheInfo& cache)
{
    if (path.empty()) {
        return;
    }
    struct stat st;
    memset(&st, 0, sizeof(st));
    if (stat(path.c_str(), &st) != 0) {
        return;
    }
    PassFigures* figures = t_pass;
    if (figures != nullptr) {
        ++figures->filesSeen;
    }
    DetectWebshellPolicy* policy = GetDetectPolicy();
    if (policy != nullptr && policy->GetMaxFileSize() >= 1 &&
        static_cast<long long>(st.st_size) > static_cast<long long>(policy->GetMaxFileSize())) {
        SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "File is too big, path(%s).", path);
        return;
    }
    if (!CheckFileType(path)) {
        return;
    }
    if (figures != nullptr) {
        ++figures->filesChecked;
        figures->bytesChecked += static_cast<uint64_t>(st.st_size);
    }
    DetectResult result;
    if (!m_yara.CheckFile(path, &result, kScanTimeoutS)) {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource, "Check file failed, path(%s).", path);
        return;
    }
    if (!result.matched) {
        return;
    }
    if (figures != nullptr) {
        ++figures->filesMatched;
        ++(result.certain ? figures->certain : figures->uncertain);
    }
    // Only a certain match is an event; anything else deserves a second look.
    if (!result.certain) {
        SendFileUploadMsg(path);
        return;
    }
    const ContainerInfo container = cache;
    SendDetectResultMsg(path, result, container);
}

bool ScanWebshellTask::CheckFileType(const std::string& path)
{
    if (m_fileTypeList.empty()) {
        return true;
    }
    // The last dot of the whole path, not of its last component.
    const std::string::size_type dot = path.rfind('.');
    if (dot == std::string::npos) {
        return false;
    }
    const std::string ext = path.substr(dot + 1);
    for (const auto& type : m_fileTypeList) {
        WEBSHELL_THROTTLE_POINT(kSource, GetTaskName());
        if (ext.size() == type.size() && Poco::icompare(ext, type) == 0) {
            return true;
        }
    }
    return false;
}

// libyara 4.2 hands out its match records from an allocator that does not
// align them; reading their fields is fine on x86-64 but is reported by the
// alignment check of UBSan, so that check alone is off here.
__attribute__((no_sanitize("alignment")))
int ScanWebshellTask::Callback(void* context, int message, void* messageData, void* userData)
{
    if (message != CALLBACK_MSG_RULE_MATCHING) {
        return CALLBACK_CONTINUE;
    }
    auto* result = static_cast<DetectResult*>(userData);
    result->matched = true;
    if (messageData == nullptr) {
        return CALLBACK_ERROR;
    }
    auto* rule = static_cast<YR_RULE*>(messageData);
    result->ruleName = rule->identifier;

    // The first tag that fits decides; later tags are not looked at.
    const char* tag = nullptr;
    yr_rule_tags_foreach(rule, tag)
    {
        if (strncmp(tag, "certain", 7) == 0) {
            result->certain = true;
            break;
        }
        if (strncmp(tag, "extra_php", 9) == 0) {
            result->extraPhp = true;
            break;
        }
        if (strncmp(tag, "extra_jsp", 9) == 0) {
            result->extraJsp = true;
            break;
        }
    }

    auto* scanContext = static_cast<YR_SCAN_CONTEXT*>(context);
    if (scanContext != nullptr) {
        YR_STRING* string = nullptr;
        YR_MATCH* match = nullptr;
        yr_rule_strings_foreach(rule, string)
        {
            yr_string_matches_foreach(scanContext, string, match)
            {
                // The matched bytes as text, up to the first NUL; the copy
                // libyara keeps is not NUL-terminated, so stay within it.
                const char* data = reinterpret_cast<const char*>(match->data);
                const size_t length = match->data_length > 0 ? static_cast<size_t>(match->data_length) : 0;
                result->keyWord.assign(data, data != nullptr ? strnlen(data, length) : 0);
            }
        }
    }
    // The first matching rule ends the check of the file.
    return CALLBACK_ABORT;
}

// --------------------------------------------------------------- reporting

void ScanWebshellTask::SendDetectResultMsg(const std::string& filePath, const DetectResult& result,
                                           const ContainerInfo& container)
{
    Json::Value event(Json::objectValue);
    Json::Value file(Json::objectValue);
    file["file_path"] = filePath;
    if (!result.keyWord.empty()) {
        file["file_key_word"] = result.keyWord;
    }
    bool flag = true;
    std::string sha256;
    if (SDK::FileUtils::GetFileSha256(filePath, flag, sha256, kEventHashSizeLimit) == 0) {
        file["file_sha256"] = sha256;
    }

    event["event_id"] = SDK::CryptoCodeUtils::GenerateUUID();
    event["event_classid"] = "webshell_0001";
    event["event_name"] = "webshell";
    event["occur_time"] = Json::Int64(SDK::TimeUtils::GetCurrentTimestampS());
    event["event_category"] = 1000;
    event["event_type"] = 1015;
    event["severity"] = 2;
    event["event_count"] = 1;
    event["attack_phase"] = 6;
    event["attack_tag"] = 2;
    event["confidence"] = 90;
    event["detect_module"] = kModuleName;
    event["file_info"].append(file);

    if (!container.name.empty() && !container.id.empty()) {
        event["container_name"] = container.name;
        event["image_name"] = container.imageName;
        // The path as seen inside the container: only the root's length
        // counts. Receivers rely on "file_info" being a bare object here.
        file["file_path"] = filePath.substr(container.rootPath.size());
        event["file_info"] = file;
        Json::Value resource(Json::objectValue);
        resource["container_id"] = container.id;
        resource["image_id"] = container.imageId;
        event["resource_info"] = resource;
    }

    const std::string text = SDK::JsonUtils::JsonToString(event);
    SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "Webshell detect result(%s).", text);
    if (DiscardReplicateMsg(filePath.c_str()) != 0) {
        return;
    }
    SendDirectMsg(kDataCommReportTask, new Framework::DataMessage("2", text));
    if (t_pass != nullptr) {
        ++t_pass->events;
    }
}

int ScanWebshellTask::DiscardReplicateMsg(const char* key)
{
    if (key == nullptr) {
        return 0;
    }
    long reportTime = 0;
    if (!GetTime(reportTime)) {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource, "get time failed");
        return 0;
    }
    long now = 0;
    if (!GetTime(now)) {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource, "get time failed");
    } else {
        // The age is unsigned: an entry stamped after now is dropped too.
        Poco::FastMutex::ScopedLock lock(m_reportHistoryMutex);
        m_reportHistory.erase(
            std::remove_if(m_reportHistory.begin(), m_reportHistory.end(),
                           [now](const std::pair<std::string, int64_t>& entry) {
                               return static_cast<uint64_t>(now) - static_cast<uint64_t>(entry.second) >
                                      kReportWindowS;
                           }),
            m_reportHistory.end());
    }

    bool found = false;
    {
        Poco::FastMutex::ScopedLock lock(m_reportHistoryMutex);
        for (const auto& entry : m_reportHistory) {
            if (entry.first == key) {
                found = true;
                break;
            }
        }
    }
    if (found) {
        SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "has same message %s\n", std::string(key));
        return 1;
    }
    {
        Poco::FastMutex::ScopedLock lock(m_reportHistoryMutex);
        m_reportHistory.emplace_back(key, static_cast<int64_t>(reportTime));
    }
    return 0;
}

void ScanWebshellTask::SendFileUploadMsg(const std::string& path)
{
    if (path.size() > kMaxUploadPathLength) {
        return;
    }
    WebshellFileUploadRecorder& recorder = WebshellFileUploadRecorder::GetInstance();
    if (!recorder.CheckUploadWebshellFile(path)) {
        return;
    }
    SendDirectMsg(kFileCommReportTask,
                  new Framework::FileMessage(Framework::FileMessage::UPLOAD, path, "webshell", ""));
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "Upload file, file path(%s), count(%d).", path,
            recorder.GetUploadFileCount());
    recorder.AddUploadedWebshellFile(path);
    if (t_pass != nullptr) {
        ++t_pass->uploads;
    }
}

// ----------------------------------------------------------------- watches

void ScanWebshellTask::RegisterFileMonitorMessage()
{
    if (!ParsePolicyContent()) {
        return;
    }
    std::map<std::string, std::string> changes;
    UpdateMonitorDirChange(changes);
    for (const auto& change : changes) {
        const std::string path = change.first;
        const std::string operation = change.second;
        SendFileNotifyWatchMessage(path, operation, 0);
    }
}

void ScanWebshellTask::UpdateMonitorDirChange(std::map<std::string, std::string>& changes)
{
    if (!m_monitorDirSet.empty()) {
        for (const auto& dir : m_scanPathSet) {
            if (m_monitorDirSet.count(dir) == 0) {
                changes.insert(std::make_pair(dir, std::string(kWatchAdd)));
            }
        }
        for (const auto& dir : m_monitorDirSet) {
            if (m_scanPathSet.count(dir) == 0) {
                changes.insert(std::make_pair(dir, std::string(kWatchDelete)));
            }
        }
    } else {
        for (const auto& dir : m_scanPathSet) {
            changes.insert(std::make_pair(dir, std::string(kWatchAdd)));
        }
    }
    // What was requested, not what the file-notify service confirmed.
    m_monitorDirSet.clear();
    m_monitorDirSet.insert(m_scanPathSet.begin(), m_scanPathSet.end());
}

void ScanWebshellTask::SendFileNotifyWatchMessage(const std::string& path, const std::string& operation,
                                                  unsigned long extParm)
{
    _FileNotifyOpt opt;
    opt.extParm = extParm;
    std::vector<unsigned int> events(std::begin(kWatchEvents), std::end(kWatchEvents));
    const bool add = operation == kWatchAdd;
    if (add) {
        opt.addWatch = 1;
    } else {
        opt.removeWatch = 1;
    }
    SendDirectMsg(kFileNotifyTask, new FileNotifyWatchMessage(this, path, events, opt));
    if (add) {
        SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "Add file to monitor, file path(%s).", path);
    } else {
        SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "Remove file to monitor, file path(%s).", path);
    }
}

int ScanWebshellTask::FileNotifyMessageAction(Engine::FileNotifyMessage* msg)
{
    if (msg == nullptr) {
        return 0;
    }
    // Only files are scanned; events on directories are dropped.
    if ((msg->mask & kEventIsDir) != 0) {
        return 0;
    }
    const std::string eventPath = msg->GetEventFilePath();
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "Receive file notify message, file path(%s).",
            eventPath);
    ContainerCacheInfo cacheInfo;
    if (GetContainerCacheFromIndex(eventPath, msg->GetExtParm(), cacheInfo)) {
        ScanFromFile(eventPath, cacheInfo);
    } else {
        // A stale index falls back to a host scan rather than losing the event.
        ContainerCacheInfo hostInfo;
        ScanFromFile(eventPath, hostInfo);
    }
    return 0;
}

// ------------------------------------------------------------------ assets

void ScanWebshellTask::AssetMessageAction(unsigned int kind,
                                          const std::map<int, std::shared_ptr<AssetMessage::assetInfo>>& assets)
{
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "Webshell Receive asset msg!");
    auto& stored = m_assetInfoMap[kind];
    if (&stored != &assets) {
        stored = assets;
    }
    DetectWebshellPolicy* policy = GetDetectPolicy();
    if (policy == nullptr) {
        return;
    }
    GetWebHomePath(policy->IsMonitorContainer());
    RegisterFileMonitorMessage();
}

}  // namespace Engine

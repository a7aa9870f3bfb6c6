#include "webshell/ScanWebshellTask.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <sstream>
#include <unordered_set>

#include <Poco/Base64Encoder.h>
#include <Poco/String.h>
#include <json/json.h>

#include "filenotify/FileNotifyMessage.h"
#include "framework/Engine.h"
#include "framework/Health.h"
#include "framework/Message.h"
#include "framework/StatusBoard.h"
#include "framework/Topics.h"
#include "message/Outcomes.h"
#include "message/AssetMessage.h"
#include "message/Matches.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/Posix.h"
#include "sdk/StrUtils.h"
#include "sdk/TimeUtils.h"
#include "MatchLedger.h"
#include "ScanWorkers.h"
#include "Throttle.h"
#include "WebshellEvent.h"
#include "webshell/AllowList.h"
#include "webshell/DetectWebshellPolicy.h"
#include "webshell/LayerDecoder.h"
#include "webshell/Quarantine.h"
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

// Hashes stream the file: libraries and reported files of any size.
const long kNoHashLimit = 0;
const char* const kRulesHealth = "webshell.rules";
const char* const kPassHealth = "webshell.pass";
const int kScanTimeoutS = 5;
// Files up to this size are read once, scanned and decoded; larger ones are
// scanned as they are.
const uint64_t kDecodeFileLimit = 16u << 20;
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
    // When the running figures were last published, for status during a pass.
    unsigned long publishedTick = 0;
    uint64_t publishedSeen = 0;
    MatchLedger matches;
    // A scanning thread of a threaded pass records into the pass's ledger.
    MatchLedger* sharedMatches = nullptr;
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
    v["files_timed_out"] = Json::UInt64(pass.filesTimedOut);
    v["files_failed"] = Json::UInt64(pass.filesFailed);
    v["files_matched"] = Json::UInt64(pass.filesMatched);
    v["certain"] = Json::UInt64(pass.certain);
    v["uncertain"] = Json::UInt64(pass.uncertain);
    v["allowed"] = Json::UInt64(pass.allowed);
    v["events"] = Json::UInt64(pass.events);
    v["uploads"] = Json::UInt64(pass.uploads);
    v["bytes_checked"] = Json::UInt64(pass.bytesChecked);
    v["roots"] = pass.roots;
    return v;
}

thread_local PassState* t_pass = nullptr;
// The scanner of a scanning thread of a threaded pass (null: the task's own).
thread_local SDK::YaraUtils* t_scanner = nullptr;

// Where a match becomes an event, an upload or a use of the daily quota:
// one file at a time for the whole module, whatever thread found it.
Poco::FastMutex& ReportingMutex()
{
    static Poco::FastMutex mutex;
    return mutex;
}

void AddFigures(PassFigures& to, const PassFigures& from)
{
    to.filesSeen += from.filesSeen;
    to.filesChecked += from.filesChecked;
    to.filesTimedOut += from.filesTimedOut;
    to.filesFailed += from.filesFailed;
    to.filesMatched += from.filesMatched;
    to.certain += from.certain;
    to.uncertain += from.uncertain;
    to.allowed += from.allowed;
    to.events += from.events;
    to.uploads += from.uploads;
    to.bytesChecked += from.bytesChecked;
}

// The running figures of a threaded pass, added to by every scanning thread.
Poco::FastMutex& ScanFiguresMutex()
{
    static Poco::FastMutex mutex;
    return mutex;
}

// Scanning threads of a pass beside the walking thread: the engine's
// "webshell.scan_threads" (the scan command's --threads). The resident agent
// leaves it unset: its task's one thread walks and scans, under its CPU limit.
int ScanThreadsWanted()
{
    Framework::Engine* engine = Framework::Engine::GetInstance();
    if (engine == nullptr) {
        return 0;
    }
    const int wanted = engine->config().getInt("webshell.scan_threads", 0);
    return std::max(0, std::min(wanted, 64));
}
// Files queued ahead of the scanning threads, per thread and at most: each
// holds a descriptor, and the walk's directories need theirs.
const size_t kQueuedPerThread = 16;
const size_t kMaxQueued = 256;
// Bytes the walk reads ahead of the scanning threads, all threads together.
const size_t kReadAheadBytes = 8u << 20;

class PassScope {
public:
    explicit PassScope(const std::string& task) : m_previous(t_pass)
    {
        m_pass.task = task;
        m_pass.passId = g_passCounter.fetch_add(1, std::memory_order_relaxed) + 1;
        m_pass.startedMs = SDK::TimeUtils::GetCurrentTimestampMS();
        t_pass = &m_pass;
        Framework::StatusBoard::Publish("webshell.last_pass", RenderPass(m_pass, "running", PassSkip::None, 0));
        m_pass.publishedTick = SDK::TimeUtils::GetCurrentSystemTickUsed();
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
        // The matches first: whoever sees the pass end already has them.
        Framework::Topics::Post(kMatchListTopic, m_pass.matches.Take(m_pass.task, m_pass.passId));
        Framework::Topics::Post(kScanPassTopic, outcome);
        NoteHealth(skip, why);
    }
    PassState& Figures() { return m_pass; }

private:
    // The last pass decides: a skipped pass, or files it could not check
    // to the end, leave detection incomplete until a clean pass.
    void NoteHealth(PassSkip skip, const SDK::Status& why) const
    {
        const std::string pass = "the last pass (" + m_pass.task + ")";
        if (skip != PassSkip::None) {
            Framework::Health::Raise(kPassHealth, Framework::Health::Severity::Degraded,
                                     pass + " was skipped: " + why.message());
        } else if (m_pass.filesTimedOut + m_pass.filesFailed > 0) {
            Framework::Health::Raise(kPassHealth, Framework::Health::Severity::Degraded,
                                     pass + " could not check " +
                                         std::to_string(m_pass.filesTimedOut + m_pass.filesFailed) +
                                         " file(s) to the end (" + std::to_string(m_pass.filesTimedOut) +
                                         " timed out, " + std::to_string(m_pass.filesFailed) +
                                         " failed); they were kept for a second look");
        } else {
            Framework::Health::Clear(kPassHealth);
        }
    }

    PassState m_pass;
    PassState* m_previous;
    bool m_ended = false;
};

// The figures of the running pass, every second or every hundred files
// seen, whichever comes first, so that status shows progress.
const unsigned long kProgressIntervalMs = 1000;
const uint64_t kProgressFiles = 100;

void PublishProgress(PassState* figures = t_pass)
{
    if (figures == nullptr) {
        return;
    }
    const unsigned long now = SDK::TimeUtils::GetCurrentSystemTickUsed();
    if (figures->filesSeen - figures->publishedSeen < kProgressFiles &&
        now - figures->publishedTick < kProgressIntervalMs) {
        return;
    }
    figures->publishedTick = now;
    figures->publishedSeen = figures->filesSeen;
    Framework::StatusBoard::Publish("webshell.last_pass", RenderPass(*figures, "running", PassSkip::None, 0));
}

// Into the running pass's list of matches; nothing outside a pass.
void RecordMatch(const std::string& path, const DetectResult& result, std::string sha256, bool uploaded)
{
    PassState* pass = t_pass;
    if (pass == nullptr) {
        return;
    }
    MatchRecord record;
    record.path = path;
    record.rule = result.ruleName;
    record.certain = result.certain;
    record.keyword = result.keyWord;
    record.sha256 = sha256.empty() ? FileSha256(path) : std::move(sha256);
    record.uploaded = uploaded;
    record.layerDepth = result.layerDepth;
    (pass->sharedMatches != nullptr ? *pass->sharedMatches : pass->matches).Record(std::move(record));
}

// Off for `scan --no-upload`: no file is copied anywhere.
bool UploadsWanted()
{
    Framework::Engine* engine = Framework::Engine::GetInstance();
    return engine == nullptr || engine->config().getBool("webshell.upload", true);
}

// Whether any task said anything about the rule library yet.
std::atomic<bool> g_rulesPublished{false};

// The reason of the skipped pass last logged, so that a pass skipped again
// for the same reason is not logged again; a pass that runs resets it.
Poco::FastMutex g_skipLogMutex;
std::string g_loggedSkip;

void LogSkipOnce(Poco::Logger* logger, const std::string& task, PassSkip skip, const std::string& reason)
{
    {
        Poco::FastMutex::ScopedLock lock(g_skipLogMutex);
        if (g_loggedSkip == reason) {
            return;
        }
        g_loggedSkip = reason;
    }
    // A library still on its way is not a fault yet: the download says so
    // when it fails, and the health says nothing is checked meanwhile.
    SDK_LOG(logger, skip == PassSkip::RulesMissing ? Poco::Message::PRIO_INFORMATION : Poco::Message::PRIO_WARNING,
            kSource,
            "Scan pass of %s skipped: %s. Nothing is checked until this is fixed; said once, not at every pass.",
            task, reason);
}

void ForgetSkip()
{
    Poco::FastMutex::ScopedLock lock(g_skipLogMutex);
    g_loggedSkip.clear();
}

void PublishRules(const std::string& path, const char* state, const std::string& loaded,
                  const std::string& loadedHash, const std::string& wanted, const std::string& hash,
                  const std::string& url)
{
    Json::Value v(Json::objectValue);
    v["path"] = path;
    v["state"] = state;
    v["loaded_version"] = loaded;
    v["loaded_hash"] = loadedHash;
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
    } else if (type == S_IFDIR || type == S_IFREG) {
        // A file named as a scan path is checked alone.
        pathSet.insert(path);
    }
}

// Directories a walk keeps open at once. Deeper directories are parked
// (their remaining entries read into memory, the descriptor closed) and
// reopened when the walk comes back to them, so a tree thousands of levels
// deep costs neither thousands of descriptors nor a stack frame per level.
const size_t kMaxOpenDirs = 32;
const int kDirFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY;

struct FileId {
    dev_t dev;
    ino_t ino;
    bool operator==(const FileId& other) const { return dev == other.dev && ino == other.ino; }
};

// For a file without a certain match of its own: scans each layer the
// decoder uncovers. A certain match on a layer replaces `result` and ends
// decoding; an uncertain one is kept only when nothing matched before.
// `failure` names the first layer the rules could not finish ("" when all
// did); `timedOut` is set when that was the time limit.
void ScanDecodedLayers(SDK::YaraUtils& yara, Poco::Logger* logger, const std::string& content,
                       const SDK::ScanContext& fileContext, DetectResult& result, std::string& failure,
                       bool& timedOut)
{
    LayerDecoder decoder;
    const ScriptDialect dialect = fileContext.filetype == "ASP" ? ScriptDialect::Basic : ScriptDialect::CLike;
    const DecodeEnd end = decoder.Decode(content, dialect, [&](const DecodedLayer& layer) {
        SDK::ScanContext context = fileContext;
        context.layerDepth = layer.depth;
        context.Measure(layer.data.data(), layer.data.size());
        DetectResult found;
        found.certainMinScore = result.certainMinScore;
        if (!yara.CheckBuffer(layer.data.data(), layer.data.size(), &found, kScanTimeoutS, context)) {
            if (failure.empty()) {
                failure = yara.LastError();
                timedOut = yara.TimedOut();
            }
            return true;
        }
        if (!found.matched || (result.matched && !found.certain)) {
            return true;
        }
        found.layerDepth = layer.depth;
        result = found;
        return !found.certain;
    });
    if (end != DecodeEnd::Complete && end != DecodeEnd::Stopped) {
        SDK_LOG(logger, Poco::Message::PRIO_INFORMATION, kSource,
                "Decoding stopped at the %s, path(%s): %lu layer(s) scanned.", std::string(DecodeEndText(end)),
                fileContext.filepath, static_cast<unsigned long>(decoder.LayerCount()));
    }
}

struct FileIdHash {
    size_t operator()(const FileId& id) const noexcept
    {
        return std::hash<uint64_t>()(static_cast<uint64_t>(id.ino) * 0x9E3779B97F4A7C15ull ^
                                     static_cast<uint64_t>(id.dev));
    }
};

FileId IdOf(const struct stat& st)
{
    return FileId{st.st_dev, st.st_ino};
}

// One directory on the current descent.
struct DirFrame {
    FileId id{};
    std::string::size_type pathLength = 0;  // its path is the walk's path cut here
    std::string name;                       // its name in the parent frame
    SDK::UniqueDir stream;                  // while it streams its entries
    SDK::UniqueFd fd;                       // after it was parked and reopened
    std::vector<std::string> parked;        // entries read out when parked
    size_t next = 0;                        // next of `parked`
    bool warnedSearch = false;

    bool IsOpen() const { return stream.Valid() || fd.Valid(); }
    int Fd() const { return stream.Valid() ? dirfd(stream.Get()) : fd.Get(); }
};

bool IsDotOrDotDot(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// Reads what is left of the stream into `parked` and closes the directory.
void Park(DirFrame& frame)
{
    if (frame.stream.Valid()) {
        while (struct dirent* entry = readdir(frame.stream.Get())) {
            if (!IsDotOrDotDot(entry->d_name)) {
                frame.parked.emplace_back(entry->d_name);
            }
        }
        frame.stream.Reset();
    }
    frame.fd.Reset();
}

// The installation directory the library path was made from.
std::string InstallDirOf(const std::string& libPath)
{
    const size_t length = strlen(kLibRelativePath);
    return libPath.size() >= length ? libPath.substr(0, libPath.size() - length) : std::string();
}

// A directory opened as `fd` whose identity must be `id`.
bool HasId(int fd, const FileId& id)
{
    struct stat st;
    return fd >= 0 && fstat(fd, &st) == 0 && IdOf(st) == id;
}

}  // namespace

// What one pass has walked and checked, shared by every walk of the pass
// (host roots and container paths alike). Directories are entered once by
// identity, which also keeps a walk out of its own ancestors; files are
// checked once by identity, so a link or a hard link to a file already
// checked adds nothing (files the suffix filter skips are not recorded).
struct WalkState {
    std::unordered_set<FileId, FileIdHash> dirs;
    std::unordered_set<FileId, FileIdHash> files;
    // A threaded pass: files go to the scanning threads, with the walk's
    // container (blank for the host).
    ScanWorkers* workers = nullptr;
    std::shared_ptr<const ContainerCacheInfo> cache;
};

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
        PublishRules(m_webshellLibPath, "none", "", "", "", "", "");
    }
    for (unsigned int kind : kAssetKinds) {
        SendDirectMsg(kMsgSyncTask, new AssetRegisterMessage(kind, this));
    }
    ContainerWebshellScanInit();
    // A library that arrives is loaded at once, not at the next pass.
    Framework::Topics::Subscribe(kDownloadTopic, GetMailbox());
    return Framework::Task::Init();
}

int ScanWebshellTask::UnInit()
{
    Framework::Topics::Unsubscribe(kDownloadTopic, GetMailbox());
    ContainerWebshellScanUnInit();
    // Watches end with the task: once monitoring is switched off or the
    // feature disabled, nothing is held on its behalf.
    for (const auto& dir : m_monitorDirSet) {
        SendFileNotifyWatchMessage(dir, kWatchDelete, 0);
    }
    m_monitorDirSet.clear();
    for (unsigned int kind : kAssetKinds) {
        SendDirectMsg(kMsgSyncTask, new AssetUnRegisterMessage(kind, this));
    }
    return Framework::Task::UnInit();
}

int ScanWebshellTask::InterceptMsg(std::shared_ptr<Framework::Message>& msg)
{
    const auto* download = dynamic_cast<const DownloadMessage*>(msg.get());
    if (download == nullptr) {
        return 0;
    }
    if (download->ok && download->target == m_webshellLibPath) {
        OnRulesArrived();
    }
    return 1;
}

void ScanWebshellTask::OnRulesArrived()
{
    PrepareRules();
}

void ScanWebshellTask::PrepareRules()
{
    DetectWebshellPolicy* policy = GetDetectPolicy();
    if (policy != nullptr) {
        CheckLocalWebshellLib(policy->GetLibVersion(), policy->GetLibUrl(), policy->GetLibHash());
    }
}

void ScanWebshellTask::ReceiveMsg()
{
    while (!IsCancelling()) {
        GetEventWaiter().WaitAndHandleEvent(1000, 128);
        if (m_watchRetryDelayMs != 0 && SDK::TimeUtils::GetCurrentSystemTickUsed() >= m_watchRetryAtMs) {
            RegisterFileMonitorMessage();
        }
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
        return SDK::Status::Error(m_rulesProblem);
    }
    skip = PassSkip::None;
    return SDK::Status::Ok();
}

// One rule library for all the module's tasks: compiled once and shared by
// their scanners, so every task detects with the same rules and status
// says which. The rules in force change only when a library compiled:
// until then the ones loaded before keep detecting.
struct ScanWebshellTask::SharedRules {
    Poco::FastMutex mutex;
    SDK::YaraUtils yara{&ScanWebshellTask::Callback};
    std::string path;     // the library file these rules are for
    std::string version;  // of the rules in force ("" none)
    std::string hash;
    std::string failedLib;  // version and digest of a library that did not load
    std::string failedReason;
    uint64_t generation = 0;  // bumped whenever the rules in force change
};

ScanWebshellTask::SharedRules& ScanWebshellTask::Library()
{
    static SharedRules rules;
    return rules;
}

// Under the library's lock.
void ScanWebshellTask::AdoptRulesLocked(SharedRules& shared)
{
    if (m_rulesGeneration == shared.generation) {
        return;
    }
    if (shared.yara.HasRules()) {
        if (!m_yara.ShareRulesOf(shared.yara)) {
            SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource, "Task %s cannot use the rules of version %s: %s.",
                    GetTaskName(), shared.version, m_yara.LastError());
            return;
        }
    } else {
        m_yara.CleanUsedRules();
    }
    m_rulesGeneration = shared.generation;
    m_loadedLibVersion = shared.version;
    m_loadedLibHash = shared.hash;
}

void ScanWebshellTask::SyncRules()
{
    SharedRules& shared = Library();
    Poco::FastMutex::ScopedLock lock(shared.mutex);
    if (shared.path == m_webshellLibPath) {
        AdoptRulesLocked(shared);
    }
}

// Health says what is missing: failing without any rules, degraded while
// older ones stand in.
bool ScanWebshellTask::CheckLocalWebshellLib(const std::string& libVersion, const std::string& libUrl,
                                             const std::string& libHash, PassSkip* why)
{
    SharedRules& shared = Library();
    Poco::FastMutex::ScopedLock lock(shared.mutex);
    if (shared.path != m_webshellLibPath) {
        // Another installation (tests run several in one process): its own library.
        shared.yara.CleanUsedRules();
        shared.path = m_webshellLibPath;
        shared.version.clear();
        shared.hash.clear();
        shared.failedLib.clear();
        ++shared.generation;
    }
    AdoptRulesLocked(shared);
    auto publish = [&](const char* state) {
        PublishRules(m_webshellLibPath, state, shared.version, shared.hash, libVersion, libHash, libUrl);
    };
    // The library of the policy is not usable: old rules, if any, stay.
    auto without = [&](PassSkip skip, const std::string& problem) {
        if (m_yara.HasRules()) {
            m_rulesProblem.clear();
            Framework::Health::Raise(kRulesHealth, Framework::Health::Severity::Degraded,
                                     problem + "; the rules of version " + m_loadedLibVersion + " stay in force");
            return true;
        }
        m_rulesProblem = problem;
        Framework::Health::Raise(kRulesHealth, Framework::Health::Severity::Failing, "no rules loaded: " + problem);
        if (why != nullptr) {
            *why = skip;
        }
        return false;
    };
    auto inForce = [&]() {
        publish("loaded");
        m_rulesProblem.clear();
        Framework::Health::Clear(kRulesHealth);
        return true;
    };

    bool flag = true;
    std::string digest;
    const int hashResult = SDK::FileUtils::GetFileSha256(m_webshellLibPath, flag, digest, kNoHashLimit);
    if (hashResult == -1 || digest != libHash) {
        const bool missing = hashResult == -1;
        publish(missing ? "missing" : "hash_mismatch");
        SendFileDownloadMsg(m_webshellLibPath, libUrl, libHash);
        return without(missing ? PassSkip::RulesMissing : PassSkip::RulesMismatch,
                       "the rule library " + m_webshellLibPath +
                           (missing ? " is missing" : " does not match the policy's lib_hash") + " (version " +
                           libVersion + " asked for from " + libUrl + ")");
    }
    if (libVersion == shared.version && m_yara.HasRules()) {
        return inForce();
    }
    // A library that failed is not compiled again (nor logged again) until
    // the policy or the file changes.
    const std::string attempt = libVersion + " " + digest;
    if (attempt != shared.failedLib) {
        if (shared.yara.LoadRuleFromFile(m_webshellLibPath)) {
            shared.failedLib.clear();
            shared.version = libVersion;
            shared.hash = digest;
            ++shared.generation;
            AdoptRulesLocked(shared);
            SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "Rule library version %s loaded from %s.",
                    libVersion, m_webshellLibPath);
            return inForce();
        }
        shared.failedLib = attempt;
        shared.failedReason = shared.yara.LastError();
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource, "Rule library version %s (%s) not loaded: %s; %s.",
                libVersion, m_webshellLibPath, shared.failedReason,
                m_yara.HasRules() ? "the rules of version " + m_loadedLibVersion + " stay in force"
                                  : std::string("no rules are loaded, nothing is checked"));
    }
    publish("load_failed");
    return without(PassSkip::RulesUnloadable, "the rule library " + m_webshellLibPath + " (version " + libVersion +
                                                  ") cannot be loaded: " + shared.failedReason);
}

void ScanWebshellTask::SendFileDownloadMsg(const std::string& path, const std::string& url,
                                           const std::string& sha256)
{
    // The report service installs the file only when it has this digest.
    SendDirectMsg(kFileCommReportTask,
                  new Framework::FileMessage(Framework::FileMessage::DOWNLOAD, path, sha256, url));
    // Every task asks; the report service coalesces the requests and logs
    // the download itself once.
    SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "Download file, url(%s).", url);
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

namespace {

// The threads of a threaded pass, each with a scanner of its own over the
// task's rules; null for a pass the walking thread scans alone.
std::unique_ptr<ScanWorkers> StartScanThreads(ScanWebshellTask& task, const SDK::YaraUtils& rules,
                                              PassState& figures, Poco::Logger* logger)
{
    const int wanted = ScanThreadsWanted();
    if (wanted < 1 || !rules.HasRules()) {
        return nullptr;
    }
    auto scanners = std::make_shared<std::vector<std::unique_ptr<SDK::YaraUtils>>>();
    for (int i = 0; i < wanted; ++i) {
        auto scanner = std::make_unique<SDK::YaraUtils>(&ScanWebshellTask::Callback);
        if (!scanner->ShareRulesOf(rules)) {
            SDK_LOG(logger, Poco::Message::PRIO_WARNING, kSource,
                    "Pass of %s runs %d scanning thread(s) instead of %d: %s.", task.GetTaskName(), i, wanted,
                    scanner->LastError());
            break;
        }
        scanners->push_back(std::move(scanner));
    }
    if (scanners->empty()) {
        return nullptr;
    }
    auto body = [&task, &figures, scanners](std::size_t index, const ScanWorkers::Next& next) {
        PassState local;
        local.sharedMatches = &figures.matches;
        t_pass = &local;
        t_scanner = (*scanners)[index].get();
        ScanJob job;
        while (next(job)) {
            task.ScanFromFile(job.path, *job.cache, job.fd.Get(), job.named, job.read ? &job.ahead : nullptr);
            job.fd.Reset();
            job.ahead.content.clear();
            Poco::FastMutex::ScopedLock lock(ScanFiguresMutex());
            AddFigures(figures, local);
            static_cast<PassFigures&>(local) = PassFigures();
            PublishProgress(&figures);
        }
        t_scanner = nullptr;
        t_pass = nullptr;
    };
    auto workers = std::make_unique<ScanWorkers>(
        scanners->size(), std::min(kQueuedPerThread * scanners->size(), kMaxQueued), kReadAheadBytes, body);
    if (workers->Started() < scanners->size()) {
        SDK_LOG(logger, Poco::Message::PRIO_WARNING, kSource,
                "Pass of %s runs %lu scanning thread(s) instead of %lu: no more threads could be started.",
                task.GetTaskName(), static_cast<unsigned long>(workers->Started()),
                static_cast<unsigned long>(scanners->size()));
    }
    if (workers->Started() == 0) {
        return nullptr;
    }
    return workers;
}

}  // namespace

void ScanWebshellTask::Check()
{
    PassScope pass(GetTaskName());
    PassSkip skip = PassSkip::None;
    const SDK::Status prepared = PreparePolicy(skip);
    if (!prepared) {
        LogSkipOnce(m_logger, GetTaskName(), skip, prepared.message());
        pass.End(skip, prepared);
        return;
    }
    ForgetSkip();
    AllowList::ForInstall(InstallDirOf(m_webshellLibPath)).Refresh();
    SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "Webshell task check OS web directory. ");
    for (const auto& root : m_scanPathSet) {
        pass.Figures().roots.append(root);
    }

    WalkState walk;
    std::unique_ptr<ScanWorkers> workers = StartScanThreads(*this, m_yara, pass.Figures(), m_logger);
    walk.workers = workers.get();
    walk.cache = std::make_shared<const ContainerCacheInfo>();
    PassState* const walkerFigures = t_pass;
    if (workers != nullptr) {
        t_pass = nullptr;  // the scanning threads count and publish the figures
    }
    // Every file queued is checked (or dropped, when cancelled) and the
    // figures are whole before the pass ends: `pass` outlives this.
    struct Join {
        std::unique_ptr<ScanWorkers>& workers;
        ScanWebshellTask& task;
        PassState* figures;
        ~Join()
        {
            if (workers != nullptr) {
                if (task.IsCancelling()) {
                    workers->Abandon();
                }
                workers->Finish();
            }
            t_pass = figures;
        }
    } join{workers, *this, walkerFigures};
    for (const auto& path : m_scanPathSet) {
        if (IsCancelling()) {
            break;
        }
        WEBSHELL_THROTTLE_POINT(kSource, GetTaskName());
        if (!path.empty()) {
            ContainerCacheInfo blank;
            struct stat st;
            if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
                SDK::UniqueFd fd;
                if (!walk.files.insert(IdOf(st)).second) {
                    // checked already under another name
                } else if (walk.workers != nullptr && SDK::OpenRegularFile(path, false, fd).ok()) {
                    walk.workers->Push(ScanJob(path, std::move(fd), walk.cache, true));
                } else {
                    ScanFromFile(path, blank, -1, true);
                }
            } else {
                ScanFromDir(path, walk, blank);
            }
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
            {
                Poco::FastMutex::ScopedLock lock(ScanFiguresMutex());
                pass.Figures().roots.append(path);
            }
            walk.cache = std::make_shared<const ContainerCacheInfo>(entry.second);
            ScanFromDir(path, walk, entry.second);
        }
    }
}

void ScanWebshellTask::ScanFromDir(const std::string& dir, WalkState& walk, const ContainerCacheInfo& cache)
{
    WEBSHELL_THROTTLE_POINT(kSource, GetTaskName());
    SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "ScanFromDir, path(%s), index(%lu)", dir, cache.index);
    if (dir.empty()) {
        return;
    }
    SDK::UniqueFd fd(open(dir.c_str(), kDirFlags));
    if (!fd.Valid()) {
        WarnUnreadableDir(dir, SDK::ErrnoText(errno));
        return;
    }
    WalkTree(fd.Release(), dir, walk, cache);
}

void ScanWebshellTask::WarnUnreadableDir(const std::string& path, const std::string& reason)
{
    SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
            "Cannot read directory %s (%s); the files under it are not checked.", path, reason);
}

// Depth first over an explicit stack of directories. `path` is always the
// path of the deepest frame; a child's path is that plus "/" and its name
// (the separator is always added: a root ending in "/" gives "//").
void ScanWebshellTask::WalkTree(int rootFd, const std::string& root, WalkState& walk,
                                const ContainerCacheInfo& cache)
{
    std::vector<DirFrame> stack;
    std::string path = root;
    size_t firstOpen = 0;  // frames below this index are parked

    // Enters the directory `fd` (`name` in the deepest frame, or the root).
    auto push = [&](SDK::UniqueFd fd, const std::string& name) {
        struct stat st;
        if (fstat(fd.Get(), &st) != 0) {
            WarnUnreadableDir(path, SDK::ErrnoText(errno));
            return false;
        }
        if (!walk.dirs.insert(IdOf(st)).second) {
            SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "Directory %s was walked before in this pass.",
                    path);
            return false;
        }
        DIR* stream = fdopendir(fd.Get());
        if (stream == nullptr) {
            WarnUnreadableDir(path, SDK::ErrnoText(errno));
            return false;
        }
        fd.Release();
        if (stack.size() - firstOpen >= kMaxOpenDirs) {
            Park(stack[firstOpen++]);
        }
        DirFrame frame;
        frame.id = IdOf(st);
        frame.pathLength = path.size();
        frame.name = name;
        frame.stream.Reset(stream);
        stack.push_back(std::move(frame));
        return true;
    };

    // Gives the deepest frame its descriptor back after it was parked:
    // ".." of the child just left (the parent, unless the child was reached
    // through a link), else down from the root by the recorded names.
    auto reopen = [&](int childFd) {
        DirFrame& frame = stack.back();
        SDK::UniqueFd fd(childFd >= 0 ? openat(childFd, "..", kDirFlags) : -1);
        if (!HasId(fd.Get(), frame.id)) {
            fd.Reset(open(root.c_str(), kDirFlags));
            for (size_t i = 1; i < stack.size() && HasId(fd.Get(), stack[i - 1].id); ++i) {
                fd.Reset(openat(fd.Get(), stack[i].name.c_str(), kDirFlags));
            }
        }
        if (!HasId(fd.Get(), frame.id)) {
            SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                    "Directory %s changed while it was being scanned; the rest of it is not checked.",
                    path.substr(0, frame.pathLength));
            return false;
        }
        frame.fd = std::move(fd);
        firstOpen = stack.size() - 1;
        return true;
    };

    auto pop = [&]() {
        SDK::UniqueFd childFd;
        if (stack.back().stream.Valid()) {
            childFd.Reset(dup(stack.back().Fd()));
        } else {
            childFd = std::move(stack.back().fd);
        }
        stack.pop_back();
        while (!stack.empty()) {
            path.resize(stack.back().pathLength);
            if (stack.back().IsOpen() || reopen(childFd.Get())) {
                return;
            }
            childFd.Reset();
            stack.pop_back();
        }
    };

    if (!push(SDK::UniqueFd(rootFd), std::string())) {
        return;
    }
    while (!stack.empty()) {
        if (IsCancelling()) {
            return;
        }
        DirFrame& top = stack.back();
        std::string name;
        if (top.stream.Valid()) {
            errno = 0;
            struct dirent* entry = readdir(top.stream.Get());
            if (entry == nullptr) {
                if (errno != 0) {
                    WarnUnreadableDir(path, SDK::ErrnoText(errno));
                }
                pop();
                continue;
            }
            if (IsDotOrDotDot(entry->d_name)) {
                continue;
            }
            name = entry->d_name;
        } else if (top.next < top.parked.size()) {
            name = std::move(top.parked[top.next++]);
        } else {
            pop();
            continue;
        }
        WEBSHELL_THROTTLE_POINT(kSource, GetTaskName());
        PublishProgress();
        const std::string child = path + "/" + name;
        // The type comes from stat (links followed), never from d_type.
        struct stat st;
        memset(&st, 0, sizeof(st));
        if (fstatat(top.Fd(), name.c_str(), &st, 0) != 0) {
            if (errno == EACCES && !top.warnedSearch) {
                top.warnedSearch = true;
                WarnUnreadableDir(path, SDK::ErrnoText(EACCES));
            }
            SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "ScanFromDir stat failed: file(%s), index(%lu)",
                    child, cache.index);
            continue;
        }
        switch (st.st_mode & S_IFMT) {
        case S_IFDIR: {
            WEBSHELL_THROTTLE_POINT(kSource, GetTaskName());
            SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "ScanFromDir, path(%s), index(%lu)", child,
                    cache.index);
            if (walk.dirs.count(IdOf(st)) != 0) {
                SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource,
                        "Directory %s was walked before in this pass.", child);
                break;
            }
            SDK::UniqueFd fd(openat(top.Fd(), name.c_str(), kDirFlags));
            if (!fd.Valid()) {
                // Once per pass: the directory counts as walked.
                walk.dirs.insert(IdOf(st));
                WarnUnreadableDir(child, SDK::ErrnoText(errno));
                break;
            }
            const std::string::size_type parentLength = path.size();
            path = child;
            if (!push(std::move(fd), name)) {
                path.resize(parentLength);
            }
            break;
        }
        case S_IFLNK:
            ScanFromLink(child, walk, cache);
            break;
        case S_IFREG:
            CheckWalkedFile(top.Fd(), name, child, walk, cache);
            break;
        default:
            SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "ScanFromDir stat check file %s Unknown", child);
            break;
        }
    }
}

void ScanWebshellTask::CheckWalkedFile(int dirFd, const std::string& name, const std::string& path,
                                       WalkState& walk, const ContainerCacheInfo& cache)
{
    SDK::UniqueFd fd;
    const SDK::ReadResult opened = SDK::OpenRegularFileAt(dirFd, name, false, fd);
    if (!opened.ok()) {
        if (opened.error == SDK::ReadError::NotRegular) {
            SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "ScanFromDir stat check file %s Unknown", path);
        } else if (opened.error == SDK::ReadError::Failed && CheckFileType(path)) {
            // Gone since the directory was read is no news; anything else hides the file.
            SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource, "Cannot check file %s (%s).", path,
                    opened.status.message());
        }
        return;
    }
    struct stat st;
    if (fstat(fd.Get(), &st) != 0) {
        return;
    }
    if (CheckFileType(path) && !walk.files.insert(IdOf(st)).second) {
        SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "File %s was checked under another path in this pass.",
                path);
        return;
    }
    if (walk.workers != nullptr) {
        ScanJob job(path, std::move(fd), walk.cache);
        if (WillRead(path, st) && walk.workers->MayReadAhead(static_cast<std::size_t>(st.st_size))) {
            // A file that cannot be read here goes unread: its thread
            // tries again and says why.
            job.ahead.st = st;
            job.read = SDK::ReadAll(job.fd.Get(), kDecodeFileLimit, job.ahead.content, path).ok();
            if (!job.read) {
                job.ahead.content.clear();
                lseek(job.fd.Get(), 0, SEEK_SET);
            }
        }
        walk.workers->Push(std::move(job));
        return;
    }
    ScanFromFile(path, cache, fd.Get());
}

// The walk never calls this (the type comes from stat, which follows
// links); a caller holding a link path gets the walk's treatment of it.
void ScanWebshellTask::ScanFromLink(const std::string& link, WalkState& walk, const ContainerCacheInfo& cache)
{
    struct stat st;
    memset(&st, 0, sizeof(st));
    if (stat(link.c_str(), &st) != 0) {
        return;
    }
    if (S_ISDIR(st.st_mode)) {
        ScanFromDir(link, walk, cache);
    } else if (S_ISREG(st.st_mode)) {
        CheckWalkedFile(AT_FDCWD, link, link, walk, cache);
    }
}

// Whether ScanFromFile reads this file whole: the checks it makes first.
bool ScanWebshellTask::WillRead(const std::string& path, const struct stat& st)
{
    DetectWebshellPolicy* policy = GetDetectPolicy();
    const auto size = static_cast<uint64_t>(st.st_size);
    return size <= kDecodeFileLimit && CheckFileType(path) &&
           (policy == nullptr || policy->GetMaxFileSize() < 1 ||
            size <= static_cast<uint64_t>(policy->GetMaxFileSize()));
}

void ScanWebshellTask::ScanFromFile(const std::string& path, const ContainerCacheInfo& cache, int fd, bool named,
                                    ReadAhead* readAhead)
{
    if (path.empty()) {
        return;
    }
    struct stat st;
    memset(&st, 0, sizeof(st));
    if (readAhead != nullptr) {
        st = readAhead->st;
    } else if ((fd >= 0 ? fstat(fd, &st) : stat(path.c_str(), &st)) != 0) {
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
    // A file the operator named is checked whatever its suffix.
    if (!named && !CheckFileType(path)) {
        return;
    }
    SDK::YaraUtils& yara = t_scanner != nullptr ? *t_scanner : m_yara;
    if (!yara.HasRules()) {
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource, "File %s not checked: no rules are loaded yet.",
                path);
        return;
    }
    DetectResult result;
    if (policy != nullptr) {
        result.certainMinScore = policy->GetCertainMinScore();
    }
    // The file is read once: scanned as it is, then, without a certain
    // match, layer by layer as the decoder uncovers them.
    std::string content;
    bool scanned = false;
    std::string failure;
    SDK::ScanContext context = SDK::ScanContext::ForPath(path);
    // A walk hands the file already opened relative to its directory, so
    // paths longer than PATH_MAX are read too.
    if (readAhead == nullptr && static_cast<uint64_t>(st.st_size) > kDecodeFileLimit) {
        scanned = fd >= 0 ? yara.CheckFd(fd, path, &result, kScanTimeoutS)
                          : yara.CheckFile(path, &result, kScanTimeoutS);
    } else {
        SDK::ReadResult read;
        if (readAhead != nullptr) {
            content.swap(readAhead->content);
        } else {
            read = fd >= 0 ? SDK::ReadAll(fd, kDecodeFileLimit, content, path)
                           : SDK::ReadRegularFile(path, kDecodeFileLimit, content);
        }
        if (read.ok()) {
            context.Measure(content.data(), content.size());
            scanned = yara.CheckBuffer(content.data(), content.size(), &result, kScanTimeoutS, context);
            if (yara.OverMatchBudget()) {
                SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                        "File %s has more string matches than are kept; checked with one match per string "
                        "(same rules, the keyword is the first match).",
                        path);
            }
        } else if (read.error == SDK::ReadError::Missing) {
            // Gone since it was named: nothing left to check.
            SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "File %s is gone: %s.", path,
                    read.status.message());
            return;
        } else if (read.error == SDK::ReadError::NotRegular) {
            // A FIFO or device named like a page: never read, never kept.
            SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource, "Check file failed, path(%s).", path);
            return;
        } else {
            failure = "cannot read it: " + read.status.message();
        }
    }
    bool timedOut = !scanned && yara.TimedOut();
    if (!scanned && failure.empty()) {
        failure = yara.LastError();
    }
    if (scanned && !result.certain && !content.empty()) {
        std::string layerFailure;
        ScanDecodedLayers(yara, m_logger, content, context, result, layerFailure, timedOut);
        // A layer the rules could not finish may hide what the file is.
        if (!result.certain && !layerFailure.empty()) {
            scanned = false;
            failure = layerFailure;
        }
    }
    Poco::FastMutex::ScopedLock reporting(ReportingMutex());
    if (!scanned) {
        // Not known to be clean: said, counted apart and kept like a
        // suspicious file, so padding or match explosions hide nothing.
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                "File %s not checked to the end (%s); kept for a second look within the upload quota.", path,
                failure);
        if (figures != nullptr) {
            ++(timedOut ? figures->filesTimedOut : figures->filesFailed);
        }
        SendFileUploadMsg(path);
        return;
    }
    if (figures != nullptr) {
        ++figures->filesChecked;
        figures->bytesChecked += static_cast<uint64_t>(st.st_size);
    }
    if (!result.matched) {
        return;
    }
    // The content that matched, hashed once and only when needed.
    const bool readWhole = readAhead != nullptr || static_cast<uint64_t>(st.st_size) <= kDecodeFileLimit;
    const std::function<const std::string&()> digest = [&]() -> const std::string& {
        if (result.sha256.empty()) {
            result.sha256 = readWhole ? Sha256Of(content) : fd >= 0 ? Sha256OfFd(fd) : std::string();
        }
        return result.sha256;
    };
    const std::string install = InstallDirOf(m_webshellLibPath);
    if (policy != nullptr && AllowMatch(install, policy->GetAllow(), path, result.ruleName, digest)) {
        if (figures != nullptr) {
            ++figures->filesMatched;
            ++figures->allowed;
        }
        return;
    }
    if (figures != nullptr) {
        ++figures->filesMatched;
        ++(result.certain ? figures->certain : figures->uncertain);
    }
    // Only a certain match is an event; anything else deserves a second look.
    if (!result.certain) {
        const bool uploaded = SendFileUploadMsg(path);
        RecordMatch(path, result, result.sha256, uploaded);
        return;
    }
    if (policy != nullptr && policy->IsQuarantineCertain()) {
        std::vector<std::string> roots(cache.scanPathList.begin(), cache.scanPathList.end());
        if (roots.empty()) {
            Poco::FastMutex::ScopedLock lock(m_scanPathMutex);
            roots.assign(m_scanPathSet.begin(), m_scanPathSet.end());
        }
        QuarantineMatch(install, path, st, roots, result, digest);
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
//
// Which match counts: certain beats uncertain, and among equals the first
// in library order. A certain match ends the scan at once; after an
// uncertain one the scan goes on, so a suspicious rule early in the library
// cannot hide a certain one further down.
__attribute__((no_sanitize("alignment")))
int ScanWebshellTask::Callback(void* context, int message, void* messageData, void* userData)
{
    if (message != CALLBACK_MSG_RULE_MATCHING) {
        return CALLBACK_CONTINUE;
    }
    auto* result = static_cast<DetectResult*>(userData);
    const bool first = !result->matched;
    result->matched = true;
    if (messageData == nullptr) {
        return CALLBACK_ERROR;
    }
    auto* rule = static_cast<YR_RULE*>(messageData);

    // The first tag that fits decides; later tags are not looked at.
    bool certain = false;
    bool extraPhp = false;
    bool extraJsp = false;
    const char* tag = nullptr;
    yr_rule_tags_foreach(rule, tag)
    {
        if (strncmp(tag, "certain", 7) == 0) {
            certain = true;
            break;
        }
        if (strncmp(tag, "extra_php", 9) == 0) {
            extraPhp = true;
            break;
        }
        if (strncmp(tag, "extra_jsp", 9) == 0) {
            extraJsp = true;
            break;
        }
    }
    // The first "score" and the first "description" decide.
    std::optional<int64_t> score;
    bool scoreSeen = false;
    const char* description = nullptr;
    YR_META* meta = nullptr;
    yr_rule_metas_foreach(rule, meta)
    {
        if (strcmp(meta->identifier, "score") == 0) {
            if (!scoreSeen && meta->type == META_TYPE_INTEGER) {
                score = meta->integer;
            }
            scoreSeen = true;
        } else if (strcmp(meta->identifier, "description") == 0 && description == nullptr &&
                   meta->type == META_TYPE_STRING) {
            description = meta->string;
        }
    }
    // Public rule sets mark confidence by score, not by our tags.
    if (!certain && !extraPhp && !extraJsp && result->certainMinScore && score && *score >= *result->certainMinScore) {
        certain = true;
    }
    if (!certain && !first) {
        return CALLBACK_CONTINUE;  // an earlier match stays
    }
    result->certain = certain;
    result->extraPhp = extraPhp;
    result->extraJsp = extraJsp;
    result->score = score;
    result->description = description != nullptr ? description : "";
    result->ruleName = rule->identifier;
    result->keyWord.clear();

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
    return certain ? CALLBACK_ABORT : CALLBACK_CONTINUE;
}

// --------------------------------------------------------------- reporting

void ScanWebshellTask::SendDetectResultMsg(const std::string& filePath, const DetectResult& result,
                                           const ContainerInfo& container)
{
    const Json::Value event = BuildWebshellEvent(
        WebshellEventFacts{filePath, result, container, SDK::TimeUtils::GetCurrentTimestampMS()},
        EventHost::Current());
    const Json::Value& file = event["file_info"].isArray() ? event["file_info"][0] : event["file_info"];
    RecordMatch(filePath, result, file.get("file_sha256", "").asString(), false);
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

bool ScanWebshellTask::SendFileUploadMsg(const std::string& path)
{
    if (!UploadsWanted()) {
        return false;
    }
    if (path.size() > kMaxUploadPathLength) {
        // The file-report service takes no longer path; a deep path must not
        // hide a suspicious file, so it is said.
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                "Suspicious file %s not kept: its path is longer than %z bytes.", path, kMaxUploadPathLength);
        return false;
    }
    WebshellFileUploadRecorder& recorder = WebshellFileUploadRecorder::GetInstance();
    if (!recorder.CheckUploadWebshellFile(path)) {
        // Refused as kept already today, or for the quota: only the quota is news.
        if (recorder.GetUploadFileCount() > m_uploadFileCountPerDay) {
            NoteOverQuota(m_logger, path, m_uploadFileCountPerDay);
        }
        return false;
    }
    // Recorded before it is sent: the service may report the outcome (and
    // give the unit back) before this thread goes on.
    const int count = recorder.GetUploadFileCount();
    recorder.AddUploadedWebshellFile(path);
    SendDirectMsg(kFileCommReportTask,
                  new Framework::FileMessage(Framework::FileMessage::UPLOAD, path, "webshell", ""));
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "Upload file, file path(%s), count(%d).", path,
            count);
    if (t_pass != nullptr) {
        ++t_pass->uploads;
    }
    return true;
}

// ----------------------------------------------------------------- watches

void ScanWebshellTask::RegisterFileMonitorMessage()
{
    if (!ParsePolicyContent()) {
        if (GetDetectPolicy() != nullptr) {
            const unsigned long kFirstRetryMs = 500;
            const unsigned long kLastRetryMs = 30000;
            m_watchRetryDelayMs =
                m_watchRetryDelayMs == 0 ? kFirstRetryMs : std::min(m_watchRetryDelayMs * 2, kLastRetryMs);
            m_watchRetryAtMs = SDK::TimeUtils::GetCurrentSystemTickUsed() + m_watchRetryDelayMs;
        }
        return;
    }
    m_watchRetryDelayMs = 0;
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
    // A file scan path is checked by every pass; only directories can be watched.
    std::set<std::string> dirs;
    for (const auto& path : m_scanPathSet) {
        struct stat st;
        if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            dirs.insert(path);
        }
    }
    if (!m_monitorDirSet.empty()) {
        for (const auto& dir : dirs) {
            if (m_monitorDirSet.count(dir) == 0) {
                changes.insert(std::make_pair(dir, std::string(kWatchAdd)));
            }
        }
        for (const auto& dir : m_monitorDirSet) {
            if (dirs.count(dir) == 0) {
                changes.insert(std::make_pair(dir, std::string(kWatchDelete)));
            }
        }
    } else {
        for (const auto& dir : dirs) {
            changes.insert(std::make_pair(dir, std::string(kWatchAdd)));
        }
    }
    // What was requested, not what the file-notify service confirmed.
    m_monitorDirSet = dirs;
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
    SyncRules();
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

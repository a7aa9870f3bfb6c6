#pragma once
// The scan tasks of the web-shell module.
//
//   AutoScanWebshellTask          "auto_scan_wehshell_task"           type 1: a full pass per schedule fire
//   OnceScanWebshellTask          "once_scan_webshell_task"           type 3: a full pass when the user asks
//   DetectFileChangeWebshellTask  "detect_file_change_wehshell_task"  type 4: file notifications and containers
//
// The misspelt names are matched literally by the framework and the policy.
//
// Threads: each registered task handles its messages on its own thread; the
// once task runs on the thread that delivered the tasklet. Locks, never
// nested: m_scanPathMutex (rebuild of the scan directory set),
// m_reportHistoryMutex (duplicate suppression) and m_containerLock (container
// cache, also taken by other tasks copying the file-change task's cache).
// The policy, the suffix list, the rules and the watched set are used by the
// task's own thread only. The rules themselves are compiled once for all
// tasks (behind the library's own lock) and shared.

#include <sys/stat.h>

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <Poco/Logger.h>
#include <Poco/Mutex.h>
#include <Poco/RWLock.h>

#include "container/ContainerMessage.h"
#include "framework/Task.h"
#include "message/AbstractMessageReceiver.h"
#include "message/AbstructMessage.h"
#include "message/AssetMessage.h"
#include "message/Outcomes.h"
#include "sdk/Status.h"
#include "sdk/YaraUtils.h"
#include "webshell/ContainerCacheInfo.h"
#include "webshell/DetectResult.h"

namespace Engine {

struct ReadAhead;

class DetectWebshellPolicy;
class FileNotifyMessage;
// What one pass has walked and checked (ScanWebshellTask.cpp).
struct WalkState;

extern const char* const kAutoScanTaskName;        // "auto_scan_wehshell_task"
extern const char* const kOnceScanTaskName;        // "once_scan_webshell_task"
extern const char* const kFileChangeTaskName;      // "detect_file_change_wehshell_task"
extern const char* const kDetectWebshellFeature;   // "detect_webshell"

class ScanWebshellTask : public Framework::Task,
                         public AbstractMessageReceiver,
                         public AbstructMessage<ContainerMessage>::Receiver {
public:
    ScanWebshellTask(const std::string& taskName, const std::string& feature,
                     Framework::TaskCondition::TaskType type);
    ~ScanWebshellTask() override;

    // Subscribes to the asset kinds 0 and 4 and starts the container side.
    // -1 when the installation directory is unknown.
    int Init() override;
    int UnInit() override;
    int Run() override = 0;

    int FileNotifyMessageAction(Engine::FileNotifyMessage* msg) override;
    int Receive(const ContainerMessage& message) override;
    void AssetMessageAction(unsigned int kind,
                            const std::map<int, std::shared_ptr<AssetMessage::assetInfo>>& assets) override;

    // The file-change task's event loop, until the task is cancelled.
    void ReceiveMsg();
    bool GetTime(long& now);

    // Rule library and policy. PreparePolicy is ParsePolicyContent with the
    // reason of a refusal: the Status an operator reads and the typed skip.
    bool ParsePolicyContent();
    SDK::Status PreparePolicy(PassSkip& skip);
    // true while rules are in force: the policy's library, or older rules
    // standing in while it is fetched or when it does not load.
    bool CheckLocalWebshellLib(const std::string& libVersion, const std::string& libUrl,
                               const std::string& libHash, PassSkip* why = nullptr);
    // The policy's library: fetched when missing or stale, loaded when new.
    void PrepareRules();
    // A finished download of the rule library (kDownloadTopic) prepares the
    // rules on the task's own thread; the file-change task also registers
    // its watches then.
    int InterceptMsg(std::shared_ptr<Framework::Message>& msg) override;
    virtual void OnRulesArrived();
    void SendFileDownloadMsg(const std::string& path, const std::string& url, const std::string& sha256);

    // Scan directories.
    void GetScanPathSet(const std::list<std::string>& pathList, std::set<std::string>& pathSet);
    void GetWebHomePath(bool includeContainer);

    // Walk and file check. One pass walks each real directory (device and
    // inode) at most once and checks each file at most once, whatever links
    // lead to them; a directory reached through a link is walked under the
    // link's path. The walk opens everything relative to its directory, so
    // paths of any length are checked.
    void Check();
    void ScanFromDir(const std::string& dir, WalkState& walk, const ContainerCacheInfo& cache);
    void ScanFromLink(const std::string& link, WalkState& walk, const ContainerCacheInfo& cache);
    // `fd`: the file, already opened by the walk (-1: open `path`). `named`:
    // a scan path of its own, checked whatever its suffix. `readAhead`: the
    // file as the walk read it (its content is taken over), or null to read
    // it here.
    void ScanFromFile(const std::string& path, const ContainerCacheInfo& cache, int fd = -1, bool named = false,
                      ReadAhead* readAhead = nullptr);
    // Whether ScanFromFile would read this file whole.
    bool WillRead(const std::string& path, const struct stat& st);
    bool CheckFileType(const std::string& path);
    // YARA's scan callback; `userData` is the DetectResult.
    static int Callback(void* context, int message, void* messageData, void* userData);

    // Reporting.
    void SendDetectResultMsg(const std::string& filePath, const DetectResult& result,
                             const ContainerInfo& container);
    int DiscardReplicateMsg(const char* key);
    // true when the file was handed to the upload store.
    bool SendFileUploadMsg(const std::string& path);

    // Watches.
    void RegisterFileMonitorMessage();
    void UpdateMonitorDirChange(std::map<std::string, std::string>& changes);
    void SendFileNotifyWatchMessage(const std::string& path, const std::string& operation,
                                    unsigned long extParm);

    // Containers.
    void ContainerWebshellScanInit();
    void ContainerWebshellScanUnInit();
    int ProcContainerStart(const std::shared_ptr<ContainerInfo>& info,
                           const DetectWebshellPolicy* policy);
    void GeneralContainerScanPath(const std::string& rootPath, const std::list<std::string>& pathList,
                                  std::list<std::string>& result);
    bool InsertContainerCache(ContainerCacheInfo& info);
    void DeleteContainerCache(const std::string& containerId);
    bool GetContainerCache(const std::string& containerId, ContainerCacheInfo& out);
    bool GetContainerCacheFromIndex(const std::string& filePath, unsigned long index,
                                    ContainerCacheInfo& out);
    void GetContainerCacheList(std::map<std::string, ContainerCacheInfo>& out);
    void ClearContainerCache();
    void UnRegisterContainerFileNotify(const ContainerCacheInfo& info);

    // Read-only views for status and tests.
    const std::set<std::string>& GetScanPaths() const { return m_scanPathSet; }
    const std::set<std::string>& GetMonitorDirs() const { return m_monitorDirSet; }
    const std::string& GetWebshellLibPath() const { return m_webshellLibPath; }
    const std::string& GetLoadedLibVersion() const { return m_loadedLibVersion; }
    const std::vector<std::string>& GetFileTypes() const { return m_fileTypeList; }

protected:
    // The task's feature policy as the detection policy, or null.
    DetectWebshellPolicy* GetDetectPolicy();

private:
    // The module's one rule library (ScanWebshellTask.cpp); each task scans
    // it with a scanner of its own.
    struct SharedRules;
    static SharedRules& Library();
    void AdoptRulesLocked(SharedRules& shared);
    // Takes up rules another task loaded since.
    void SyncRules();

    // The walk below a root opened as `rootFd`.
    void WalkTree(int rootFd, const std::string& root, WalkState& walk, const ContainerCacheInfo& cache);
    // A regular file met by the walk: `name` relative to `dirFd`, reported as `path`.
    void CheckWalkedFile(int dirFd, const std::string& name, const std::string& path, WalkState& walk,
                         const ContainerCacheInfo& cache);
    void WarnUnreadableDir(const std::string& path, const std::string& reason);

    Poco::Logger* m_logger;
    std::string m_webshellLibPath;
    SDK::YaraUtils m_yara;
    std::string m_loadedLibVersion;
    std::string m_loadedLibHash;
    uint64_t m_rulesGeneration = 0;  // of the shared rules m_yara uses
    // Why the pass cannot run for want of rules ("" while rules are in force).
    std::string m_rulesProblem;
    std::vector<std::string> m_fileTypeList;
    std::set<std::string> m_scanPathSet;
    std::set<std::string> m_monitorDirSet;
    // A watch registration that could not be made (rules not downloaded yet,
    // no scan path yet) is tried again from the message loop, sooner at
    // first and then at most every 30 s, so real time starts whatever the
    // order of start-up, download and asset discovery.
    unsigned long m_watchRetryAtMs = 0;
    unsigned long m_watchRetryDelayMs = 0;
    std::map<std::string, ContainerCacheInfo> m_containerCache;
    Poco::RWLock m_containerLock;
    std::map<unsigned long, std::string> m_containerIndexMap;
    std::map<unsigned int, std::map<int, std::shared_ptr<AssetMessage::assetInfo>>> m_assetInfoMap;
    int64_t m_reserved;
    unsigned long m_nextContainerIndex;
    int32_t m_uploadFileCountPerDay;
    std::vector<std::pair<std::string, int64_t>> m_reportHistory;
    Poco::FastMutex m_reportHistoryMutex;
    Poco::FastMutex m_scanPathMutex;
};

class AutoScanWebshellTask : public ScanWebshellTask {
public:
    AutoScanWebshellTask();
    ~AutoScanWebshellTask() override;
    int Run() override;
};

class OnceScanWebshellTask : public ScanWebshellTask {
public:
    OnceScanWebshellTask();
    ~OnceScanWebshellTask() override;
    // Called for each policy the module accepts: the base Init, then the
    // rule library of that policy, so a download starts when the policy is
    // applied rather than at the first pass.
    int Init() override;
    int Run() override;
};

class DetectFileChangeWebshellTask : public ScanWebshellTask {
public:
    DetectFileChangeWebshellTask();
    ~DetectFileChangeWebshellTask() override;
    // ScanWebshellTask::Init, then the first watch registration; -1 when
    // the base fails (no watch is requested then).
    int Init() override;
    int Run() override;
    // The rules and then the watches.
    void OnRulesArrived() override;
};

}  // namespace Engine

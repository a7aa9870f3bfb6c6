// Containers: the cache of followed containers and their start/stop events.
// Only the file-change task subscribes; the other tasks read its cache when
// they scan. m_containerLock guards the cache and the index map together.

#include <set>

#include "framework/Task.h"
#include "message/AbstructMessage.h"
#include "sdk/LogMacros.h"
#include "Throttle.h"
#include "webshell/DetectWebshellPolicy.h"
#include "webshell/ScanWebshellTask.h"

namespace Engine {

namespace {

const char* const kSource = "module/module_webshell/src/ContainerWebshellScan";
const char* const kContainerCollectTask = "container_collect_task";
const char* const kWatchAdd = "add";
const char* const kWatchDelete = "delete";

void CopyCacheEntry(const ContainerCacheInfo& from, ContainerCacheInfo& to)
{
    static_cast<ContainerInfo&>(to) = static_cast<const ContainerInfo&>(from);
    to.scanPathList = from.scanPathList;
    to.index = from.index;
}

}  // namespace

// ------------------------------------------------------------------- cache

bool ScanWebshellTask::InsertContainerCache(ContainerCacheInfo& info)
{
    Poco::ScopedRWLock lock(m_containerLock, true);
    if (m_containerCache.count(info.id) != 0) {
        return false;
    }
    info.index = m_nextContainerIndex++;
    CopyCacheEntry(info, m_containerCache[info.id]);
    m_containerIndexMap[info.index] = info.id;
    SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "WebshellTask add container cache, index=%lu, name=%s.",
            info.index, info.name);
    return true;
}

void ScanWebshellTask::DeleteContainerCache(const std::string& containerId)
{
    Poco::ScopedRWLock lock(m_containerLock, true);
    auto it = m_containerCache.find(containerId);
    if (it == m_containerCache.end()) {
        return;
    }
    SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "WebshellTask delete docker cache, index=%lu, name=%s.",
            it->second.index, it->second.name);
    m_containerIndexMap.erase(it->second.index);
    m_containerCache.erase(it);
}

bool ScanWebshellTask::GetContainerCache(const std::string& containerId, ContainerCacheInfo& out)
{
    Poco::ScopedRWLock lock(m_containerLock, false);
    auto it = m_containerCache.find(containerId);
    if (it == m_containerCache.end()) {
        return false;
    }
    CopyCacheEntry(it->second, out);
    return true;
}

bool ScanWebshellTask::GetContainerCacheFromIndex(const std::string& filePath, unsigned long index,
                                                  ContainerCacheInfo& out)
{
    // Host directories are watched with index 0.
    if (index == 0) {
        return false;
    }
    Poco::ScopedRWLock lock(m_containerLock, false);
    auto indexIt = m_containerIndexMap.find(index);
    if (indexIt == m_containerIndexMap.end()) {
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource, "WebshellTask not match cache index. index=%lu, path=%s",
                index, filePath);
        return false;
    }
    const std::string& cid = indexIt->second;
    auto it = m_containerCache.find(cid);
    if (it == m_containerCache.end()) {
        SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "WebshellTask not match container id. cid=%s, file=%s",
                cid, filePath);
        return false;
    }
    // A plain byte prefix: no separator is required after the root.
    if (filePath.find(it->second.rootPath) != 0) {
        SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource,
                "WebshellTask root path match failed. container=%s, file=%s, root=%s", it->second.name, filePath,
                it->second.rootPath);
        return false;
    }
    CopyCacheEntry(it->second, out);
    SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "WebshellTask matched container by index, index=%lu, name=%s.",
            index, it->second.name);
    return true;
}

void ScanWebshellTask::GetContainerCacheList(std::map<std::string, ContainerCacheInfo>& out)
{
    Poco::ScopedRWLock lock(m_containerLock, false);
    if (&out != &m_containerCache) {
        out = m_containerCache;
    }
}

void ScanWebshellTask::ClearContainerCache()
{
    SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "WebshellTask clear docker cache");
    Poco::ScopedRWLock lock(m_containerLock, true);
    for (const auto& entry : m_containerCache) {
        WEBSHELL_THROTTLE_POINT(kSource, GetTaskName());
        UnRegisterContainerFileNotify(entry.second);
    }
    m_containerCache.clear();
    m_containerIndexMap.clear();
}

void ScanWebshellTask::UnRegisterContainerFileNotify(const ContainerCacheInfo& info)
{
    for (const auto& path : info.scanPathList) {
        WEBSHELL_THROTTLE_POINT(kSource, GetTaskName());
        SendFileNotifyWatchMessage(path, kWatchDelete, info.index);
    }
}

// ------------------------------------------------------------------ events

void ScanWebshellTask::ContainerWebshellScanInit()
{
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "WebshellTask container process Init. task name:%s",
            GetTaskName());
    DetectWebshellPolicy* policy = GetDetectPolicy();
    m_nextContainerIndex = 1;
    if (policy != nullptr && policy->IsMonitorContainer() && GetTaskName() == kFileChangeTaskName) {
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "WebshellTask %s subscribe container event .",
                GetTaskName());
        SendDirectMsg(kContainerCollectTask, new ContainerRegisterMessage(this, true, false));
    } else {
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                "WebshellTask %s do not subscribe container event .", GetTaskName());
    }
}

void ScanWebshellTask::ContainerWebshellScanUnInit()
{
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource, "WebshellTask container process UnInit.");
    // Every task unsubscribes, subscribed or not; the collector accepts that.
    SendDirectMsg(kContainerCollectTask, new ContainerRegisterMessage(this, false, false));
    ClearContainerCache();
}

int ScanWebshellTask::Receive(const ContainerMessage& message)
{
    WEBSHELL_THROTTLE_POINT(kSource, GetTaskName());
    // A message without a description is the collector's fault; it is
    // logged with an empty name and ignored below.
    SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
            "WebshellTask Receive container message, name(%s),event(%b).",
            message.info ? message.info->name : std::string(), message.event);
    const std::shared_ptr<ContainerInfo> info = message.info;
    if (!info || info->rootPath.empty()) {
        return 0;
    }
    DetectWebshellPolicy* policy = GetDetectPolicy();
    if (policy == nullptr) {
        return 0;
    }
    // Re-read on every event: switching it off stops start and stop handling
    // at once, while the subscription stays until the next Init.
    if (!policy->IsMonitorContainer()) {
        SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "WebshellTask container monitor switch is off.");
        return 0;
    }
    if (info->running) {
        return ProcContainerStart(info, policy);
    }
    ContainerCacheInfo record;
    if (GetContainerCache(info->id, record)) {
        UnRegisterContainerFileNotify(record);
        DeleteContainerCache(info->id);
    } else {
        SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "WebshellTask get container cache failed: %s",
                info->name);
    }
    return 0;
}

int ScanWebshellTask::ProcContainerStart(const std::shared_ptr<ContainerInfo>& info,
                                         const DetectWebshellPolicy* policy)
{
    const std::string root = info->rootPath;
    std::list<std::string> defaultPaths;
    std::list<std::string> customPaths;
    GeneralContainerScanPath(root, policy->GetDefaultScanPathList(), defaultPaths);
    GeneralContainerScanPath(root, policy->GetCustomizeScanPathList(), customPaths);

    // The admission test runs on the host's view of the container's files.
    std::set<std::string> pathSet;
    GetScanPathSet(defaultPaths, pathSet);
    GetScanPathSet(customPaths, pathSet);
    if (pathSet.empty()) {
        SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "WebshellTask container scan path is empty. %s",
                info->name);
        return 0;
    }

    ContainerCacheInfo record;
    static_cast<ContainerInfo&>(record) = *info;
    for (const auto& path : pathSet) {
        WEBSHELL_THROTTLE_POINT(kSource, GetTaskName());
        record.scanPathList.push_back(path);
    }
    if (InsertContainerCache(record) && !record.scanPathList.empty()) {
        for (const auto& path : record.scanPathList) {
            WEBSHELL_THROTTLE_POINT(kSource, GetTaskName());
            SendFileNotifyWatchMessage(path, kWatchAdd, record.index);
            SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource,
                    "WebshellTask add container file notify, filePath:%s, index:%lu", path, record.index);
        }
    }
    SDK_LOG(m_logger, Poco::Message::PRIO_DEBUG, kSource, "WebshellTask container:%s, scan path count:%lu",
            info->name, static_cast<unsigned long>(pathSet.size()));
    return 0;
}

void ScanWebshellTask::GeneralContainerScanPath(const std::string& rootPath, const std::list<std::string>& pathList,
                                                std::list<std::string>& result)
{
    result.clear();
    for (const auto& path : pathList) {
        WEBSHELL_THROTTLE_POINT(kSource, GetTaskName());
        // Plain concatenation: a root ending in "/" gives "//".
        result.push_back(rootPath + path);
    }
}

}  // namespace Engine

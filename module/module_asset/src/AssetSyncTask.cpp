#include "asset/AssetSyncTask.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Util/PropertyFileConfiguration.h>

#include "framework/Engine.h"
#include "framework/PolicyStore.h"
#include "framework/StatusBoard.h"
#include "framework/Topics.h"
#include "message/AssetMessage.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/TimeUtils.h"

namespace Engine {

namespace {

const char* const kSource = "module/module_asset/src/AssetSyncTask";
const char* const kIntervalKey = "asset.interval_s";
constexpr unsigned int kQueueSize = 1024;
constexpr size_t kMaxIssuesShown = 20;

Poco::Logger* Logger()
{
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("asset_module", false);
}

int ClampInterval(int value, const std::string& where)
{
    if (value >= 1 && value <= AssetSyncTask::kMaxIntervalS) {
        return value;
    }
    SDK_LOG(Logger(), Poco::Message::PRIO_WARNING, kSource,
            "asset.interval_s = %d in %s is out of range (1..%d); discovering every %d s instead",
            value, where, AssetSyncTask::kMaxIntervalS, AssetSyncTask::kDefaultIntervalS);
    return AssetSyncTask::kDefaultIntervalS;
}

}  // namespace

AssetSyncTask::Settings AssetSyncTask::SettingsFromConfig()
{
    Settings settings;
    Framework::Engine* engine = Framework::Engine::GetInstance();
    if (engine == nullptr) {
        return settings;
    }
    auto& config = engine->config();
    settings.hostRoot = config.getString("agent.host_root", "/");
    if (settings.hostRoot.empty()) {
        settings.hostRoot = "/";
    }
    try {
        if (config.hasProperty(kIntervalKey)) {
            settings.intervalS = ClampInterval(config.getInt(kIntervalKey), "the agent configuration");
            return settings;
        }
    } catch (const Poco::Exception& e) {
        SDK_LOG(Logger(), Poco::Message::PRIO_WARNING, kSource,
                "asset.interval_s in the agent configuration is not a number (%s); using %d s",
                e.displayText(), kDefaultIntervalS);
        return settings;
    }
    // The engine may not have loaded the properties file; read it ourselves.
    std::string installDir = config.getString("agent.install_dir", "");
    if (installDir.empty() && SDK::PathUtils::GetInstallationPath(installDir) != 0) {
        return settings;
    }
    if (installDir.back() != '/') {
        installDir += '/';
    }
    const std::string file = installDir + "etc/agent.properties";
    try {
        if (!Poco::File(file).exists()) {
            return settings;
        }
        Poco::AutoPtr<Poco::Util::PropertyFileConfiguration> props(
            new Poco::Util::PropertyFileConfiguration(file));
        if (props->hasProperty(kIntervalKey)) {
            settings.intervalS = ClampInterval(props->getInt(kIntervalKey), file);
        }
    } catch (const Poco::Exception& e) {
        SDK_LOG(Logger(), Poco::Message::PRIO_WARNING, kSource,
                "Cannot read asset.interval_s from %s (%s); discovering every %d s", file,
                e.displayText(), kDefaultIntervalS);
    }
    return settings;
}

AssetSyncTask::AssetSyncTask(const Settings& settings)
    : Framework::Task(kTaskName, "asset", Framework::TaskCondition::TASK_TYPE_RESIDENT, kQueueSize),
      m_settings(settings),
      m_discovery(settings.hostRoot)
{
    if (m_settings.intervalS < 1 || m_settings.intervalS > kMaxIntervalS) {
        m_settings.intervalS = ClampInterval(m_settings.intervalS, "the task settings");
    }
    // A new policy changes what consumers make of the same assets. The
    // subscription ends with the task's mailbox.
    Framework::Topics::Subscribe(Framework::kPolicyAppliedTopic, GetMailbox());
}

int AssetSyncTask::Run()
{
    // Discover before the first subscription is handled, so that a new
    // consumer gets the real assets and not an empty list.
    DiscoverNow();
    const unsigned long intervalMs = static_cast<unsigned long>(m_settings.intervalS) * 1000ul;
    unsigned long next = SDK::TimeUtils::GetCurrentSystemTickUsed() + intervalMs;
    while (!IsCancelling()) {
        GetEventWaiter().WaitAndHandleEvent(200, 128);
        if (IsCancelling()) {
            break;
        }
        const unsigned long now = SDK::TimeUtils::GetCurrentSystemTickUsed();
        if (now >= next) {
            DiscoverNow();
            next = SDK::TimeUtils::GetCurrentSystemTickUsed() + intervalMs;
        }
    }
    Framework::StatusBoard::Remove("asset");
    return 0;
}

int AssetSyncTask::HandleMsg(std::shared_ptr<Framework::Message>& msg)
{
    // The messages' own handlers keep the consumer table.
    const int result = Framework::Task::HandleMsg(msg);
    if (auto* reg = dynamic_cast<AssetRegisterMessage*>(msg.get())) {
        m_subscribedKinds.insert(reg->kind);
        SDK_LOG(Logger(), Poco::Message::PRIO_INFORMATION, kSource,
                "A consumer subscribed to assets of kind %u (%d consumers of that kind); sending it the %z current assets",
                reg->kind, result, m_assets[reg->kind].size());
        SendKind(reg->kind, reg->consumer);
        Publish();
    } else if (dynamic_cast<Framework::PolicyAppliedMessage*>(msg.get()) != nullptr) {
        // Consumers derive their directories from the policy and the assets
        // together: they get the assets again to derive them anew.
        for (unsigned int kind : m_subscribedKinds) {
            for (const Framework::MailboxRef& consumer : GetConsumers(kind)) {
                SendKind(kind, consumer);
            }
        }
    } else if (auto* unreg = dynamic_cast<AssetUnRegisterMessage*>(msg.get())) {
        SDK_LOG(Logger(), Poco::Message::PRIO_INFORMATION, kSource,
                "A consumer unsubscribed from assets of kind %u", unreg->kind);
        Publish();
    }
    return result;
}

void AssetSyncTask::SendKind(unsigned int kind, const Framework::MailboxRef& consumer)
{
    AssetMessage::AssetMap map;
    const auto& list = m_assets[kind];
    for (size_t i = 0; i < list.size(); ++i) {
        map[static_cast<int>(i)] = list[i];
    }
    if (!consumer.Post(std::make_shared<AssetMessage>(kind, map))) {
        SDK_LOG(Logger(), Poco::Message::PRIO_WARNING, kSource,
                "Could not deliver the %z assets of kind %u to task %s (its queue is full or it is gone); it gets them with the next change",
                map.size(), kind, consumer.Name());
    }
}

void AssetSyncTask::LogIssues(const Asset::DiscoveryResult& result)
{
    // A broken configuration is logged once, not every round.
    std::set<std::string> current;
    m_issueTexts.clear();
    for (const auto& di : result.issues) {
        std::string where = di.issue.file;
        if (di.issue.line > 0) {
            where += ":" + std::to_string(di.issue.line);
        }
        std::string text = di.server + " (pid " + std::to_string(di.pid) + ") " + where + ": " +
                           di.issue.message;
        const std::string key = di.server + "|" + where + "|" + di.issue.message;
        if (m_reportedIssues.count(key) == 0) {
            SDK_LOG(Logger(), Poco::Message::PRIO_WARNING, kSource,
                    "Configuration of %s (pid %d): %s: %s; the rest of the configuration is used",
                    di.server, di.pid, where, di.issue.message);
        }
        current.insert(key);
        if (m_issueTexts.size() < kMaxIssuesShown) {
            m_issueTexts.push_back(text);
        }
    }
    m_reportedIssues.swap(current);
}

void AssetSyncTask::DiscoverNow()
{
    const unsigned long start = SDK::TimeUtils::GetCurrentSystemTickUsed();
    Asset::DiscoveryResult result = m_discovery.Discover();
    LogIssues(result);
    std::set<unsigned int> kinds = m_subscribedKinds;
    for (const auto& kv : result.byKind) {
        kinds.insert(kv.first);
    }
    std::vector<unsigned int> changed;
    for (unsigned int kind : kinds) {
        const Asset::AssetList& list = result.byKind[kind];
        const std::string canonical = Asset::AssetDiscovery::CanonicalForm(kind, list);
        auto known = m_canonical.find(kind);
        if (m_discovered && known != m_canonical.end() && known->second == canonical) {
            continue;
        }
        m_assets[kind] = list;
        m_canonical[kind] = canonical;
        changed.push_back(kind);
        for (const auto& asset : list) {
            std::string paths;
            for (const auto& dir : asset->webDirList) {
                paths += (paths.empty() ? "" : ", ") + dir->path;
            }
            SDK_LOG(Logger(), Poco::Message::PRIO_INFORMATION, kSource,
                    "Found %s (pid %d%s%s, configuration %s): web directories [%s]", asset->server,
                    asset->pid, std::string(asset->containerId.empty() ? "" : ", container "),
                    asset->containerId, asset->configFile, paths);
        }
    }
    m_discovered = true;
    m_lastDiscoveryMs = SDK::TimeUtils::GetCurrentTimestampMS();
    m_lastDiscoveryDurationMs =
        static_cast<int64_t>(SDK::TimeUtils::GetCurrentSystemTickUsed() - start);
    // The status is never behind what a consumer has been told.
    Publish();
    for (unsigned int kind : changed) {
        const Asset::AssetList& list = m_assets[kind];
        size_t dirs = 0;
        for (const auto& asset : list) {
            dirs += asset->webDirList.size();
        }
        const auto consumers = GetConsumers(kind);
        SDK_LOG(Logger(), Poco::Message::PRIO_INFORMATION, kSource,
                "Assets of kind %u changed: %z servers, %z web directories; sending them to %z consumers",
                kind, list.size(), dirs, consumers.size());
        for (const Framework::MailboxRef& consumer : consumers) {
            SendKind(kind, consumer);
        }
    }
}

void AssetSyncTask::Publish()
{
    Json::Value status(Json::objectValue);
    Json::Value assets(Json::arrayValue);
    for (const auto& kv : m_assets) {
        for (const auto& asset : kv.second) {
            assets.append(Asset::AssetDiscovery::ToJson(kv.first, *asset));
        }
    }
    status["assets"] = assets;
    Json::Value consumers(Json::objectValue);
    for (unsigned int kind : m_subscribedKinds) {
        consumers[std::to_string(kind)] = static_cast<Json::UInt64>(GetConsumers(kind).size());
    }
    status["consumers"] = consumers;
    status["last_discovery_ms"] = static_cast<Json::Int64>(m_lastDiscoveryMs);
    status["discovery_duration_ms"] = static_cast<Json::Int64>(m_lastDiscoveryDurationMs);
    status["interval_s"] = m_settings.intervalS;
    status["host_root"] = m_settings.hostRoot;
    Json::Value issues(Json::arrayValue);
    for (const auto& text : m_issueTexts) {
        issues.append(text);
    }
    status["configuration_issues"] = issues;
    Framework::StatusBoard::Publish("asset", status);
}

}  // namespace Engine

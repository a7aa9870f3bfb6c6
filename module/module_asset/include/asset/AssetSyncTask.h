#pragma once
// "msg_sync_task": the asset service.
//
// Consumers subscribe to an asset kind with Engine::AssetRegisterMessage
// (whose handler adds them to this task's consumer table) and get, at once,
// an Engine::AssetMessage with every current asset of that kind; after that
// they get one whenever a discovery round finds that kind's assets changed.
// An unchanged set is never sent again.
//
// Discovery runs when the task starts and then every `intervalS` seconds
// (configuration "asset.interval_s", default 60; read from the engine's
// configuration or, failing that, <install>/etc/agent.properties). What was
// found is published on the status board under "asset" for
// `ardent-agent ctl status`.
//
// Everything here runs on the task's own thread: the discovery rounds and
// the message handlers. Nothing is shared with other threads but the
// immutable asset records handed to consumers.

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <json/json.h>

#include "asset/AssetDiscovery.h"
#include "framework/Task.h"

namespace Engine {

class AssetSyncTask : public Framework::Task {
public:
    static constexpr const char* kTaskName = "msg_sync_task";
    static constexpr int kDefaultIntervalS = 60;
    static constexpr int kMaxIntervalS = 86400;

    struct Settings {
        std::string hostRoot = "/";
        int intervalS = kDefaultIntervalS;
    };
    // From the running engine's configuration (defaults without an engine).
    static Settings SettingsFromConfig();

    explicit AssetSyncTask(const Settings& settings);

    int Run() override;
    int HandleMsg(std::shared_ptr<Framework::Message>& msg) override;

    // One discovery round on the calling thread: sends the kinds that
    // changed to their consumers and publishes the status.
    void DiscoverNow();

    const Settings& GetSettings() const { return m_settings; }

private:
    void SendKind(unsigned int kind, const Framework::MailboxRef& consumer);
    void LogIssues(const Asset::DiscoveryResult& result);
    void Publish();

    Settings m_settings;
    Asset::AssetDiscovery m_discovery;
    bool m_discovered = false;
    std::map<unsigned int, Asset::AssetList> m_assets;
    std::map<unsigned int, std::string> m_canonical;
    std::set<unsigned int> m_subscribedKinds;
    std::set<std::string> m_reportedIssues;
    std::vector<std::string> m_issueTexts;
    int64_t m_lastDiscoveryMs = 0;
    int64_t m_lastDiscoveryDurationMs = 0;
};

}  // namespace Engine

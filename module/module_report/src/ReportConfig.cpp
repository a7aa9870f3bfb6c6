#include "report/ReportConfig.h"

#include <Poco/Exception.h>

#include "framework/Engine.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"

namespace Report {

namespace {

const char* const kSource = "module/module_report/src/ReportConfig";

uint64_t ReadSize(Poco::Util::AbstractConfiguration& config, const std::string& key,
                  uint64_t def, uint64_t min, uint64_t max)
{
    if (!config.hasProperty(key)) {
        return def;
    }
    try {
        const uint64_t value = config.getUInt64(key);
        if (value >= min && value <= max) {
            return value;
        }
    } catch (const Poco::Exception&) {
    }
    SDK_LOG(SDK::LoggerUtils::GetInstance()->GetModuleLogger("report_module", false),
            Poco::Message::PRIO_WARNING, kSource,
            "Configuration %s=\"%s\" is not a number in [%?d, %?d]; using %?d.", key,
            config.getRawString(key, ""), min, max, def);
    return def;
}

}  // namespace

ReportConfig ReportConfig::FromEngine()
{
    ReportConfig cfg;
    Framework::Engine* engine = Framework::Engine::GetInstance();
    std::string install;
    if (engine != nullptr) {
        install = engine->config().getString("agent.install_dir", "");
    }
    if (install.empty() && SDK::PathUtils::GetInstallationPath(install) != 0) {
        install.clear();
    }
    if (!install.empty() && install.back() != '/') {
        install += '/';
    }
    cfg.installDir = install;
    cfg.downloadRoot = install;
    cfg.upload.dir = install + "data/upload";
    std::string logDir = install + "log";
    cfg.sink.path = logDir + "/webshell_events.jsonl";
    if (engine == nullptr) {
        return cfg;
    }
    Poco::Util::AbstractConfiguration& config = engine->config();
    logDir = config.getString("agent.log_dir", logDir);
    cfg.upload.dir = config.getString("agent.upload_dir", cfg.upload.dir);
    cfg.sink.path = config.getString("agent.events", logDir + "/webshell_events.jsonl");
    if (cfg.sink.path.empty()) {
        cfg.sink.path = logDir + "/webshell_events.jsonl";
    }
    const uint64_t kMaxSize = 1ull << 40;
    cfg.sink.maxBytes = ReadSize(config, "report.events_max_bytes",
                                 EventSinkOptions::kDefaultMaxBytes, 0, kMaxSize);
    cfg.sink.keep = static_cast<int>(
        ReadSize(config, "report.events_keep", EventSinkOptions::kDefaultKeep, 0, 100));
    cfg.download.maxBytes = ReadSize(config, "report.download_max_bytes",
                                     DownloadLimits::kDefaultMaxBytes, 1, kMaxSize);
    cfg.download.timeoutS = static_cast<int>(ReadSize(
        config, "report.download_timeout_s", DownloadLimits::kDefaultTimeoutS, 1, 86400));
    cfg.upload.maxBytes = ReadSize(config, "report.upload_max_bytes",
                                   UploadOptions::kDefaultMaxBytes, 1, kMaxSize);
    return cfg;
}

}  // namespace Report

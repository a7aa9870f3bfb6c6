#include "report/ReportConfig.h"

#include <Poco/Exception.h>

#include "framework/Engine.h"
#include "report/SyslogSink.h"
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

Poco::Logger* Log()
{
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("report_module", false);
}

void ReadSyslog(Poco::Util::AbstractConfiguration& config, SyslogSinkOptions& out)
{
    out.target = config.getString("report.syslog.target", "");
    const std::string facility = config.getString("report.syslog.facility", "local0");
    out.facility = SyslogSink::ParseFacility(facility);
    if (out.facility < 0) {
        SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                "Configuration report.syslog.facility=\"%s\" is not a facility (local0..local7, user, "
                "daemon, ... or 0..23); using local0.",
                facility);
        out.facility = SyslogSinkOptions::kDefaultFacility;
    }
    out.appName = config.getString("report.syslog.app_name", out.appName);
    out.hostName = config.getString("report.syslog.hostname", "");
    out.datagramMaxBytes = ReadSize(config, "report.syslog.datagram_max_bytes",
                                    SyslogSinkOptions::kDefaultDatagramMaxBytes, 480,
                                    SyslogSinkOptions::kMaxDatagramBytes);
    out.maxQueued = ReadSize(config, "report.syslog.queue_max", SyslogSinkOptions::kDefaultMaxQueued, 1,
                             10000000);
    out.retryMaxMs = static_cast<int>(ReadSize(config, "report.syslog.retry_max_ms",
                                               SyslogSinkOptions::kDefaultRetryMaxMs, 1, 3600000));
}

void ReadHttp(Poco::Util::AbstractConfiguration& config, HttpSinkOptions& out)
{
    out.url = config.getString("report.http.url", "");
    out.header = config.getString("report.http.header", "");
    out.caFile = config.getString("report.http.ca_file", "");
    try {
        out.verify = config.getBool("report.http.verify", true);
    } catch (const Poco::Exception&) {
        SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                "Configuration report.http.verify=\"%s\" is not true or false; certificates are "
                "verified.",
                config.getRawString("report.http.verify", ""));
        out.verify = true;
    }
    out.batchEvents = ReadSize(config, "report.http.batch_events", HttpSinkOptions::kDefaultBatchEvents, 1,
                               1000000);
    out.batchBytes = ReadSize(config, "report.http.batch_bytes", HttpSinkOptions::kDefaultBatchBytes, 1,
                              256ull * 1024 * 1024);
    out.batchMs = static_cast<int>(
        ReadSize(config, "report.http.batch_ms", HttpSinkOptions::kDefaultBatchMs, 0, 3600000));
    out.timeoutS = static_cast<int>(
        ReadSize(config, "report.http.timeout_s", HttpSinkOptions::kDefaultTimeoutS, 1, 3600));
    out.retryMaxMs = static_cast<int>(ReadSize(config, "report.http.retry_max_ms",
                                               HttpSinkOptions::kDefaultRetryMaxMs, 1, 3600000));
    out.spool.maxBytes = ReadSize(config, "report.http.spool_max_bytes", SpoolOptions::kDefaultMaxBytes,
                                  64 * 1024, 1ull << 40);
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
    cfg.http.spool.dir = install + "data/spool/http";
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
    ReadSyslog(config, cfg.syslog);
    ReadHttp(config, cfg.http);
    return cfg;
}

}  // namespace Report

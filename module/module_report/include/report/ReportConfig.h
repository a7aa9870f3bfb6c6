#pragma once
// Settings of the report services, read from the engine's configuration:
//   agent.install_dir            installation directory (ends with "/")
//   agent.events                 event sink: "-" (stdout) or a file
//                                (default <log dir>/webshell_events.jsonl)
//   agent.log_dir                default <install>/log
//   report.events_max_bytes      rotate the event file before it passes this (50 MiB)
//   report.events_keep           numbered archives kept (5)
//   report.download_max_bytes    download size cap (64 MiB)
//   report.download_timeout_s    whole-download timeout in seconds (60)
//   report.upload_max_bytes      largest file kept as an upload (64 MiB)
//   report.syslog.*              the syslog sink (SyslogSink.h); off without a target
//   report.http.*                the HTTP sink (HttpSink.h); off without a URL
// Without an engine (in-process tests) every key takes its default.

#include <string>

#include "report/Downloader.h"
#include "report/EventSink.h"
#include "report/HttpSink.h"
#include "report/SyslogSink.h"
#include "report/UploadStore.h"

namespace Report {

struct ReportConfig {
    static constexpr int kDefaultParallelDownloads = 4;

    std::string installDir;     // ends with "/"; empty when unknown
    EventSinkOptions sink;
    DownloadLimits download;
    UploadOptions upload;       // dir: <install>/data/upload
    std::string downloadRoot;   // download targets must lie under it; empty: anywhere
    int maxParallelDownloads = kDefaultParallelDownloads;
    SyslogSinkOptions syslog;
    HttpSinkOptions http;       // spool.dir: <install>/data/spool/http

    static ReportConfig FromEngine();
};

}  // namespace Report

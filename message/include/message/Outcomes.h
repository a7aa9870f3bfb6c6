#pragma once
// Typed outcomes the services announce on Framework::Topics: the end of a
// scan pass, the end of a download, and the running figures of the event
// sink and the upload store. A listener (the `scan` command) decides on
// these fields and enums; the status board keeps a rendering of its own for
// `ctl status`, which nothing reads back.

#include <cstdint>
#include <string>
#include <vector>

#include "framework/Message.h"

namespace Engine {

constexpr const char* kScanPassTopic = "webshell.pass";
constexpr const char* kDownloadTopic = "report.download";
constexpr const char* kEventSinkTopic = "report.events";
constexpr const char* kUploadTopic = "report.uploads";

// What one pass did.
struct PassFigures {
    uint64_t filesSeen = 0;
    uint64_t filesChecked = 0;   // checks that ran to the end
    uint64_t filesTimedOut = 0;  // checks stopped at the time limit: not known to be clean
    uint64_t filesFailed = 0;    // checks that failed otherwise: not known to be clean
    uint64_t filesMatched = 0;
    uint64_t certain = 0;
    uint64_t uncertain = 0;
    uint64_t allowed = 0;        // matches on an allow-list: in filesMatched, not certain or uncertain
    uint64_t events = 0;
    uint64_t uploads = 0;
    uint64_t bytesChecked = 0;
};

// Why a pass did not walk.
enum class PassSkip {
    None,
    NoPolicy,
    NoScanPath,       // none of the scan paths is an existing directory
    RulesMissing,     // no rule library yet: a download was asked for
    RulesMismatch,    // the library does not match lib_hash: a download was asked for
    RulesUnloadable,  // the library matches but libyara refuses it
};

// The end of one scan pass (kScanPassTopic).
class ScanPassMessage : public Framework::Message {
public:
    ScanPassMessage() : Framework::Message("scan_pass") {}

    bool Skipped() const { return skip != PassSkip::None; }
    // The pass waits for a rule library that was asked for.
    bool AwaitsRules() const { return skip == PassSkip::RulesMissing || skip == PassSkip::RulesMismatch; }

    std::string task;
    uint64_t passId = 0;
    PassSkip skip = PassSkip::None;
    std::string reason;  // for a skip: what an operator reads
    int64_t startedMs = 0;
    int64_t finishedMs = 0;
    PassFigures figures;
};

// The end of one download (kDownloadTopic).
class DownloadMessage : public Framework::Message {
public:
    DownloadMessage(const std::string& target, const std::string& url, bool ok,
                    const std::string& error, uint64_t bytes)
        : Framework::Message("download_done"), target(target), url(url), ok(ok), error(error),
          bytes(bytes) {}

    const std::string target;
    const std::string url;
    const bool ok;
    const std::string error;
    const uint64_t bytes;
};

// Figures of the event sink after each event it handled (kEventSinkTopic).
struct EventSinkFigures {
    std::string sink;
    uint64_t received = 0;  // events handled
    uint64_t written = 0;
    uint64_t held = 0;     // waiting to be written again
    uint64_t dropped = 0;  // lost
    std::string lastError;
};

class EventSinkMessage : public Framework::Message {
public:
    explicit EventSinkMessage(const EventSinkFigures& figures)
        : Framework::Message("event_sink_figures"), figures(figures) {}
    const EventSinkFigures figures;
};

// Figures of the upload store after each upload it handled (kUploadTopic).
struct UploadFigures {
    std::string dir;
    uint64_t received = 0;  // uploads handled
    uint64_t stored = 0;
    uint64_t duplicates = 0;
    uint64_t refused = 0;
    uint64_t failed = 0;
    uint64_t bytes = 0;
    std::string lastError;
};

class UploadMessage : public Framework::Message {
public:
    explicit UploadMessage(const UploadFigures& figures)
        : Framework::Message("upload_figures"), figures(figures) {}
    const UploadFigures figures;
};

}  // namespace Engine

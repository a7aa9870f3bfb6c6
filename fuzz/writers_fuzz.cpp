// What the agent writes about a file whose name an attacker chose: the
// detection event (built by the scan task, as one line of the event sink),
// the sidecar of a kept upload, and a log value. Each must stay one valid
// line or document whatever bytes the name holds.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/TextIterator.h>
#include <Poco/UTF8Encoding.h>
#include <json/json.h>

#include "FuzzSupport.h"
#include "framework/Engine.h"
#include "framework/Message.h"
#include "framework/Task.h"
#include "report/EventSink.h"
#include "report/UploadStore.h"
#include "sdk/JsonUtils.h"
#include "sdk/LogMacros.h"
#include "webshell/DetectResult.h"
#include "webshell/ScanWebshellTask.h"

namespace {

const char* const kEventRecord = "Webshell detect result(";

// Keeps the text of the last event record of the module's logger.
class LastRecord : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override
    {
        if (msg.getText().compare(0, std::strlen(kEventRecord), kEventRecord) == 0) {
            text = msg.getText();
        }
    }
    std::string text;
};

// Stands in for "data_comm_report_task": an on-demand task, so the
// harness hands it the event on its own thread.
class EventCapture : public Framework::Task {
public:
    EventCapture()
        : Framework::Task("data_comm_report_task", "fuzz", Framework::TaskCondition::TASK_TYPE_ONDEMAND, 64)
    {
    }
    int Run() override { return 0; }
    int HandleMsg(std::shared_ptr<Framework::Message>& msg) override
    {
        if (auto data = std::dynamic_pointer_cast<Framework::DataMessage>(msg)) {
            text = data->GetContent();
        }
        return 0;
    }
    std::string text;
};

// The task keeps a minute of reported paths; a fresh one now and then
// keeps that history short.
const int kEventsPerTask = 1000;

// Made once and kept to the end of the process: the engine still knows
// the tasks when static objects are destroyed.
Framework::Engine* g_engine = nullptr;
EventCapture* g_capture = nullptr;
LastRecord* g_record = nullptr;
Engine::OnceScanWebshellTask* g_task = nullptr;
int g_events = 0;
Report::EventSink* g_sink = nullptr;
Report::UploadStore* g_store = nullptr;
std::string g_sources;

bool IsUtf8(const std::string& text)
{
    Poco::UTF8Encoding utf8;
    Poco::TextIterator it(text, utf8);
    Poco::TextIterator end(text);
    for (; it != end; ++it) {
        if (*it < 0) {
            return false;
        }
    }
    return true;
}

bool IsOneSafeLine(const std::string& text)
{
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7F) {
            return false;
        }
    }
    return IsUtf8(text);
}

Json::Value Parse(const std::string& text)
{
    Json::Value doc;
    FUZZ_CHECK(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), doc) == 0, "not JSON");
    return doc;
}

void CheckEvent(const std::string& path, const std::string& keyword, const std::string& containerName)
{
    if (g_task == nullptr || ++g_events > kEventsPerTask) {
        if (g_task != nullptr) {
            g_task->release();
        }
        g_task = new Engine::OnceScanWebshellTask();
        g_events = 0;
    }
    Engine::DetectResult result;
    result.matched = true;
    result.certain = true;
    result.ruleName = "fuzz_rule";
    result.keyWord = keyword;
    Engine::ContainerInfo container;
    std::string filePath = path;
    if (!containerName.empty()) {
        container.name = containerName;
        container.id = "4f1c2a9b7e3d";
        container.imageName = containerName + ":latest";
        container.rootPath = "/var/lib/docker/overlay2/4f1c/merged";
        filePath = container.rootPath + path;
    }
    g_record->text.clear();
    g_capture->text.clear();
    g_task->SendDetectResultMsg(filePath, result, container);
    g_capture->GetEventWaiter().HandlePending(16);
    // The log shows the event as one safe line, cut when long.
    FUZZ_CHECK(g_record->text.compare(0, std::strlen(kEventRecord), kEventRecord) == 0, "no event logged");
    FUZZ_CHECK(IsOneSafeLine(g_record->text), "event record is not one safe line");
    const std::string& text = g_capture->text;
    if (text.empty()) {
        return;  // the same path within the minute: not reported again
    }
    FUZZ_CHECK(text.find_first_of("\r\n") == std::string::npos, "event text spans several lines");
    FUZZ_CHECK(IsUtf8(text), "event text is not UTF-8");
    const Json::Value event = Parse(text);
    const Json::Value& file = containerName.empty() ? event["file_info"][0] : event["file_info"];
    if (IsUtf8(path)) {
        FUZZ_CHECK(file["file_path"].asString() == path, "event path differs from the file's");
    }
    if (IsUtf8(keyword) && !keyword.empty()) {
        FUZZ_CHECK(file["file_key_word"].asString() == keyword, "event key word differs from the match");
    }
    const std::string line = Report::EventSink::ToLine(text);
    FUZZ_CHECK(line.find('\n') == line.size() - 1, "event line spans several lines");
    g_sink->Write(text);
}

// A file whose name is the input, kept by the upload store: its sidecar
// must name it exactly.
void CheckSidecar(const std::string& input)
{
    std::string name = input.substr(0, 200);
    for (char& c : name) {
        if (c == '/' || c == '\0') {
            c = '_';
        }
    }
    if (name.empty() || name == "." || name == "..") {
        name = "_";
    }
    const std::string path = g_sources + "/" + name;
    Fuzz::WriteFile(path, "<?php // " + input);
    const Report::UploadResult stored = g_store->Store(path, "webshell");
    unlink(path.c_str());
    if (stored.outcome != Report::UploadResult::STORED && stored.outcome != Report::UploadResult::DUPLICATE) {
        return;
    }
    std::string sidecar;
    {
        FILE* f = fopen((stored.storedPath + ".json").c_str(), "rb");
        FUZZ_CHECK(f != nullptr, "no sidecar");
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), f)) > 0) {
            sidecar.append(buf, n);
        }
        fclose(f);
    }
    const Json::Value doc = Parse(sidecar);
    if (IsUtf8(path)) {
        FUZZ_CHECK(doc["path"].asString() == path, "sidecar path differs from the file's");
    }
    unlink(stored.storedPath.c_str());
    unlink((stored.storedPath + ".json").c_str());
}

void CheckLogValue(const std::string& value)
{
    const std::string safe = SDK::LogSafe(value);
    FUZZ_CHECK(IsOneSafeLine(safe), "log value is not one safe line");
    FUZZ_CHECK(safe.size() <= SDK::kMaxLogValueBytes + 40, "log value over its cap");
    if (safe.size() <= SDK::kMaxLogValueBytes && value.size() <= SDK::kMaxLogValueBytes) {
        FUZZ_CHECK(SDK::LogSafe(safe) == safe, "escaping a safe value changed it");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Fuzz::SilenceLogs();
    const std::string install = Fuzz::ScratchDir() + "/install/";
    Fuzz::MakeDirs(install + "policy");
    g_engine = new Framework::Engine();
    g_engine->config().setString("agent.install_dir", install);
    g_capture = new EventCapture;
    FUZZ_CHECK(g_engine->RegisterTask(g_capture, nullptr) == 0, "cannot register the capture task");
    g_record = new LastRecord;
    Poco::Logger& module = Poco::Logger::get("webshell_module");
    module.setChannel(Poco::AutoPtr<Poco::Channel>(g_record, true));
    module.setLevel(Poco::Message::PRIO_DEBUG);

    Report::EventSinkOptions sinkOptions;
    sinkOptions.path = Fuzz::ScratchDir() + "/events.jsonl";
    sinkOptions.maxBytes = 1 << 20;
    sinkOptions.keep = 1;
    g_sink = new Report::EventSink(sinkOptions, &Poco::Logger::get("fuzz"));
    Report::UploadOptions uploadOptions;
    uploadOptions.dir = Fuzz::ScratchDir() + "/upload";
    g_store = new Report::UploadStore(uploadOptions);
    g_sources = Fuzz::ScratchDir() + "/www";
    Fuzz::MakeDirs(g_sources);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<std::string> parts = Fuzz::Split(data, size, 4);
    CheckEvent("/" + parts[0], parts[1], parts[2]);
    // Keeping a copy costs a thousand times a JSON line: only inputs that
    // carry a fourth part name a file to keep.
    if (!parts[3].empty()) {
        CheckSidecar(parts[3]);
    }
    CheckLogValue(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}

#include "WebshellEvent.h"

#include <cctype>
#include <sstream>

#include <Poco/Base64Encoder.h>
#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Environment.h>
#include <Poco/Mutex.h>
#include <Poco/Timestamp.h>

#include "framework/Engine.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/FileUtils.h"
#include "sdk/HostRoot.h"
#include "sdk/JsonUtils.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"

#ifndef ARDENT_VERSION
#define ARDENT_VERSION "unknown"
#endif

namespace Engine {

namespace {

const char* const kSource = "module/module_webshell/src/WebshellEvent";
// Hashes stream the file: reported files of any size.
const long kNoHashLimit = 0;
const std::size_t kIdentityFileCap = 4096;

// The first line of a small file, surrounding blanks dropped.
std::string FirstLine(const std::string& text)
{
    std::string line = text.substr(0, text.find('\n'));
    const auto notBlank = [](unsigned char c) { return !std::isspace(c); };
    while (!line.empty() && !notBlank(static_cast<unsigned char>(line.back()))) {
        line.pop_back();
    }
    std::string::size_type start = 0;
    while (start < line.size() && !notBlank(static_cast<unsigned char>(line[start]))) {
        ++start;
    }
    return line.substr(start);
}

bool IsMachineId(const std::string& id)
{
    if (id.size() != 32) {
        return false;
    }
    for (const char c : id) {
        if (!std::isxdigit(static_cast<unsigned char>(c))) {
            return false;
        }
    }
    return true;
}

}  // namespace

EventHost EventHost::Read(const std::string& hostRoot, Poco::Logger* logger)
{
    const SDK::HostRoot host(hostRoot);
    EventHost out;
    out.version = ARDENT_VERSION;
    std::string text;
    // Under another root (the agent in a container), the host's own name;
    // this system's otherwise, or when the host does not keep one.
    if (!host.Prefix().empty() && host.ReadFile("/etc/hostname", kIdentityFileCap, text).ok()) {
        out.name = FirstLine(text);
    }
    if (out.name.empty()) {
        try {
            out.name = Poco::Environment::nodeName();
        } catch (const Poco::Exception&) {
            out.name.clear();
        }
    }
    text.clear();
    const SDK::ReadResult read = host.ReadFile("/etc/machine-id", kIdentityFileCap, text);
    const std::string id = read.ok() ? FirstLine(text) : std::string();
    if (IsMachineId(id)) {
        out.id = id;
    } else {
        // Containers and minimal images often have none: worth saying, not alarming.
        SDK_LOG(logger, Poco::Message::PRIO_INFORMATION, kSource,
                "No machine id in %s (%s); events carry no host_id until the agent restarts.",
                host.Path("/etc/machine-id"),
                read.ok() ? std::string("not 32 hexadecimal digits") : read.status.message());
    }
    return out;
}

EventHost EventHost::Current()
{
    static Poco::FastMutex mutex;
    static bool loaded = false;
    static std::string loadedRoot;
    static EventHost cached;

    std::string root = "/";
    Framework::Engine* engine = Framework::Engine::GetInstance();
    if (engine != nullptr) {
        root = engine->config().getString("agent.host_root", "/");
    }
    Poco::FastMutex::ScopedLock lock(mutex);
    if (!loaded || root != loadedRoot) {
        cached = Read(root, SDK::LoggerUtils::GetInstance()->GetModuleLogger("webshell_module", false));
        loadedRoot = root;
        loaded = true;
    }
    return cached;
}

std::string Rfc3339Utc(int64_t ms)
{
    const Poco::Timestamp at(static_cast<Poco::Timestamp::TimeVal>(ms / 1000) * Poco::Timestamp::resolution());
    return Poco::DateTimeFormatter::format(at, "%Y-%m-%dT%H:%M:%SZ");
}

Json::Value BuildWebshellEvent(const WebshellEventFacts& facts, const EventHost& host)
{
    const DetectResult& result = facts.result;
    const ContainerInfo& container = facts.container;
    Json::Value event(Json::objectValue);
    Json::Value file(Json::objectValue);
    // A name that is not UTF-8 is escaped reversibly and its exact bytes
    // go alongside, so two files never share one file_path.
    const auto setPath = [&file](const std::string& path) {
        bool escaped = false;
        file["file_path"] = SDK::JsonUtils::EscapeNonUtf8(path, escaped);
        if (escaped) {
            std::ostringstream b64;
            Poco::Base64Encoder encoder(b64);
            encoder.rdbuf()->setLineLength(0);
            encoder << path;
            encoder.close();
            file["file_path_b64"] = b64.str();
        } else {
            file.removeMember("file_path_b64");
        }
    };
    setPath(facts.path);
    if (!result.keyWord.empty()) {
        file["file_key_word"] = result.keyWord;
    }
    bool flag = true;
    std::string sha256 = result.sha256;  // a quarantined file is no longer there
    if (!sha256.empty() || SDK::FileUtils::GetFileSha256(facts.path, flag, sha256, kNoHashLimit) == 0) {
        file["file_sha256"] = sha256;
    }

    event["event_id"] = SDK::CryptoCodeUtils::GenerateUUID();
    event["event_classid"] = "webshell_0001";
    event["event_name"] = "webshell";
    event["occur_time"] = Json::Int64(facts.occurMs / 1000);
    event["occur_time_iso"] = Rfc3339Utc(facts.occurMs);
    event["event_category"] = 1000;
    event["event_type"] = 1015;
    event["severity"] = 2;
    event["event_count"] = 1;
    event["attack_phase"] = 6;
    event["attack_tag"] = 2;
    event["confidence"] = 90;
    event["detect_module"] = "webshell_module";
    event["host_name"] = host.name;
    if (!host.id.empty()) {
        event["host_id"] = host.id;
    }
    event["agent_version"] = host.version;
    event["rule_name"] = result.ruleName;
    if (!result.description.empty()) {
        event["description"] = result.description;
    }
    if (result.score) {
        event["score"] = Json::Int64(*result.score);
    }
    event["layer_depth"] = result.layerDepth;
    if (result.quarantineId) {
        event["quarantined"] = !result.quarantineId->empty();
        event["quarantine_id"] = *result.quarantineId;
    }
    event["file_info"].append(file);

    if (!container.name.empty() && !container.id.empty()) {
        event["container_name"] = container.name;
        event["image_name"] = container.imageName;
        // The path as seen inside the container: only the root's length
        // counts. Receivers rely on "file_info" being a bare object here.
        setPath(facts.path.substr(container.rootPath.size()));
        event["file_info"] = file;
        Json::Value resource(Json::objectValue);
        resource["container_id"] = container.id;
        resource["image_id"] = container.imageId;
        event["resource_info"] = resource;
    }
    return event;
}

}  // namespace Engine

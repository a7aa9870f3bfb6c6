#include "WebshellTestUtil.h"

#include <atomic>

#include <Poco/Logger.h>

#include "framework/Engine.h"
#include "sdk/JsonUtils.h"

namespace WebshellTest {

const char* const kTestRules = R"(
rule suspicious_mark { strings: $s = "SUSPICIOUS_MARK_7f3a" condition: $s }
rule certain_mark : certain php { strings: $c = "CERTAIN_MARK_51c2" condition: $c }
rule extra_then_certain : extra_php certain { strings: $e = "EXTRA_PHP_MARK_88d0" condition: $e }
rule certainly_prefix : certainly { strings: $p = "CERTAINLY_MARK_2b61" condition: $p }
rule private_only : certain { strings: $h = "PRIVATE_MARK_93ad" private condition: $h }
rule two_strings : certain { strings: $a = "FIRST_MARK_04e7" $b = "SECOND_MARK_c9b5" condition: all of them }
)";

// -------------------------------------------------------------------- Env

Env::Env() : m_engine(new TestSupport::TestEngine())
{
    for (const char* name : {kDataReport, kFileReport, kFileNotify, kMsgSync, kContainerCollect}) {
        Poco::AutoPtr<TestSupport::CaptureTask> task(new TestSupport::CaptureTask(name));
        if (engine().RegisterTask(task.get(), nullptr) != 0) {
            throw std::runtime_error(std::string("cannot register capture task ") + name);
        }
        m_captures.emplace(name, task);
    }
}

Env::~Env()
{
    engine().UnloadModules();
    for (auto& name : engine().GetTaskNames()) {
        engine().UnRegisterTask(name);
    }
    m_captures.clear();
    m_engine.reset();
}

TestSupport::CaptureTask& Env::Capture(const std::string& service) { return *m_captures.at(service); }

std::string Env::InstallRules(const std::string& source)
{
    return TestSupport::Sha256Sum(TestSupport::WriteRules(Dir(), "install/data/webshell/webshell.dat", source));
}

void Env::Barrier(const std::string& service)
{
    static std::atomic<int> counter{0};
    const std::string name = "barrier-" + std::to_string(counter.fetch_add(1));
    if (!engine().SendDirectMsg(service, new Framework::Message(name))) {
        throw std::runtime_error("barrier to " + service + " not delivered");
    }
    TestSupport::CaptureTask& capture = Capture(service);
    const bool arrived = TestSupport::WaitFor([&] {
        for (auto& m : capture.Messages()) {
            if (m->GetName() == name) {
                return true;
            }
        }
        return false;
    });
    if (!arrived) {
        throw std::runtime_error("barrier to " + service + " not handled in time");
    }
}

std::vector<Json::Value> Env::Events()
{
    std::vector<Json::Value> out;
    for (auto& m : Sent<Framework::DataMessage>(kDataReport)) {
        EXPECT_EQ(m->GetDataType(), "2");
        out.push_back(TestSupport::ParseJson(m->GetContent()));
    }
    return out;
}

std::set<std::string> Env::EventPaths()
{
    std::set<std::string> paths;
    for (auto& e : Events()) {
        const Json::Value& file = e["file_info"].isArray() ? e["file_info"][0] : e["file_info"];
        paths.insert(file["file_path"].asString());
    }
    return paths;
}

std::set<std::string> Env::UploadPaths()
{
    std::set<std::string> paths;
    for (auto& m : Sent<Framework::FileMessage>(kFileReport)) {
        if (m->GetTaskType() == Framework::FileMessage::UPLOAD) {
            paths.insert(m->GetFilePath());
        }
    }
    return paths;
}

std::vector<std::shared_ptr<Engine::FileNotifyWatchMessage>> Env::TakeWatches()
{
    auto watches = Sent<Engine::FileNotifyWatchMessage>(kFileNotify);
    Capture(kFileNotify).Clear();
    return watches;
}

void Env::ClearCaptures()
{
    for (auto& entry : m_captures) {
        Barrier(entry.first);
        entry.second->Clear();
    }
}

// --------------------------------------------------------------- policies

Json::Value PolicyDoc::ToJsonValue() const
{
    Json::Value root(Json::objectValue);
    root["feature_name"] = "detect_webshell";
    root["hash"] = "test";
    root["enabled"] = true;
    Json::Value& content = root["content"];
    for (const auto& [key, paths] : {std::make_pair("default_scan_paths", &defaultPaths),
                                     std::make_pair("customize_scan_paths", &customPaths)}) {
        content[key] = Json::Value(Json::arrayValue);
        for (auto& p : *paths) {
            content[key].append(p);
        }
    }
    content["lib_version"] = libVersion;
    content["lib_url"] = libUrl;
    content["lib_hash"] = libHash;
    content["monitor_file_change"] = monitorFileChange;
    content["monitor_container"] = monitorContainer;
    content["file_type"] = fileType;
    content["max_file_size"] = maxFileSize;
    content["upload_file_count_per_day"] = uploadPerDay;
    if (certainMinScore >= 0) {
        content["certain_min_score"] = certainMinScore;
    }
    Json::Value& condition = content["auto_scan_task"]["task_condition"];
    condition["type"] = "interval";
    condition["interval_s"] = intervalS;
    condition["delay_s"] = delayS;
    return root;
}

std::string PolicyDoc::ToJson() const { return SDK::JsonUtils::JsonToString(ToJsonValue()); }

Poco::AutoPtr<Engine::DetectWebshellPolicy> MakePolicy(const PolicyDoc& doc)
{
    Poco::AutoPtr<Engine::DetectWebshellPolicy> policy(new Engine::DetectWebshellPolicy("detect_webshell"));
    if (!policy->Parse(doc.ToJson())) {
        throw std::runtime_error("test policy does not parse: " + doc.ToJson());
    }
    return policy;
}

std::shared_ptr<Engine::OnceScanWebshellTask> StartOnce(Engine::DetectWebshellPolicy* policy)
{
    std::shared_ptr<Engine::OnceScanWebshellTask> task(new Engine::OnceScanWebshellTask(), [](auto* t) {
        t->UnInit();
        t->release();
    });
    task->SetFeaturePolicy(policy);
    if (task->Init() != 0) {
        throw std::runtime_error("a once-scan task did not start");
    }
    return task;
}

}  // namespace WebshellTest

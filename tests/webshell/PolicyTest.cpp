// The "detect_webshell" policy document: required keys, defaults, types as
// the JSON helpers yield them, the schedule child, and hostile documents.

#include <functional>

#include <gtest/gtest.h>

#include "WebshellTestUtil.h"
#include "sdk/JsonUtils.h"
#include "webshell/DetectWebshellPolicy.h"

using namespace WebshellTest;

namespace {

Json::Value ValidDoc()
{
    PolicyDoc doc;
    doc.defaultPaths = {"/var/www"};
    doc.customPaths = {"/srv/site"};
    doc.libHash = std::string(64, 'a');
    doc.intervalS = 3600;
    doc.delayS = 60;
    return doc.ToJsonValue();
}

bool Parses(const Json::Value& doc, Poco::AutoPtr<Engine::DetectWebshellPolicy>* out = nullptr)
{
    Poco::AutoPtr<Engine::DetectWebshellPolicy> policy(new Engine::DetectWebshellPolicy("given_name"));
    const bool ok = policy->Parse(SDK::JsonUtils::JsonToString(doc));
    if (out != nullptr) {
        *out = policy;
    }
    return ok;
}

// The text of `doc` with its "PLACEHOLDER" value replaced by JSON text
// written by hand.
std::string WithText(const Json::Value& doc, const std::string& json)
{
    std::string text = SDK::JsonUtils::JsonToString(doc);
    return text.replace(text.find("PLACEHOLDER"), 11, json);
}

const Engine::DetectWebshellTaskPolicy* ScheduleOf(const Engine::DetectWebshellPolicy& policy)
{
    for (auto& child : policy.GetChildren()) {
        if (auto* task = dynamic_cast<const Engine::DetectWebshellTaskPolicy*>(child.get())) {
            return task;
        }
    }
    return nullptr;
}

}  // namespace

// Values set in the document are checked where they take effect; here what
// no behaviour test shows: defaults, and names that come from the document.
TEST(DetectWebshellPolicy, AbsentOptionalKeysTakeDefaults)
{
    Json::Value doc = ValidDoc();
    doc["content"]["default_scan_paths"].append("/var/www");  // duplicates are kept in the list
    doc["hash"] = "h-1";
    Poco::AutoPtr<Engine::DetectWebshellPolicy> policy;
    ASSERT_TRUE(Parses(doc, &policy));
    EXPECT_EQ(policy->GetName(), "detect_webshell");
    EXPECT_EQ(policy->GetDefaultScanPathList(), (std::list<std::string>{"/var/www", "/var/www"}));
    const Engine::DetectWebshellTaskPolicy* schedule = ScheduleOf(*policy);
    ASSERT_NE(schedule, nullptr);
    EXPECT_EQ(schedule->GetName(), "auto_scan_wehshell_task");
    EXPECT_FALSE(policy->PolicyChanged("h-1", ""));
    EXPECT_TRUE(policy->PolicyChanged("h-2", ""));

    for (const char* key : {"enabled", "hash", "feature_name"}) {
        doc.removeMember(key);
    }
    for (const char* key : {"monitor_file_change", "monitor_container", "file_type", "max_file_size",
                            "upload_file_count_per_day"}) {
        doc["content"].removeMember(key);
    }
    ASSERT_TRUE(Parses(doc, &policy));
    EXPECT_TRUE(policy->IsEnabled());
    EXPECT_EQ(policy->GetHash(), "");
    EXPECT_EQ(policy->GetName(), "") << "the name comes from the document only";
    EXPECT_FALSE(policy->IsMonitorFileChange());
    EXPECT_FALSE(policy->IsMonitorContainer());
    EXPECT_EQ(policy->GetFileType(), "");
    EXPECT_EQ(policy->GetMaxFileSize(), 10485760);
    EXPECT_EQ(policy->GetUploadFileCountPerDay(), 100);
}

TEST(DetectWebshellPolicy, MissingOrMistypedRequiredKeysRefuseTheDocument)
{
    using Edit = std::function<void(Json::Value&)>;
    const std::vector<std::pair<const char*, Edit>> edits = {
        {"no content", [](Json::Value& d) { d.removeMember("content"); }},
        {"content not an object", [](Json::Value& d) { d["content"] = Json::Value(Json::arrayValue); }},
        {"no default paths", [](Json::Value& d) { d["content"].removeMember("default_scan_paths"); }},
        {"no custom paths", [](Json::Value& d) { d["content"].removeMember("customize_scan_paths"); }},
        {"paths a string", [](Json::Value& d) { d["content"]["customize_scan_paths"] = "/var/www"; }},
        {"no schedule", [](Json::Value& d) { d["content"].removeMember("auto_scan_task"); }},
    };
    // JSON that is not an object (malformed text is the parser's own test).
    for (const std::string text : {"[]", "[1, 2]", "\"detect_webshell\"", "42", "null", "true"}) {
        EXPECT_FALSE(Poco::AutoPtr(new Engine::DetectWebshellPolicy("x"))->Parse(text)) << text;
    }
    for (const auto& [name, edit] : edits) {
        Json::Value doc = ValidDoc();
        edit(doc);
        EXPECT_FALSE(Parses(doc)) << name;
    }
    for (const char* key : {"lib_version", "lib_url", "lib_hash"}) {
        Json::Value doc = ValidDoc();
        doc["content"][key] = "";
        EXPECT_FALSE(Parses(doc)) << key << " empty";
        doc["content"].removeMember(key);
        EXPECT_FALSE(Parses(doc)) << key << " absent";
    }
    // certain_min_score is optional (its effect is checked with the scan),
    // but anything other than an integer refuses the document naming it.
    Poco::AutoPtr<Engine::DetectWebshellPolicy> policy;
    Json::Value doc = ValidDoc();
    for (const Json::Value& bad : {Json::Value("75"), Json::Value(75.0), Json::Value(true), Json::Value()}) {
        doc["content"]["certain_min_score"] = bad;
        EXPECT_FALSE(Parses(doc, &policy)) << bad;
        EXPECT_EQ(policy->GetRefusal(), "content.certain_min_score must be an integer");
    }
}

TEST(DetectWebshellPolicy, ArbitraryBytesInPathsAreKeptExactly)
{
    // Raw bytes that are not UTF-8, an escaped character, quotes and a
    // backslash, written into the document text by hand.
    const std::string raw = std::string("/srv/caf\xc3\xa9/\x80\xff") + "\xc3\xa9 sp ace \"q\" back\\slash/";
    const std::string inJson = std::string("/srv/caf\xc3\xa9/\x80\xff") + "\\u00e9 sp ace \\\"q\\\" back\\\\slash/";
    Json::Value doc = ValidDoc();
    doc["content"]["customize_scan_paths"] = Json::Value(Json::arrayValue);
    doc["content"]["customize_scan_paths"].append("PLACEHOLDER");
    const std::string text = WithText(doc, inJson + "\",\"" + inJson.substr(0, inJson.size() - 1));

    Poco::AutoPtr<Engine::DetectWebshellPolicy> policy(new Engine::DetectWebshellPolicy("detect_webshell"));
    ASSERT_TRUE(policy->Parse(text)) << text;
    ASSERT_EQ(policy->GetCustomizeScanPathList().size(), 2u);
    EXPECT_EQ(policy->GetCustomizeScanPathList().front(), raw);
    // With and without the trailing slash are two different paths.
    EXPECT_EQ(policy->GetCustomizeScanPathList().back(), raw.substr(0, raw.size() - 1));
}

TEST(DetectWebshellPolicy, ControlCharactersInPathValuedKeysAreRefusedNamingTheKey)
{
    // (key, index in its list or -1) x control character written as JSON escapes.
    const struct {
        const char* key;
        int index;
    } keys[] = {{"customize_scan_paths", 1}, {"default_scan_paths", 0}, {"lib_url", -1}, {"file_type", -1}};
    const char* const escapes[] = {"\\u0000", "\\u0001", "\\n", "\\t", "\\u001b", "\\u007f"};
    for (const auto& key : keys) {
        for (const char* escape : escapes) {
            Json::Value doc = ValidDoc();
            doc["content"]["customize_scan_paths"].append("/srv/other");
            Json::Value& slot = key.index < 0 ? doc["content"][key.key] : doc["content"][key.key][key.index];
            slot = "PLACEHOLDER";
            Poco::AutoPtr<Engine::DetectWebshellPolicy> policy(new Engine::DetectWebshellPolicy("x"));
            EXPECT_FALSE(policy->Parse(WithText(doc, std::string("/srv/www") + escape + "/etc")))
                << key.key << " " << escape;
            const std::string named = key.index < 0 ? std::string(key.key)
                                                    : std::string(key.key) + "[" + std::to_string(key.index) + "]";
            EXPECT_EQ(policy->GetRefusal().find("\"" + named + "\" holds the control character"), 0u)
                << policy->GetRefusal();
            EXPECT_NE(policy->GetRefusal().find("at byte 8"), std::string::npos) << policy->GetRefusal();
        }
    }
}

TEST(DetectWebshellPolicy, ExamplePolicyParsesAndNamesTheStarterLibrary)
{
    const std::string text = TestSupport::ReadFile(TestSupport::SourceDir() + "/examples/policy/10001.json");
    Poco::AutoPtr<Engine::DetectWebshellPolicy> policy(new Engine::DetectWebshellPolicy("x"));
    ASSERT_TRUE(policy->Parse(text)) << policy->GetRefusal();
    EXPECT_EQ(policy->GetName(), "detect_webshell");
    EXPECT_NE(ScheduleOf(*policy), nullptr);
    EXPECT_EQ(policy->GetLibHash(), TestSupport::Sha256Sum(TestSupport::SourceDir() + "/examples/rules/webshell.yar"))
        << "examples/policy/10001.json is stale";
}

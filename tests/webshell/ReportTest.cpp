// The detection event of a host file and duplicate suppression; container
// events are checked end to end, uploads with the walk and the quota.

#include <regex>
#include <set>

#include <gtest/gtest.h>

#include "WebshellTestUtil.h"
#include "sdk/TimeUtils.h"
#include "webshell/ScanWebshellTask.h"

using namespace WebshellTest;

namespace {

class ReportTest : public TaskFixture<Engine::OnceScanWebshellTask> {
protected:
    void SetUp() override
    {
        TaskFixture::SetUp();
        doc.defaultPaths = {web.MkDir("www")};
        Apply();
        ASSERT_TRUE(task->ParsePolicyContent());
    }
};

std::set<std::string> Keys(const Json::Value& object)
{
    std::set<std::string> keys;
    for (auto& name : object.getMemberNames()) {
        keys.insert(name);
    }
    return keys;
}

}  // namespace

TEST_F(ReportTest, HostFileEventCarriesEveryFieldAndTheFileDigest)
{
    const std::string shell = web.Write("www/dir with space/sh\"ell.php", std::string("<?php ") + kCertainMark);
    const int64_t before = SDK::TimeUtils::GetCurrentTimestampS();
    task->ScanFromFile(shell, Engine::ContainerCacheInfo());
    const int64_t after = SDK::TimeUtils::GetCurrentTimestampS();

    auto messages = env.Sent<Framework::DataMessage>(kDataReport);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0]->GetDataType(), "2");
    const std::string text = messages[0]->GetContent();
    EXPECT_EQ(text.find('\n'), std::string::npos) << "one line";

    const Json::Value event = ParseJson(text);
    std::set<std::string> keys = Keys(event);
    keys.erase("host_id");  // present only where /etc/machine-id is readable
    EXPECT_EQ(keys, (std::set<std::string>{"event_id", "event_classid", "event_name", "occur_time",
                                           "event_category", "event_type", "severity", "event_count",
                                           "attack_phase", "attack_tag", "confidence", "detect_module",
                                           "file_info", "occur_time_iso", "host_name", "agent_version",
                                           "rule_name", "layer_depth"}));
    EXPECT_EQ(event["rule_name"].asString(), "certain_mark");
    EXPECT_TRUE(std::regex_match(event["event_id"].asString(),
                                 std::regex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}")))
        << event["event_id"].asString();
    ASSERT_TRUE(event["occur_time"].isIntegral());
    EXPECT_GE(event["occur_time"].asInt64(), before);
    EXPECT_LE(event["occur_time"].asInt64(), after);
    const std::pair<const char*, int> numbers[] = {{"event_category", 1000}, {"event_type", 1015}, {"severity", 2},
                                                   {"event_count", 1},       {"attack_phase", 6},  {"attack_tag", 2},
                                                   {"confidence", 90}};
    for (const auto& [key, value] : numbers) {
        EXPECT_EQ(event[key].asInt(), value) << key;
    }
    EXPECT_EQ(event["event_classid"].asString() + " " + event["event_name"].asString() + " " +
                  event["detect_module"].asString(),
              "webshell_0001 webshell webshell_module");

    // A host file: an array holding one file object.
    ASSERT_TRUE(event["file_info"].isArray());
    ASSERT_EQ(event["file_info"].size(), 1u);
    const Json::Value& file = event["file_info"][0];
    EXPECT_EQ(Keys(file), (std::set<std::string>{"file_path", "file_key_word", "file_sha256"}));
    EXPECT_EQ(file["file_path"].asString(), shell);
    EXPECT_EQ(file["file_key_word"].asString(), kCertainMark);
    EXPECT_EQ(file["file_sha256"].asString(), TestSupport::Sha256Sum(shell));

    // Each event has its own id; the same path within a minute is reported
    // once per task, and each task keeps its own history.
    const std::string second = web.Write("www/second.php", std::string("<?php ") + kCertainMark);
    task->ScanFromFile(second, Engine::ContainerCacheInfo());
    task->ScanFromFile(shell, Engine::ContainerCacheInfo());
    auto events = env.Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_NE(events[0]["event_id"].asString(), events[1]["event_id"].asString());
    Poco::AutoPtr<Engine::OnceScanWebshellTask> other(new Engine::OnceScanWebshellTask());
    other->SetFeaturePolicy(policy.get());
    ASSERT_EQ(other->Init(), 0);
    ASSERT_TRUE(other->ParsePolicyContent());
    other->ScanFromFile(shell, Engine::ContainerCacheInfo());
    EXPECT_EQ(env.Events().size(), 3u);
    other->UnInit();
}

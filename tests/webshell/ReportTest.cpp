// The detection event (both shapes) and duplicate suppression; uploads of
// uncertain matches are checked with the walk and the quota.

#include <regex>
#include <set>

#include <gtest/gtest.h>

#include "WebshellTestUtil.h"
#include "sdk/TimeUtils.h"
#include "webshell/DetectResult.h"
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

    // Each event has its own id.
    const std::string second = web.Write("www/second.php", std::string("<?php ") + kCertainMark);
    task->ScanFromFile(second, Engine::ContainerCacheInfo());
    auto events = env.Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_NE(events[0]["event_id"].asString(), events[1]["event_id"].asString());
}

TEST_F(ReportTest, ContainerFileEventUsesTheInContainerPathAndABareFileObject)
{
    const std::string root = web.MkDir("var/lib/c1/merged");
    const std::string shell = web.Write("var/lib/c1/merged/www/a.php", std::string("<?php ") + kCertainMark);
    Engine::ContainerInfo container;
    container.id = "4f1c0ffee";
    container.name = "web1";
    container.imageId = "sha256:9a8b";
    container.imageName = "nginx:1.25";
    container.rootPath = root;
    Engine::DetectResult result;
    result.matched = result.certain = true;
    result.keyWord = kCertainMark;
    task->SendDetectResultMsg(shell, result, container);

    auto events = env.Events();
    ASSERT_EQ(events.size(), 1u);
    const Json::Value& event = events[0];
    // Names and ids of the container are checked end to end.
    EXPECT_EQ(event["container_name"].asString(), "web1");
    ASSERT_TRUE(event["file_info"].isObject()) << "a container file gives a bare object";
    EXPECT_EQ(event["file_info"]["file_path"].asString(), "/www/a.php");
    EXPECT_EQ(event["file_info"]["file_sha256"].asString(), TestSupport::Sha256Sum(shell));
    EXPECT_EQ(event["file_info"]["file_key_word"].asString(), kCertainMark);

    // A name without an id is a host file; no digest for a missing file;
    // no key word when the match text is empty.
    Engine::ContainerInfo nameOnly;
    nameOnly.name = "web1";
    nameOnly.rootPath = root;
    result.keyWord.clear();
    const std::string missing = web.Join("var/lib/c1/merged/www/gone.php");
    task->SendDetectResultMsg(missing, result, nameOnly);
    events = env.Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_FALSE(events[1].isMember("container_name"));
    EXPECT_FALSE(events[1].isMember("resource_info"));
    ASSERT_TRUE(events[1]["file_info"].isArray());
    EXPECT_EQ(Keys(events[1]["file_info"][0]), (std::set<std::string>{"file_path"}));
    EXPECT_EQ(events[1]["file_info"][0]["file_path"].asString(), missing);
}

TEST_F(ReportTest, SamePathWithinAMinuteIsReportedOnce)
{
    const std::string shell = web.Write("www/a.php", std::string("<?php ") + kCertainMark);
    task->ScanFromFile(shell, Engine::ContainerCacheInfo());
    task->ScanFromFile(shell, Engine::ContainerCacheInfo());
    EXPECT_EQ(env.Events().size(), 1u);

    // Each task keeps its own history: another task reports the file too.
    Poco::AutoPtr<Engine::OnceScanWebshellTask> other(new Engine::OnceScanWebshellTask());
    other->SetFeaturePolicy(policy.get());
    ASSERT_EQ(other->Init(), 0);
    ASSERT_TRUE(other->ParsePolicyContent());
    other->ScanFromFile(shell, Engine::ContainerCacheInfo());
    EXPECT_EQ(env.Events().size(), 2u);
    other->UnInit();
}

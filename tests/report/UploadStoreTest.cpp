// Kept uploads: named by the SHA-256 that sha256sum prints, mode 0600 in a
// 0700 directory, a sidecar that tells where the file came from, and a
// refusal, without blocking, of anything that is not a regular file.

#include <sys/time.h>

#include <string>

#include <gtest/gtest.h>

#include "report/UploadStore.h"
#include "sdk/TimeUtils.h"
#include "testsupport/TestSupport.h"

namespace {

using Report::UploadOptions;
using Report::UploadResult;
using Report::UploadStore;
using TestSupport::ModeOf;
using TestSupport::ParseJson;
using TestSupport::ReadFile;
using TestSupport::TempDir;

UploadStore Store(const std::string& dir, uint64_t maxBytes = 1024 * 1024)
{
    UploadOptions options;
    options.dir = dir;
    options.maxBytes = maxBytes;
    return UploadStore(options);
}

std::string Listing(const std::string& dir)
{
    std::string listing;
    TestSupport::RunCommand("ls -A '" + dir + "'", &listing);
    return listing;
}

}  // namespace

// The directory's own mode and links in its place are MakePrivateDir's
// (tests/sdk); the end-to-end scan checks the copy's mode and its name.
TEST(UploadStore, KeepsOneCopyUnderItsSha256WithASidecarAndRefusesWhatItMustNotKeep)
{
    TempDir dir;
    const std::string uploads = dir.Join("data/upload");
    const std::string source = dir.Write("www/shell one.php", "<?php exit; /* eval($_POST[x]) */ ?>\n", 0755);
    UploadStore store = Store(uploads);

    const int64_t before = SDK::TimeUtils::GetCurrentTimestampS();
    const UploadResult r = store.Store(source, "webshell");
    ASSERT_EQ(r.outcome, UploadResult::STORED) << r.error;
    const std::string sha = TestSupport::Sha256Sum(source);
    EXPECT_EQ(r.storedPath, uploads + "/" + sha);
    EXPECT_EQ(ReadFile(r.storedPath), ReadFile(source));
    EXPECT_EQ(ModeOf(r.storedPath), 0600u);  // the source was 0755: never executable here
    EXPECT_EQ(ModeOf(r.storedPath + ".json"), 0600u);

    const Json::Value side = ParseJson(ReadFile(r.storedPath + ".json"));
    EXPECT_EQ(side["path"].asString(), source);
    EXPECT_EQ(side["size"].asUInt64(), ReadFile(source).size());
    EXPECT_EQ(side["kind"].asString(), "webshell");
    EXPECT_EQ(side["sha256"].asString(), sha);
    EXPECT_GE(side["time"].asInt64(), before);

    // Same content from elsewhere: one copy, the first sidecar stays.
    const UploadResult again = store.Store(dir.Write("www/copy.php", ReadFile(source)), "webshell");
    EXPECT_EQ(again.outcome, UploadResult::DUPLICATE);
    EXPECT_EQ(ParseJson(ReadFile(r.storedPath + ".json"))["path"].asString(), source);
    EXPECT_EQ(Listing(uploads), sha + "\n" + sha + ".json\n");

    // What it must not keep is refused, without blocking, and nothing is written.
    const std::string refusing = dir.MkDir("refusing", 0700);
    UploadStore small = Store(refusing, 16);

    struct Case {
        std::string path;
        std::string kind;
        UploadResult::Outcome outcome;
        std::string expected;
    };
    const Case cases[] = {
        // No writer: a blocking open would hang.
        {dir.Fifo("www/pipe.php"), "webshell", UploadResult::REFUSED, "not a regular file"},
        {dir.Socket("www/sock.php"), "webshell", UploadResult::REFUSED, "not a regular file"},
        {dir.MkDir("www/dir.php"), "webshell", UploadResult::REFUSED, "not a regular file"},
        {dir.Write("www/big.php", std::string(17, 'b')), "webshell", UploadResult::REFUSED,
         "larger than the cap"},
        {dir.Write("www/fine.php", "fine"), "core_dump", UploadResult::REFUSED, "unsupported upload kind"},
        {dir.Join("www/gone.php"), "webshell", UploadResult::FAILED, "No such file"},
    };
    for (const auto& c : cases) {
        const UploadResult refused = small.Store(c.path, c.kind);
        EXPECT_EQ(refused.outcome, c.outcome) << c.path << ": " << refused.error;
        EXPECT_NE(refused.error.find(c.expected), std::string::npos) << c.path << ": " << refused.error;
    }
    EXPECT_EQ(Listing(refusing), "");
}

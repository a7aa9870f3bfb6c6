// Kept uploads: named by the SHA-256 that sha256sum prints, mode 0600 in a
// 0700 directory, a sidecar that tells where the file came from, and a
// refusal, without blocking, of anything that is not a regular file.

#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <json/json.h>

#include "report/UploadStore.h"
#include "sdk/TimeUtils.h"
#include "testsupport/TestSupport.h"

namespace {

using Report::UploadOptions;
using Report::UploadResult;
using Report::UploadStore;
using TestSupport::ReadFile;
using TestSupport::TempDir;

mode_t ModeOf(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

Json::Value ParseFile(const std::string& path)
{
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    const std::string text = ReadFile(path);
    Json::Value value;
    std::string errors;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors))
        << path << ": " << errors;
    return value;
}

UploadStore Store(const std::string& dir, uint64_t maxBytes = 1024 * 1024)
{
    UploadOptions options;
    options.dir = dir;
    options.maxBytes = maxBytes;
    return UploadStore(options, nullptr);
}

}  // namespace

TEST(UploadStore, KeepsAPrivateCopyUnderItsSha256WithASidecar)
{
    TempDir dir;
    // The directory exists with a loose mode, as a build tree creates it.
    const std::string uploads = dir.MkDir("data/upload", 0755);
    const std::string source =
        dir.Write("www/shell one.php", "<?php exit; /* eval($_POST[x]) */ ?>\n", 0755);
    UploadStore store = Store(uploads);

    const int64_t before = SDK::TimeUtils::GetCurrentTimestampS();
    const UploadResult r = store.Store(source, "webshell");
    ASSERT_EQ(r.outcome, UploadResult::STORED) << r.error;
    const std::string sha = TestSupport::Sha256Sum(source);
    EXPECT_EQ(r.sha256, sha);
    EXPECT_EQ(r.storedPath, uploads + "/" + sha);
    EXPECT_EQ(ReadFile(r.storedPath), ReadFile(source));
    EXPECT_EQ(ModeOf(r.storedPath), 0600u);  // the source was 0755: never executable here
    EXPECT_EQ(ModeOf(uploads), 0700u);
    EXPECT_EQ(ModeOf(r.storedPath + ".json"), 0600u);

    const Json::Value side = ParseFile(r.storedPath + ".json");
    EXPECT_EQ(side["path"].asString(), source);
    EXPECT_EQ(side["size"].asUInt64(), ReadFile(source).size());
    EXPECT_EQ(side["kind"].asString(), "webshell");
    EXPECT_EQ(side["sha256"].asString(), sha);
    EXPECT_GE(side["time"].asInt64(), before);
    EXPECT_LE(side["time"].asInt64(), SDK::TimeUtils::GetCurrentTimestampS());

    // Same content from elsewhere: one copy, the first sidecar stays.
    const std::string twin = dir.Write("www/copy.php", ReadFile(source));
    const UploadResult again = store.Store(twin, "webshell");
    EXPECT_EQ(again.outcome, UploadResult::DUPLICATE);
    EXPECT_EQ(again.sha256, sha);
    EXPECT_EQ(ParseFile(r.storedPath + ".json")["path"].asString(), source);

    // Only the copy, its sidecar and nothing temporary are in the directory.
    std::string listing;
    TestSupport::RunCommand("ls -A '" + uploads + "'", &listing);
    EXPECT_EQ(listing, sha + "\n" + sha + ".json\n");
}

TEST(UploadStore, CreatesAMissingDirectoryPrivate)
{
    TempDir dir;
    const std::string uploads = dir.Join("install/data/upload");
    UploadStore store = Store(uploads);
    const UploadResult r = store.Store(dir.Write("a.php", "x"), "webshell");
    ASSERT_EQ(r.outcome, UploadResult::STORED) << r.error;
    EXPECT_EQ(ModeOf(uploads), 0700u);
}

TEST(UploadStore, RefusesWhatItMustNotKeep)
{
    TempDir dir;
    const std::string uploads = dir.MkDir("upload", 0700);
    UploadStore store = Store(uploads, 16);
    const std::string fifo = dir.Fifo("www/pipe.php");  // no writer: a blocking open would hang
    const std::string socket = dir.Socket("www/sock.php");
    const std::string subdir = dir.MkDir("www/dir.php");
    const std::string big = dir.Write("www/big.php", std::string(17, 'b'));
    const std::string fine = dir.Write("www/fine.php", "fine");

    struct Case {
        std::string path;
        std::string kind;
        UploadResult::Outcome outcome;
        std::string expected;
    };
    const Case cases[] = {
        {fifo, "webshell", UploadResult::REFUSED, "not a regular file"},
        {socket, "webshell", UploadResult::REFUSED, "not a regular file"},
        {subdir, "webshell", UploadResult::REFUSED, "not a regular file"},
        {big, "webshell", UploadResult::REFUSED, "larger than the cap"},
        {fine, "core_dump", UploadResult::REFUSED, "unsupported upload kind"},
        {dir.Join("www/gone.php"), "webshell", UploadResult::FAILED, "No such file"},
    };
    for (const auto& c : cases) {
        const UploadResult r = store.Store(c.path, c.kind);
        EXPECT_EQ(r.outcome, c.outcome) << c.path << ": " << r.error;
        EXPECT_NE(r.error.find(c.expected), std::string::npos) << c.path << ": " << r.error;
    }
    std::string listing;
    TestSupport::RunCommand("ls -A '" + uploads + "'", &listing);
    EXPECT_EQ(listing, "");
}

TEST(UploadStore, NeverWritesThroughALinkInPlaceOfTheDirectory)
{
    TempDir dir;
    const std::string elsewhere = dir.MkDir("elsewhere", 0755);
    const std::string uploads = dir.Symlink(elsewhere, "upload");
    UploadStore store = Store(uploads);
    const UploadResult r = store.Store(dir.Write("a.php", "x"), "webshell");
    EXPECT_EQ(r.outcome, UploadResult::FAILED);
    EXPECT_NE(r.error.find("not a directory"), std::string::npos) << r.error;
    std::string listing;
    TestSupport::RunCommand("ls -A '" + elsewhere + "'", &listing);
    EXPECT_EQ(listing, "");
    EXPECT_EQ(ModeOf(elsewhere), 0755u);
}

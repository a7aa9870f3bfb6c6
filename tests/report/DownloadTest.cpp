// Downloads into a target that already holds a good file: from file:// and
// from a loopback HTTP server, successes and every way of failing. The old
// target must survive each failure byte for byte and no temporary file may
// be left behind.

#include <sys/time.h>

#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/Glob.h>
#include <Poco/Net/ServerSocket.h>

#include "LoopbackHttpServer.h"
#include "report/Downloader.h"
#include "testsupport/TestSupport.h"

namespace {

using Report::Download;
using Report::DownloadLimits;
using Report::DownloadResult;
using TestSupport::ReadFile;
using TestSupport::ModeOf;
using TestSupport::TempDir;

const std::string kOld = "rule old_rules { condition: false }\n";

std::set<std::string> Leftovers(const std::string& target)
{
    std::string pattern = Download::TempPattern(target);
    std::set<std::string> found;
    Poco::Glob::glob(pattern.replace(pattern.size() - 6, 6, "*"), found);
    return found;
}

DownloadLimits Limits(uint64_t maxBytes = 1024 * 1024, int timeoutS = 10)
{
    DownloadLimits limits;
    limits.maxBytes = maxBytes;
    limits.timeoutS = timeoutS;
    return limits;
}

}  // namespace

TEST(Download, SuccessesReplaceTheTargetWholeAndPrivateAndEveryFailureKeepsIt)
{
    LoopbackHttpServer server;
    LoopbackHttpServer closed;
    closed.Down();
    // A peer that takes connections and never says a word: a TLS client
    // waits for the server's hello, a plain one for the response.
    Poco::Net::ServerSocket silent(Poco::Net::SocketAddress("127.0.0.1", 0));
    const std::string hostPort = "127.0.0.1:" + std::to_string(silent.address().port());
    TempDir dir;
    const std::string body = "rule fresh { strings: $a = \"x\" condition: $a }\n";
    dir.Write("src dir/rules new.yar", body);
    const std::string target = dir.Write("data/webshell.dat", kOld, 0640);
    // What a crash left beside the target long ago goes with the next download.
    const std::string leftover = dir.Write("data/.webshell.dat.part.Q1w2E3", "half");
    struct timeval old[2] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(0, utimes(leftover.c_str(), old));
    ASSERT_EQ(Leftovers(target), std::set<std::string>{leftover});

    // Spaces in the path travel percent-encoded, as a URL builder writes them.
    DownloadResult r = Download("file://" + dir.Join("src%20dir/rules%20new.yar"), target, Limits()).Run();
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.bytes, body.size());
    EXPECT_EQ(ReadFile(target), body);
    EXPECT_TRUE(Leftovers(target).empty());
    EXPECT_EQ(ModeOf(target), 0600u);  // whatever the source's mode was

    const std::string big(300 * 1024, 'y');  // several reads
    server.SetBody("rules", big);
    r = Download(server.Url("/ok/rules"), target, Limits()).Run();
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.bytes, big.size());
    EXPECT_EQ(ReadFile(target), big);
    server.SetBody("other", kOld);
    r = Download(server.Url("/redirect/other"), target, Limits()).Run();
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(ReadFile(target), kOld);
    EXPECT_EQ(r.finalUrl, server.Url("/ok/other"));
    EXPECT_EQ(server.Hits("/redirect/other"), 1);

    // Every failure keeps what the target held.
    dir.Write("big.yar", std::string(2048, 'r'));
    struct Case {
        std::string url;
        DownloadLimits limits;
        std::string expected;  // part of the error
    };
    const std::vector<Case> cases = {
        {"file://" + dir.Join("absent.yar"), Limits(), "No such file"},
        {"file://" + dir.Fifo("pipe.yar"), Limits(), "not a regular file"},  // must not hang
        {"file://" + dir.Join("big.yar"), Limits(1024), "larger than the cap"},
        {"file://otherhost/etc/hosts", Limits(), "otherhost"},
        {"ftp://127.0.0.1/rules.yar", Limits(), "unsupported URL scheme"},
        {"http://[broken", Limits(), "malformed URL"},
        {server.Url("/missing"), Limits(), "HTTP 404"},
        {server.Url("/big"), Limits(), "larger than the cap"},
        {server.Url("/big-chunked"), Limits(), "larger than the cap"},
        {server.Url("/half"), Limits(), "connection closed after"},
        {server.Url("/slow/rules"), Limits(1024 * 1024, 1), "timed out after 1 s"},
        {server.Url("/loop"), Limits(), "redirects"},
        {closed.Url("/rules"), Limits(), "refused"},
        {"http://" + hostPort + "/rules", Limits(1024, 1), "timed out after 1 s"},
        {"https://" + hostPort + "/rules", Limits(1024, 1), "timed out after 1 s"},
        // TLS spoken to a plain HTTP server fails in the handshake.
        {"https" + server.Url("/ok/none").substr(4), Limits(1024 * 1024, 2), ""},
    };
    for (const auto& c : cases) {
        r = Download(c.url, target, c.limits).Run();
        EXPECT_FALSE(r.ok) << c.url;
        EXPECT_FALSE(r.error.empty()) << c.url;
        EXPECT_NE(r.error.find(c.expected), std::string::npos) << c.url << ": " << r.error;
        EXPECT_EQ(ReadFile(target), kOld) << c.url;
        EXPECT_TRUE(Leftovers(target).empty()) << c.url;
    }

    r = Download("file://" + dir.Join("big.yar"), "relative/target", Limits()).Run();
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.error.find("not absolute"), std::string::npos) << r.error;
}

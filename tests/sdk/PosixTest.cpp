// The POSIX helpers and the host-root layer on real trees: what is refused
// (and that refusing never blocks), links that never lead out of a prefix or
// into a private directory, and stale temporary files.

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sdk/HostRoot.h"
#include "sdk/Posix.h"
#include "testsupport/TestSupport.h"

#include "Deadline.h"

using SDK::HostRoot;
using SDK::ReadError;
using TestSupport::ModeOf;
using TestSupport::TempDir;

TEST(Posix, ReadsPrivateDirectoriesAndStaleFileRemovalLeaveAloneWhatTheyMustNot)
{
    TempDir dir("sdk-posix");
    const std::string file = dir.Write("conf", "0123456789");
    struct Case {
        std::string path;
        std::size_t cap;
        bool noFollow;
        ReadError error;
        std::string reason;
    };
    const Case cases[] = {
        {file, 10, false, ReadError::None, ""},
        {dir.Join("missing"), 10, false, ReadError::Missing, "No such file"},
        {dir.Join("conf/below"), 10, false, ReadError::Missing, "Not a directory"},
        {file, 9, false, ReadError::TooLarge, "larger than 9 bytes"},
        {dir.Path(), 10, false, ReadError::NotRegular, "is a directory"},
        {dir.Fifo("fifo.conf"), 10, false, ReadError::NotRegular, "not a regular file"},
        {dir.Socket("sock.conf"), 10, false, ReadError::Failed, "No such device"},
        {dir.Symlink(file, "link"), 10, true, ReadError::NotRegular, "symbolic link"},
        {dir.Join("link"), 10, false, ReadError::None, ""},
    };
    for (const Case& c : cases) {
        std::string out = "stale";
        SDK::ReadResult r;
        // A FIFO without a writer must be refused at once, not waited on.
        ASSERT_TRUE(ReturnsWithoutWaitingOn(c.path, [&] {
            r = SDK::ReadRegularFile(c.path, c.cap, out, c.noFollow);
        })) << c.path;
        EXPECT_EQ(r.error, c.error) << c.path << ": " << r.status.message();
        EXPECT_NE(r.reason.find(c.reason), std::string::npos) << c.path << ": " << r.reason;
        EXPECT_EQ(out, r.ok() ? "0123456789" : "") << c.path;
        if (!r.ok()) {
            EXPECT_EQ(r.status.message(), c.path + ": " + r.reason);
        }
    }

    // Missing: made, parents too; loose: tightened.
    const std::string fresh = dir.Join("a/b/private");
    ASSERT_TRUE(SDK::MakePrivateDir(fresh)) << fresh;
    EXPECT_EQ(ModeOf(fresh), 0700u);
    const std::string loose = dir.MkDir("loose", 0755);
    ASSERT_TRUE(SDK::MakePrivateDir(loose));
    EXPECT_EQ(ModeOf(loose), 0700u);

    // A link planted in its place is refused and its target keeps its mode.
    const std::string target = dir.MkDir("target", 0755);
    const std::string link = dir.Symlink(target, "upload");
    const SDK::Status refused = SDK::MakePrivateDir(link);
    EXPECT_FALSE(refused);
    EXPECT_NE(refused.message().find("not a directory"), std::string::npos) << refused.message();
    EXPECT_EQ(ModeOf(target), 0755u);

    // Only old regular files with the prefix go; nothing behind a link.
    const std::string old = dir.Write("loose/.incoming.old", "x");
    const std::string recent = dir.Write("loose/.incoming.new", "x");
    const std::string other = dir.Write("loose/kept", "x");
    const std::string elsewhere = dir.Write("target/.incoming.behind", "x");
    const std::string oldLink = dir.Symlink(elsewhere, "loose/.incoming.link");
    const struct timeval longAgo[2] = {{1000, 0}, {1000, 0}};
    for (const auto& p : {old, other, elsewhere}) {
        ASSERT_EQ(0, utimes(p.c_str(), longAgo));
    }
    EXPECT_EQ(SDK::RemoveStaleFiles(loose, ".incoming.", 60), 1);
    EXPECT_FALSE(TestSupport::FileExists(old));
    for (const auto& p : {recent, other, elsewhere, oldLink}) {
        EXPECT_EQ(0, access(p.c_str(), F_OK)) << p;
    }
    EXPECT_EQ(SDK::RemoveStaleFiles(link, ".incoming.", 60), 0);
}

TEST(HostRoot, LinksResolveInsideThePrefixAndNeverLeadOut)
{
    TempDir dir("sdk-hostroot");
    // A container root whose absolute links must stay inside it.
    dir.Write("root/etc/nginx/sites-available/default", "inside");
    dir.Write("root/etc/nginx/conf.d/a.conf", "a");
    dir.Write("root/etc/nginx/conf.d/sub/b.conf", "b");
    dir.Symlink("/etc/nginx/sites-available/default", "root/etc/nginx/sites-enabled/default");
    dir.Symlink("/etc/nginx/sites-available", "root/etc/nginx/conf.d/linked");
    dir.Symlink("../../srv/real", "root/var/www/site");
    dir.MkDir("root/srv/real");
    dir.Symlink("/etc", "root/etc-link");
    dir.Symlink("loop-b", "root/loop-a");
    dir.Symlink("loop-a", "root/loop-b");
    dir.Write("outside/secret", "host file");
    dir.Symlink(dir.Join("outside/secret"), "root/etc/escape");
    dir.Fifo("root/etc/fifo.conf");
    const std::string prefix = dir.Join("root");
    const HostRoot fs(prefix + "/");

    struct PathCase {
        std::string in;
        std::string host;
    };
    const PathCase paths[] = {
        {"/var/www/site", prefix + "/srv/real"},
        {"/var/www/site/not/yet", prefix + "/srv/real/not/yet"},
        {"/../../etc-link/nginx", prefix + "/etc/nginx"},
        {"/", prefix},
        {"/loop-a/x", prefix + "/loop-a/x"},  // bounded, kept as written
        {"/etc/escape", prefix + dir.Join("outside/secret")},
    };
    for (const auto& c : paths) {
        EXPECT_EQ(fs.HostPath(c.in), c.host) << c.in;
    }
    EXPECT_EQ(HostRoot("/").HostPath("/var/www/"), "/var/www/");
    EXPECT_EQ(HostRoot("").Display(), "/");

    struct ReadCase {
        std::string path;
        HostRoot::FinalLink link;
        std::string content;  // empty: refused
        std::string reason;
    };
    const ReadCase reads[] = {
        {"/etc/nginx/sites-enabled/default", HostRoot::FinalLink::Follow, "inside", ""},
        {"/etc/nginx/sites-enabled/default", HostRoot::FinalLink::Refuse, "", "symbolic link"},
        {"/etc-link/nginx/sites-available/default", HostRoot::FinalLink::Refuse, "inside", ""},
        {"/etc/escape", HostRoot::FinalLink::Follow, "", "No such file"},
        {"/loop-a", HostRoot::FinalLink::Follow, "", "cannot be resolved"},
        {"/etc/fifo.conf", HostRoot::FinalLink::Follow, "", "not a regular file"},
        {"/etc/nginx", HostRoot::FinalLink::Follow, "", "is a directory"},
    };
    for (const auto& c : reads) {
        std::string out;
        const SDK::ReadResult r = fs.ReadFile(c.path, 1024, out, c.link);
        EXPECT_EQ(out, c.content) << c.path;
        EXPECT_NE(r.reason.find(c.reason), std::string::npos) << c.path << ": " << r.reason;
    }

    EXPECT_EQ(fs.Glob("/etc-link/nginx/sites-*/def*"),
              (std::vector<std::string>{"/etc/nginx/sites-available/default",
                                        "/etc/nginx/sites-enabled/default"}));
    EXPECT_EQ(fs.FilesUnder("/etc/nginx/conf.d", 10),
              (std::vector<std::string>{"/etc/nginx/conf.d/a.conf",
                                        "/etc/nginx/conf.d/linked/default",
                                        "/etc/nginx/conf.d/sub/b.conf"}));
    EXPECT_EQ(fs.FilesUnder("/etc/nginx/conf.d", 1).size(), 1u);
    EXPECT_TRUE(fs.IsDirectory("/etc-link"));
    EXPECT_FALSE(fs.IsDirectory("/loop-a"));
    EXPECT_EQ(fs.ReadLink("/etc-link"), "/etc");
    std::vector<SDK::DirEntry> entries;
    ASSERT_TRUE(fs.ListDir("/var/www", entries).ok());
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].type, SDK::DirEntry::Type::Link);
    EXPECT_EQ(fs.ListDir("/nothing", entries).error, ReadError::Missing);
    // A view below a prefix is taken as written, for the kernel to resolve.
    EXPECT_EQ(fs.Below("/var/www/site").Prefix(), prefix + "/var/www/site");
    EXPECT_TRUE(fs.Below("/var/www/site").IsDirectory("/"));
}

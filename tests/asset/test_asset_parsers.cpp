// Configuration readers of the asset service, on texts and temp trees.

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "asset/ApacheConfig.h"
#include "asset/ConfigScan.h"
#include "asset/NginxConfig.h"
#include "asset/ProcessTable.h"
#include "asset/TomcatConfig.h"
#include "testsupport/TestSupport.h"

using namespace Asset;
using TestSupport::TempDir;

namespace {

std::vector<std::string> Paths(const ConfigScan& scan)
{
    std::vector<std::string> out;
    for (const auto& d : scan.dirs) {
        out.push_back(d.path);
    }
    return out;
}

const WebDir* FindDir(const ConfigScan& scan, const std::string& path)
{
    for (const auto& d : scan.dirs) {
        if (d.path == path) {
            return &d;
        }
    }
    return nullptr;
}

bool HasIssue(const ConfigScan& scan, const std::string& file, int line, const std::string& part)
{
    for (const auto& i : scan.issues) {
        if (i.file == file && i.line == line && i.message.find(part) != std::string::npos) {
            return true;
        }
    }
    return false;
}

std::string Describe(const ConfigScan& scan)
{
    std::string out;
    for (const auto& i : scan.issues) {
        out += i.file + ":" + std::to_string(i.line) + ": " + i.message + "\n";
    }
    return out;
}

ConfigScan Nginx(const std::string& text, const std::string& prefix = "/usr/share/nginx/")
{
    SDK::HostRoot fs;
    NginxConfigParser parser(fs, prefix);
    std::istringstream in(text);
    return parser.ParseStream(in, "nginx.conf", "/nonexistent-conf-dir");
}

}  // namespace

TEST(NginxConfig, RootsAndAliasesFollowNginxInheritance)
{
    const char* conf = R"(
user www-data;  # comment after a directive
events { worker_connections 64; }
http {
    root /srv/http-level;
    server {
        listen 80;
        location / { }
        location /static/ { alias "/srv/static files/"; }
        location ~ \.php$ {
            root /srv/php;
            location /php/inner { }   # inherits /srv/php
        }
    }
    server {
        root '/srv/second';
        location /api { proxy_pass http://127.0.0.1:9000; }
        location /img { if ($args) { root /srv/img-if; } }
    }
}
stream { server { listen 9999; } }
)";
    ConfigScan scan = Nginx(conf);
    EXPECT_TRUE(scan.issues.empty()) << Describe(scan);
    std::vector<std::string> expected = {"/srv/http-level", "/srv/static files", "/srv/php",
                                         "/srv/second", "/srv/img-if"};
    EXPECT_EQ(Paths(scan), expected);
    const WebDir* alias = FindDir(scan, "/srv/static files");
    ASSERT_NE(alias, nullptr);
    EXPECT_EQ(alias->origin, "alias");
    EXPECT_EQ(alias->line, 9);
    const WebDir* inherited = FindDir(scan, "/srv/http-level");
    ASSERT_NE(inherited, nullptr);
    EXPECT_EQ(inherited->line, 5);  // where the inherited root is written

    // Without a root anywhere above, a server or a location that serves
    // files uses nginx's built-in one; a proxying location does not.
    ConfigScan defaults = Nginx(
        "http {\n"
        "  server { listen 8080; }\n"
        "  server { location / { proxy_pass http://127.0.0.1:1; } }\n"
        "  server { location /files { } }\n"
        "}\n");
    EXPECT_EQ(Paths(defaults), std::vector<std::string>{"/usr/share/nginx/html"});
    EXPECT_EQ(defaults.dirs[0].origin, "default root");
    EXPECT_EQ(defaults.dirs[0].line, 2);
    EXPECT_TRUE(Paths(Nginx("http { server { location / { proxy_pass http://x; } } }")).empty());
}

TEST(NginxConfig, TokensQuotesEscapesAndVariablesReducedToLiteralDirectories)
{
    const char* conf =
        "http {\n"
        "  server {\n"
        "    root \"/srv/with \\\"quote\\\"\";\n"
        "    location /a { root /srv/a\\;b; }\n"
        "    location /b { root /srv/b#notacomment; }\n"
        "    location /c { root /var/www/${host}/c; }\n"
        "    location /d { root html/relative; }\n"
        "    location /e { alias /$uri; }\n"
        "  }\n"
        "}\n";
    ConfigScan scan = Nginx(conf, "/opt/nginx");
    // "\;" stays as written, as nginx keeps it.
    std::vector<std::string> expected = {"/srv/with \"quote\"", "/srv/a\\;b", "/srv/b#notacomment",
                                         "/var/www", "/opt/nginx/html/relative"};
    EXPECT_EQ(Paths(scan), expected);
    // The alias made only of a variable is refused with a reason, not reported as "/".
    EXPECT_TRUE(HasIssue(scan, "nginx.conf", 8, "no literal directory")) << Describe(scan);

    // A path with variables stands for its literal directories.
    struct Case {
        const char* in;
        const char* out;
    } cases[] = {
        {"/var/www/html", "/var/www/html"},
        {"/var/www/$host", "/var/www"},
        {"/var/www/site$1/htdocs", "/var/www"},
        {"/srv/${SITE}/htdocs", "/srv"},
        {"/var/www//$host", "/var/www"},
        {"/$host", ""},       // nothing literal but "/": never the whole file system
        {"$document_root", ""},
        {"relative/$x", "relative"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(LiteralDirPart(c.in), c.out) << c.in;
    }
}

TEST(NginxConfig, BrokenFilesAreReportedWithLineAndTheRestIsUsed)
{
    struct Case {
        const char* name;
        const char* text;
        std::vector<std::string> paths;
        int line;
        const char* problem;
    } cases[] = {
        {"missing semicolon before brace",
         "http {\n server { root /srv/one\n }\n server { root /srv/two; }\n}\n",
         {"/srv/one", "/srv/two"}, 3, "missing \";\""},
        {"stray closing brace",
         "}\nhttp { server { root /srv/ok; } }\n", {"/srv/ok"}, 1, "unexpected \"}\""},
        {"unterminated block",
         "http {\n server { root /srv/kept; }\n server { root /srv/cut;\n", {"/srv/kept", "/srv/cut"}, 4,
         "unexpected end of file"},
        {"unterminated quote",
         "http { server { root /srv/before; } }\nhttp { server { root \"/srv/x; } }\n",
         {"/srv/before"}, 2, "unterminated quoted string"},
        {"wrong number of arguments",
         "http {\n server {\n  root /a /b;\n  location / { root /srv/loc; }\n }\n}\n",
         {"/srv/loc"}, 3, "invalid number of arguments"},
    };
    for (const auto& c : cases) {
        ConfigScan scan = Nginx(c.text);
        EXPECT_EQ(Paths(scan), c.paths) << c.name;
        EXPECT_TRUE(HasIssue(scan, "nginx.conf", c.line, c.problem)) << c.name << "\n"
                                                                      << Describe(scan);
    }
    // Deep nesting is bounded, not recursed into until the stack gives out.
    std::string deep = "http { server { root /srv/deep; } }\n" + std::string(100000, '{');
    ConfigScan scan = Nginx(deep);
    EXPECT_EQ(Paths(scan), std::vector<std::string>{"/srv/deep"});
    EXPECT_FALSE(scan.issues.empty());
}

TEST(NginxConfig, IncludesWithGlobsRelativeToTheConfigDirectoryAndBoundedCycles)
{
    TempDir dir("asset-nginx");
    const std::string etc = dir.MkDir("etc/nginx");
    dir.Write("etc/nginx/nginx.conf",
              "events {}\n"
              "http {\n"
              "    include mime.types;\n"
              "    include conf.d/*.conf;\n"
              "    include sites-enabled/*;\n"
              "    include missing-dir/*.conf;\n"  // a glob matching nothing is fine
              "    include missing.conf;\n"        // a named file that is missing is not
              "}\n");
    dir.Write("etc/nginx/mime.types", "types { text/html html; }\n");
    dir.Write("etc/nginx/conf.d/b.conf", "server { root /srv/b; }\n");
    dir.Write("etc/nginx/conf.d/a.conf", "server { root /srv/a; include snippets/loc.conf; }\n");
    dir.Write("etc/nginx/conf.d/ignored.txt", "server { root /srv/not-included; }\n");
    dir.Write("etc/nginx/conf.d/.hidden.conf", "server { root /srv/hidden; }\n");
    dir.Write("etc/nginx/snippets/loc.conf", "location /x { alias /srv/a-alias/; }\n");
    dir.Write("etc/nginx/sites-available/site", "server { root /srv/site; }\n");
    dir.MkDir("etc/nginx/sites-enabled");
    dir.Symlink(etc + "/sites-available/site", "etc/nginx/sites-enabled/site");
    dir.Write("etc/nginx/sites-enabled/loop", "include sites-enabled/loop;\n");

    SDK::HostRoot fs;
    NginxConfigParser parser(fs, "/usr/share/nginx");
    ConfigScan scan = parser.ParseFile(etc + "/nginx.conf");
    std::vector<std::string> expected = {"/srv/a", "/srv/a-alias", "/srv/b", "/srv/site"};
    EXPECT_EQ(Paths(scan), expected) << Describe(scan);
    const WebDir* alias = FindDir(scan, "/srv/a-alias");
    ASSERT_NE(alias, nullptr);
    EXPECT_EQ(alias->file, etc + "/snippets/loc.conf");
    EXPECT_EQ(alias->line, 1);
    EXPECT_TRUE(HasIssue(scan, etc + "/sites-enabled/loop", 1, "include cycle"))
        << Describe(scan);
    EXPECT_TRUE(HasIssue(scan, etc + "/nginx.conf", 7, "missing.conf")) << Describe(scan);
    EXPECT_EQ(std::count(scan.files.begin(), scan.files.end(), etc + "/sites-enabled/loop"), 1);

    // A chain of includes longer than the bound stops at the bound (the
    // main file is chain/0.conf, so includes are relative to chain/).
    for (int i = 0; i < 30; ++i) {
        dir.Write("etc/nginx/chain/" + std::to_string(i) + ".conf",
                  "include " + std::to_string(i + 1) + ".conf;\n");
    }
    ConfigScan chain = parser.ParseFile(etc + "/chain/0.conf");
    EXPECT_EQ(chain.files.size(), static_cast<size_t>(NginxConfigParser::kMaxIncludeDepth + 1));
    ASSERT_EQ(chain.issues.size(), 1u) << Describe(chain);
    EXPECT_NE(chain.issues[0].message.find("nested deeper"), std::string::npos);
}

TEST(ApacheConfig, DocumentRootsAliasesIncludesAndVariables)
{
    TempDir dir("asset-apache");
    const std::string root = dir.MkDir("etc/apache2");
    dir.Write("etc/apache2/envvars",
              "unset HOME\n"
              "export APACHE_LOG_DIR=/var/log/apache2$SUFFIX\n"
              "export WEB_BASE=/srv/from-envvars\n");
    dir.Write("etc/apache2/apache2.conf",
              "# main file\n"
              "Define SITE_DIR /srv/defined\n"
              "ErrorLog ${APACHE_LOG_DIR}/error.log\n"
              "IncludeOptional mods-enabled/*.load\n"
              "Include ports.conf\n"
              "DocumentRoot \"${SITE_DIR}/main\"\n"
              "<IfModule alias_module>\n"
              "    Alias /icons/ \"/usr/share/apache2/icons/\"\n"
              "</IfModule>\n"
              "IncludeOptional conf-enabled/*.conf\n"
              "IncludeOptional sites-enabled/*.conf\n"
              "Include conf.d\n");
    dir.Write("etc/apache2/ports.conf", "Listen 80\n");
    dir.Write("etc/apache2/sites-enabled/000-default.conf",
              "<VirtualHost *:80>\n"
              "    ServerName example\n"
              "    DocumentRoot ${WEB_BASE}/vhost\n"
              "    AliasMatch ^/users/([a-z]+)/(.*) /home/$1/public_html/$2\n"
              "    Alias /docs \\\n"
              "          /srv/continued\n"
              "    DocumentRoot relative/htdocs\n"
              "</VirtualHost>\n");
    dir.Write("etc/apache2/conf.d/sub/extra.conf", "Alias /x '/srv/single quoted'\n");
    dir.Write("etc/apache2/conf.d/loop.conf", "Include conf.d/loop.conf\n");

    SDK::HostRoot fs;
    std::map<std::string, std::string> env =
        ApacheConfigParser::ParseEnvVars(TestSupport::ReadFile(root + "/envvars"));
    EXPECT_EQ(env["APACHE_LOG_DIR"], "/var/log/apache2");
    ApacheConfigParser parser(fs, root, env);
    ConfigScan scan = parser.ParseFile(root + "/apache2.conf");
    std::vector<std::string> expected = {"/srv/defined/main",   "/usr/share/apache2/icons",
                                         "/srv/from-envvars/vhost", "/home",
                                         "/srv/continued",      root + "/relative/htdocs",
                                         "/srv/single quoted"};
    EXPECT_EQ(Paths(scan), expected) << Describe(scan);
    const WebDir* cont = FindDir(scan, "/srv/continued");
    ASSERT_NE(cont, nullptr);
    EXPECT_EQ(cont->origin, "Alias");
    EXPECT_EQ(cont->file, root + "/sites-enabled/000-default.conf");
    EXPECT_EQ(cont->line, 5);  // the line where the continued directive starts
    EXPECT_EQ(FindDir(scan, "/home")->origin, "AliasMatch");
    EXPECT_TRUE(HasIssue(scan, root + "/conf.d/loop.conf", 1, "include cycle")) << Describe(scan);
}

TEST(ApacheConfig, BrokenLinesAreReportedTheRestIsUsedAndArgumentsSplitAsHttpdDoes)
{
    SDK::HostRoot fs;
    ApacheConfigParser parser(fs, "/etc/httpd");
    parser.Define("FROM_CMDLINE", "/srv/cmdline");
    std::istringstream in(
        "DocumentRoot\n"                       // 1: no argument
        "DocumentRoot ${UNKNOWN}/x\n"          // 2: unknown variable, nothing literal
        "</VirtualHost>\n"                     // 3: closes nothing
        "Include /nonexistent/file.conf\n"     // 4: missing include
        "IncludeOptional /nonexistent/*.conf\n"  // optional: silent
        "ServerRoot /opt/web\n"
        "DocumentRoot htdocs\n"                // relative to the new ServerRoot
        "DocumentRoot ${FROM_CMDLINE}\n"
        "<VirtualHost *:80>\n"                 // 9: never closed
        "Alias /a /srv/alias\n");
    ConfigScan scan = parser.ParseStream(in, "httpd.conf");
    std::vector<std::string> expected = {"/opt/web/htdocs", "/srv/cmdline", "/srv/alias"};
    EXPECT_EQ(Paths(scan), expected) << Describe(scan);
    EXPECT_TRUE(HasIssue(scan, "httpd.conf", 1, "DocumentRoot takes one argument"));
    EXPECT_TRUE(HasIssue(scan, "httpd.conf", 2, "${UNKNOWN} is not defined"));
    EXPECT_TRUE(HasIssue(scan, "httpd.conf", 2, "no literal directory"));
    EXPECT_TRUE(HasIssue(scan, "httpd.conf", 3, "without a matching opening section"));
    EXPECT_TRUE(HasIssue(scan, "httpd.conf", 4, "/nonexistent/file.conf"));
    EXPECT_TRUE(HasIssue(scan, "httpd.conf", 10, "<VirtualHost> is not closed")) << Describe(scan);
    EXPECT_EQ(scan.issues.size(), 6u) << Describe(scan);

    // Arguments are split as httpd splits them.
    struct Case {
        const char* line;
        std::vector<std::string> words;
    } cases[] = {
        {"DocumentRoot /var/www", {"DocumentRoot", "/var/www"}},
        {"  Alias \"/a b\"   '/c d'  ", {"Alias", "/a b", "/c d"}},
        {"Alias \"/q\\\"x\" /y", {"Alias", "/q\"x", "/y"}},
        {"Alias /back\\slash /z", {"Alias", "/back\\slash", "/z"}},
        {"", {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ApacheConfigParser::SplitArgs(c.line), c.words) << c.line;
    }
}

TEST(TomcatConfig, AppBasesDocBasesContextFilesAndBrokenFiles)
{
    TempDir dir("asset-tomcat");
    const std::string base = dir.MkDir("tomcat");
    dir.Write("tomcat/conf/server.xml",
              "<?xml version='1.0' encoding='utf-8'?>\n"
              "<Server port=\"8005\" shutdown=\"SHUTDOWN\">\n"
              "  <!-- <Host name=\"commented\" appBase=\"/srv/commented\"/> -->\n"
              "  <Service name=\"Catalina\">\n"
              "    <Engine name=\"Catalina\" defaultHost=\"localhost\">\n"
              "      <Host name=\"localhost\" appBase=\"webapps\">\n"
              "        <Context path=\"/shop\" docBase=\"/srv/shop\"/>\n"
              "        <Context path=\"/rel\" docBase=\"relative-app\"/>\n"
              "      </Host>\n"
              "      <Host name=\"other\" appBase=\"${catalina.base}/other-apps\" xmlBase=\"conf/other\"/>\n"
              "    </Engine>\n"
              "  </Service>\n"
              "  <Service name=\"Second\">\n"
              "    <Engine name=\"Second\"><Host name=\"h2\" appBase=\"/srv/h2\"/></Engine>\n"
              "  </Service>\n"
              "</Server>\n");
    dir.Write("tomcat/conf/Catalina/localhost/blog.xml", "<Context docBase=\"/srv/blog\"/>\n");
    dir.Write("tomcat/conf/Catalina/localhost/manager.xml",
              "<Context antiResourceLocking=\"false\" privileged=\"true\"/>\n");
    dir.Write("tomcat/conf/Catalina/localhost/broken.xml", "<Context docBase=\"/srv/broken\"\n");
    dir.Write("tomcat/conf/other/wiki.xml", "<Context docBase=\"${wiki.dir}\"/>\n");
    dir.Write("tomcat/conf/Second/h2/app.xml", "<Context docBase=\"app2\"/>\n");

    SDK::HostRoot fs;
    TomcatConfigParser parser(fs, base, {{"wiki.dir", "/srv/wiki"}});
    ConfigScan scan = parser.Parse();
    std::vector<std::string> expected = {base + "/webapps", base + "/other-apps", "/srv/h2",
                                         "/srv/shop",       base + "/webapps/relative-app",
                                         "/srv/blog",       "/srv/wiki",
                                         "/srv/h2/app2"};
    EXPECT_EQ(Paths(scan), expected) << Describe(scan);
    const WebDir* shop = FindDir(scan, "/srv/shop");
    ASSERT_NE(shop, nullptr);
    EXPECT_EQ(shop->origin, "docBase");
    EXPECT_EQ(shop->line, 7);
    EXPECT_EQ(shop->file, base + "/conf/server.xml");
    EXPECT_EQ(FindDir(scan, base + "/webapps")->origin, "appBase");
    ASSERT_EQ(scan.issues.size(), 1u) << Describe(scan);
    EXPECT_EQ(scan.issues[0].file, base + "/conf/Catalina/localhost/broken.xml");

    // A malformed server.xml keeps what came before the error (a base with
    // no context files of its own); a missing one is an issue naming it.
    TomcatConfigParser bare(fs, base + "/nothing");
    std::istringstream in(
        "<Server>\n"
        "  <Service><Engine name=\"Catalina\">\n"
        "    <Host name=\"localhost\" appBase=\"/srv/first\"></Host>\n"
        "    <Host name=\"b\" appBase=\"/srv/second\">\n"
        "  </Engine <oops>\n");
    ConfigScan bad = bare.ParseServerXml(in, "server.xml");
    EXPECT_EQ(Paths(bad), (std::vector<std::string>{"/srv/first", "/srv/second"}));
    ASSERT_EQ(bad.issues.size(), 1u);
    EXPECT_EQ(bad.issues[0].file, "server.xml");
    EXPECT_EQ(bad.issues[0].line, 5);

    ConfigScan missing = bare.Parse();
    EXPECT_TRUE(missing.dirs.empty());
    ASSERT_EQ(missing.issues.size(), 1u);
    EXPECT_EQ(missing.issues[0].file, base + "/nothing/conf/server.xml");
}

TEST(ProcessTable, ContainerIdsFromCgroupTexts)
{
    const std::string id(64, 'a');
    const std::string other = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
    struct Case {
        std::string text;
        std::string id;
    } cases[] = {
        {"0::/system.slice/docker-" + id + ".scope\n", id},
        {"12:memory:/docker/" + other + "\n11:cpu:/docker/" + other + "\n", other},
        {"0::/kubepods.slice/kubepods-besteffort.slice/cri-containerd-" + id + ".scope", id},
        {"0::/machine.slice/libpod-conmon-" + id + ".scope\n", ""},
        {"0::/machine.slice/libpod-" + id + ".scope/container\n", id},
        {"0::/kubepods/besteffort/pod1234/crio-" + other + ".scope\n", other},
        {"0::/kubepods/burstable/podabc/" + other + "\n", other},
        {"0::/user.slice/user-1000.slice/session-2.scope\n", ""},
        {"4:memory:/process_api/1a0dd239168254331be67198e2fb011f\n", ""},
        {"0::/docker-" + std::string(63, 'a') + ".scope\n", ""},
        {"0::/docker/" + std::string(64, 'A') + "\n", ""},
        {"garbage without colons\n", ""},
        {"", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ProcessTable::ContainerIdFromCgroup(c.text), c.id) << c.text;
    }
    EXPECT_EQ(ProcessTable::SplitCmdline(std::string("nginx: master process nginx\0\0\0", 30)),
              std::vector<std::string>{"nginx: master process nginx"});
    EXPECT_EQ(ProcessTable::SplitCmdline(std::string("a\0\0b\0", 5)),
              (std::vector<std::string>{"a", "", "b"}));
}

#pragma once
// Real servers and daemons for the asset, report and end-to-end tests: find a
// server binary, pick a free loopback port, and a guard that stops a started
// server and its children whatever happens to the test.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>

#include "testsupport/TestSupport.h"

extern char** environ;

namespace AssetTest {

using TestSupport::WaitFor;

inline std::string FindProgram(const std::string& name)
{
    for (const char* dir : {"/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/", "/usr/local/sbin/"}) {
        const std::string path = std::string(dir) + name;
        if (access(path.c_str(), X_OK) == 0) {
            return path;
        }
    }
    return "";
}

// A free TCP port on 127.0.0.1; whether a server accepts on one.
inline int FreePort() { return Poco::Net::ServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0)).address().port(); }
inline bool Accepts(int port)
{
    try {
        Poco::Net::StreamSocket(Poco::Net::SocketAddress("127.0.0.1", static_cast<Poco::UInt16>(port)));
        return true;
    } catch (const Poco::Exception&) {
        return false;
    }
}

// A server or daemon started by the test in a process group of its own; the
// group (the process and the children it forks) is stopped when the guard
// goes, whatever happened in between.
class ServerProcess {
public:
    ServerProcess() = default;
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;
    ~ServerProcess() { Stop(); }

    bool Start(const std::string& program, const std::vector<std::string>& argv,
               const std::string& outputFile)
    {
        std::vector<char*> args;
        for (const auto& a : argv) {
            args.push_back(const_cast<char*>(a.c_str()));
        }
        args.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, outputFile.c_str(),
                                         O_WRONLY | O_CREAT | O_APPEND, 0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
        posix_spawnattr_setpgroup(&attr, 0);
        const int rc = posix_spawn(&m_pid, program.c_str(), &actions, &attr, args.data(), environ);
        posix_spawnattr_destroy(&attr);
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) {
            m_pid = -1;
        }
        return rc == 0;
    }

    pid_t Pid() const { return m_pid; }
    bool Running() const { return m_pid > 0 && waitpid(m_pid, nullptr, WNOHANG) == 0; }

    void Stop(int sig = SIGTERM)
    {
        if (m_pid <= 0) {
            return;
        }
        kill(-m_pid, sig);
        if (!WaitFor([this] { return waitpid(m_pid, nullptr, WNOHANG) != 0; }, 10000)) {
            kill(-m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        // Workers normally leave with their master; make sure none stays behind.
        if (!WaitFor([this] { return kill(-m_pid, 0) != 0; }, 5000)) {
            kill(-m_pid, SIGKILL);
        }
        m_pid = -1;
    }

private:
    pid_t m_pid = -1;
};

// An nginx main file that keeps everything nginx writes inside `dir` and
// runs in the foreground; `http` is the content of the http block.
inline std::string NginxMainConf(const std::string& dir, const std::string& http)
{
    return "daemon off;\n"
           "worker_processes 1;\n"
           "error_log " + dir + "/error.log;\n"
           "events { worker_connections 64; }\n"
           "http {\n"
           "    access_log " + dir + "/access.log;\n"
           "    client_body_temp_path " + dir + "/tmp/body;\n"
           "    proxy_temp_path " + dir + "/tmp/proxy;\n"
           "    fastcgi_temp_path " + dir + "/tmp/fastcgi;\n"
           "    uwsgi_temp_path " + dir + "/tmp/uwsgi;\n"
           "    scgi_temp_path " + dir + "/tmp/scgi;\n" +
           http + "}\n";
}

// A real Apache httpd on a free loopback port, serving three directories
// under `dir`/www: main (its DocumentRoot), vhost (a virtual host's) and
// media (an Alias). "" once it accepts, else what it said.
inline std::string StartApache(TestSupport::TempDir& dir, ServerProcess& server)
{
    const std::string bin = FindProgram("apache2");
    const std::string modules = "/usr/lib/apache2/modules/";
    const std::string t = dir.Path();
    const int port = FreePort();
    for (const char* sub : {"www/main", "www/vhost", "www/media", "apache/run"}) {
        dir.MkDir(sub);
    }
    dir.Write("apache/mime.types", "text/html html\n");
    std::string conf = "ServerRoot \"" + t + "/apache\"\nDefaultRuntimeDir run\nPidFile run/httpd.pid\n"
                       "Mutex file:" + t + "/apache/run default\nErrorLog " + t + "/apache/error.log\n";
    for (const char* m : {"mpm_event", "authz_core", "alias", "dir", "mime"}) {
        conf += std::string("LoadModule ") + m + "_module " + modules + "mod_" + m + ".so\n";
    }
    conf += "User www-data\nGroup www-data\nTypesConfig mime.types\n"
            "Listen 127.0.0.1:" + std::to_string(port) + "\nServerName localhost\n"
            "Define WWW " + t + "/www\nDocumentRoot \"${WWW}/main\"\nIncludeOptional sites/*.conf\n";
    dir.Write("apache/httpd.conf", conf);
    dir.Write("apache/sites/vhost.conf",
              "<VirtualHost 127.0.0.1:" + std::to_string(port) + ">\n"
              "    DocumentRoot " + t + "/www/vhost\n"
              "    <IfModule alias_module>\n"
              "        Alias /media \"" + t + "/www/media\"\n"
              "    </IfModule>\n"
              "</VirtualHost>\n");
    if (bin.empty() ||
        !server.Start(bin, {bin, "-f", t + "/apache/httpd.conf", "-DFOREGROUND"}, t + "/output.log") ||
        !WaitFor([&] { return Accepts(port); }, 15000)) {
        return TestSupport::ReadFile(t + "/output.log") + TestSupport::ReadFile(t + "/apache/error.log");
    }
    return "";
}

}  // namespace AssetTest

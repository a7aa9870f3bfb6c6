#pragma once
// Shared by every test binary: temp trees, waiting with a deadline, a task
// that captures the messages sent to it, and the real agent as a process.

#include <sys/types.h>

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>
#include <json/json.h>

#include "framework/Engine.h"
#include "framework/Task.h"

namespace TestSupport {

// A temporary directory, removed with everything under it (modes restored
// first) when the object goes.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "ardent-test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    // Creates parents as needed; returns the full path.
    std::string Write(const std::string& rel, const std::string& content, mode_t mode = 0644);
    std::string MkDir(const std::string& rel, mode_t mode = 0755);
    std::string Symlink(const std::string& target, const std::string& rel);
    std::string Fifo(const std::string& rel);
    std::string Socket(const std::string& rel);  // the file of a UNIX socket, left behind
    std::string Join(const std::string& rel) const { return m_path + "/" + rel; }

private:
    std::string m_path;
};

// Polls `pred` every `periodMs` until it holds or the deadline passes (a
// longer period for checks that cost a process start each).
bool WaitFor(const std::function<bool()>& pred, int timeoutMs = 5000, int periodMs = 5);

std::string ReadFile(const std::string& path);
std::vector<std::string> ReadLines(const std::string& path);
bool FileExists(const std::string& path);
// The permission bits of `path` itself (a link is not followed); 0 if absent.
mode_t ModeOf(const std::string& path);
// sha256sum's answer, computed independently of the SDK.
std::string Sha256Sum(const std::string& path);
// Runs a shell command; returns its exit status and fills `out` with stdout.
int RunCommand(const std::string& command, std::string* out = nullptr);

// The JSON value of `text`; null when it is not JSON.
Json::Value ParseJson(const std::string& text);
// Every line of an event sink that is a JSON object (none for a missing file).
std::vector<Json::Value> ReadEvents(const std::string& sink);
// `ardent-agent ctl status` of the agent of `install`; null without an answer.
Json::Value CtlStatus(const std::string& install);
// The roots the file-notify service watches for `task`, from a status.
std::set<std::string> WatchedRoots(const Json::Value& status,
                                   const std::string& task = "detect_file_change_wehshell_task");
// A "detect_webshell" policy for `paths` and the rule library `rules` (its
// file:// URL and hash): suffix php, no monitoring, and a periodic pass that
// never fires during a test. Tests change what they need.
Json::Value WebshellPolicy(const std::vector<std::string>& paths, const std::string& rules);

// A rule library for end-to-end runs and a harmless file it calls a certain
// web shell (its marker is E2E_SHELL_MARKER).
extern const char* const kShellRules;
extern const char* const kShell;

// Build locations (from the environment ctest sets).
std::string StageDir();   // build/stage
std::string SourceDir();  // repository root
std::string AgentBinary();

// Makes an install tree for one test (bin, lib, module, data/webshell,
// data/upload, policy, log, run) whose lib/ and module/ link to the staged
// ones. `modules` limits which lib*_module.so are linked in (empty: all).
std::string MakeInstallTree(const TempDir& dir, const std::vector<std::string>& modules = {});

// Compiles YARA source into a rule file (`compiled`: yarac output).
std::string WriteRules(TempDir& dir, const std::string& rel, const std::string& source,
                       bool compiled = false);

// A resident task that records every message it receives. Register it under
// the name of the service it stands in for ("data_comm_report_task", ...).
class CaptureTask : public Framework::Task {
public:
    explicit CaptureTask(const std::string& name, unsigned int size = 1024);
    int Run() override;
    int HandleMsg(std::shared_ptr<Framework::Message>& msg) override;

    std::vector<std::shared_ptr<Framework::Message>> Messages();
    size_t Count();
    bool WaitForCount(size_t n, int timeoutMs = 5000);
    void Clear();

    template <typename T>
    std::vector<std::shared_ptr<T>> MessagesOf()
    {
        std::vector<std::shared_ptr<T>> out;
        for (auto& m : Messages()) {
            if (auto t = std::dynamic_pointer_cast<T>(m)) {
                out.push_back(t);
            }
        }
        return out;
    }

private:
    std::mutex m_mutex;
    std::vector<std::shared_ptr<Framework::Message>> m_messages;
};

// Records what one logger says while it lives (at `level` and above); an
// optional hook runs on the logging thread. Make it after any Engine: a new
// engine hands every logger the root's channel.
class LogCapture {
public:
    struct Record {
        Poco::Message::Priority priority;
        std::string text;
    };

    explicit LogCapture(const std::string& logger,
                        Poco::Message::Priority level = Poco::Message::PRIO_INFORMATION);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Record> Records();
    // Texts at least as severe as `atMost` that contain `needle`.
    std::vector<std::string> Texts(const std::string& needle = "",
                                   Poco::Message::Priority atMost = Poco::Message::PRIO_NOTICE);
    size_t Count(const std::string& needle,
                 Poco::Message::Priority atMost = Poco::Message::PRIO_NOTICE)
    {
        return Texts(needle, atMost).size();
    }
    void Clear();
    void SetHook(std::function<void(const Record&)> hook);
    std::string Dump();

    class Channel;

private:
    std::string m_logger;
    Poco::AutoPtr<Channel> m_channel;
    Poco::Channel::Ptr m_previousChannel;
    int m_previousLevel = 0;
};

// An engine for in-process tests, its install dir a fresh tree.
class TestEngine {
public:
    explicit TestEngine(const std::vector<std::string>& modules = {});
    ~TestEngine();
    Framework::Engine& engine() { return *m_engine; }
    const std::string& InstallDir() const { return m_installDir; }
    TempDir& Dir() { return m_dir; }

private:
    TempDir m_dir;
    std::string m_installDir;
    std::unique_ptr<Framework::Engine> m_engine;
};

// The real ardent-agent as a child process; stdout and stderr go to files.
class AgentProcess {
public:
    AgentProcess() = default;
    ~AgentProcess();  // SIGKILLs a process still running
    bool Start(const std::vector<std::string>& args, const std::string& workDir = "");
    // Sends `sig` and waits; returns the exit code (128+n for a signal), -1 on timeout.
    int Stop(int sig = 15, int timeoutMs = 10000);
    int Wait(int timeoutMs = 60000);
    bool Running();
    pid_t Pid() const { return m_pid; }
    std::string Stdout() const { return ReadFile(m_outPath); }
    std::string Stderr() const { return ReadFile(m_errPath); }

private:
    pid_t m_pid = -1;
    int m_status = -1;
    std::string m_outPath;
    std::string m_errPath;
    std::unique_ptr<TempDir> m_ioDir;
};

}  // namespace TestSupport

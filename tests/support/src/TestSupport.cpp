#include "testsupport/TestSupport.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <Poco/DirectoryIterator.h>
#include <Poco/File.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Path.h>
#include <Poco/TemporaryFile.h>

#include "sdk/PathUtils.h"

extern char** environ;

namespace TestSupport {

const char* const kShellRules = R"(
rule e2e_certain : certain extra_php
{
    strings:
        $a = "E2E_SHELL_MARKER"
    condition:
        $a
}
)";

const char* const kShell = "<?php exit; /* E2E_SHELL_MARKER */ ?>\n";

namespace {

std::string Env(const char* name, const std::string& def)
{
    const char* v = std::getenv(name);
    return v != nullptr && *v != '\0' ? std::string(v) : def;
}

// The full path of `rel`, its parent directories made.
std::string Prepare(const std::string& path)
{
    Poco::File(Poco::Path(path).makeParent()).createDirectories();
    return path;
}

void Check(bool ok, const std::string& what)
{
    if (!ok) {
        throw std::runtime_error(what + " failed: " + strerror(errno));
    }
}

}  // namespace

TempDir::TempDir(const std::string& prefix)
{
    std::string templ = "/tmp/" + prefix + "-XXXXXX";
    Check(mkdtemp(&templ[0]) != nullptr, "mkdtemp");
    m_path = templ;
}

TempDir::~TempDir()
{
    // Modes restored first: a test may leave a directory unreadable.
    const std::string cmd = "chmod -R u+rwX '" + m_path + "' 2>/dev/null; rm -rf '" + m_path + "'";
    if (std::system(cmd.c_str()) != 0) {
        // left behind in /tmp
    }
}

std::string TempDir::Write(const std::string& rel, const std::string& content, mode_t mode)
{
    const std::string path = Prepare(Join(rel));
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << content;
        Check(static_cast<bool>(out), "writing " + path);
    }
    chmod(path.c_str(), mode);
    return path;
}

std::string TempDir::MkDir(const std::string& rel, mode_t mode)
{
    const std::string path = Join(rel);
    Poco::File(path).createDirectories();
    chmod(path.c_str(), mode);
    return path;
}

std::string TempDir::Symlink(const std::string& target, const std::string& rel)
{
    const std::string path = Prepare(Join(rel));
    Check(symlink(target.c_str(), path.c_str()) == 0, "symlink " + path);
    return path;
}

std::string TempDir::Fifo(const std::string& rel)
{
    const std::string path = Prepare(Join(rel));
    Check(mkfifo(path.c_str(), 0644) == 0, "mkfifo " + path);
    return path;
}

std::string TempDir::Socket(const std::string& rel)
{
    const std::string path = Prepare(Join(rel));
    // Closed at once; the socket file stays.
    Poco::Net::ServerSocket(Poco::Net::SocketAddress(Poco::Net::SocketAddress::UNIX_LOCAL, path));
    return path;
}

bool WaitFor(const std::function<bool()>& pred, int timeoutMs, int periodMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (pred()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return pred();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(periodMs));
    }
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::vector<std::string> ReadLines(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream in(path, std::ios::binary);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty()) {
            lines.push_back(line);
        }
    }
    return lines;
}

bool FileExists(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

mode_t ModeOf(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

int RunCommand(const std::string& command, std::string* out)
{
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return -1;
    }
    char buf[4096];
    std::string text;
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0) {
        text.append(buf, n);
    }
    const int status = pclose(pipe);
    if (out != nullptr) {
        *out = text;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Sha256Sum(const std::string& path)
{
    std::string out;
    RunCommand("sha256sum '" + path + "'", &out);
    return out.substr(0, 64);
}

Json::Value ParseJson(const std::string& text)
{
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), &value, &errors) ? value : Json::Value();
}

std::vector<Json::Value> ReadEvents(const std::string& sink)
{
    std::vector<Json::Value> events;
    for (const auto& line : ReadLines(sink)) {
        Json::Value event = ParseJson(line);
        if (event.isObject()) {
            events.push_back(event);
        }
    }
    return events;
}

Json::Value CtlStatus(const std::string& install)
{
    std::string text;
    const std::string ctl = AgentBinary() + " ctl status --install-dir " + install + " 2>/dev/null";
    const int rc = RunCommand(ctl, &text);  // 0 ok, 1 degraded, 2 failing
    return rc >= 0 && rc <= 2 ? ParseJson(text) : Json::Value();
}

std::set<std::string> WatchedRoots(const Json::Value& status, const std::string& task)
{
    std::set<std::string> roots;
    for (const auto& reg : status["components"]["filenotify"]["registrations"]) {
        if (reg["task"].asString() == task && reg["watching"].asBool()) {
            roots.insert(reg["path"].asString());
        }
    }
    return roots;
}

Json::Value WebshellPolicy(const std::vector<std::string>& paths, const std::string& rules)
{
    Json::Value policy;
    policy["feature_name"] = "detect_webshell";
    policy["hash"] = "test-" + Sha256Sum(rules).substr(0, 8);
    Json::Value& content = policy["content"];
    content["default_scan_paths"] = Json::Value(Json::arrayValue);
    content["customize_scan_paths"] = Json::Value(Json::arrayValue);
    for (const auto& path : paths) {
        content["customize_scan_paths"].append(path);
    }
    content["lib_version"] = "1";
    content["lib_url"] = "file://" + rules;
    content["lib_hash"] = Sha256Sum(rules);
    content["monitor_file_change"] = false;
    content["monitor_container"] = false;
    content["file_type"] = "php";
    content["auto_scan_task"]["task_condition"]["type"] = "interval";
    content["auto_scan_task"]["task_condition"]["interval_s"] = 86400;
    content["auto_scan_task"]["task_condition"]["delay_s"] = 86400;
    return policy;
}

std::string StageDir()
{
    return Env("ARDENT_STAGE", Env("ARDENT_BUILD", "build") + "/stage");
}

std::string SourceDir()
{
    return Env("ARDENT_SOURCE", ".");
}

std::string AgentBinary()
{
    return StageDir() + "/bin/ardent-agent";
}

std::string MakeInstallTree(const TempDir& dir, const std::vector<std::string>& modules)
{
    const std::string root = dir.Path() + "/install/";
    for (const char* sub : {"bin", "lib", "module", "data/webshell", "policy", "log", "run", "etc", "share"}) {
        Poco::File(root + sub).createDirectories();
    }
    Poco::File(root + "data/upload").createDirectories();
    chmod((root + "data/upload").c_str(), 0700);
    const std::string stage = StageDir();
    Check(symlink((stage + "/bin/ardent-agent").c_str(), (root + "bin/ardent-agent").c_str()) == 0,
          "symlink " + root + "bin/ardent-agent");
    for (const std::string sub : {"lib", "module", "share"}) {
        if (!Poco::File(stage + "/" + sub).exists()) {
            continue;
        }
        for (Poco::DirectoryIterator it(stage + "/" + sub), end; it != end; ++it) {
            bool wanted = sub != "module" || modules.empty();
            for (auto& m : modules) {
                wanted = wanted || it.name() == m || it.name() == "lib" + m + "_module.so";
            }
            if (wanted) {
                Check(symlink(it->path().c_str(), (root + sub + "/" + it.name()).c_str()) == 0,
                      "symlink " + root + sub + "/" + it.name());
            }
        }
    }
    return root;
}

std::string WriteRules(TempDir& dir, const std::string& rel, const std::string& source, bool compiled)
{
    if (!compiled) {
        return dir.Write(rel, source);
    }
    const std::string src = dir.Write(rel + ".yar", source);
    const std::string out = dir.Join(rel);
    std::string log;
    if (RunCommand("yarac '" + src + "' '" + out + "' 2>&1", &log) != 0) {
        throw std::runtime_error("yarac failed: " + log);
    }
    return out;
}

CaptureTask::CaptureTask(const std::string& name, unsigned int size)
    : Framework::Task(name, "test_feature", Framework::TaskCondition::TASK_TYPE_RESIDENT, size)
{
}

int CaptureTask::Run()
{
    while (!IsCancelling()) {
        GetEventWaiter().WaitAndHandleEvent(50, 128);
    }
    return 0;
}

int CaptureTask::HandleMsg(std::shared_ptr<Framework::Message>& msg)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_messages.push_back(msg);
    return 0;
}

std::vector<std::shared_ptr<Framework::Message>> CaptureTask::Messages()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages;
}

size_t CaptureTask::Count()
{
    return Messages().size();
}

bool CaptureTask::WaitForCount(size_t n, int timeoutMs)
{
    return WaitFor([&] { return Count() >= n; }, timeoutMs);
}

void CaptureTask::Clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_messages.clear();
}

class LogCapture::Channel : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override
    {
        Record record{msg.getPriority(), msg.getText()};
        std::function<void(const Record&)> hookCopy;
        {
            std::lock_guard<std::mutex> lock(mutex);
            records.push_back(record);
            hookCopy = hook;
        }
        if (hookCopy) {
            hookCopy(record);
        }
    }
    std::mutex mutex;
    std::vector<Record> records;
    std::function<void(const Record&)> hook;
};

LogCapture::LogCapture(const std::string& logger, Poco::Message::Priority level)
    : m_logger(logger), m_channel(new Channel)
{
    Poco::Logger& target = Poco::Logger::get(m_logger);
    m_previousChannel = target.getChannel();
    m_previousLevel = target.getLevel();
    target.setChannel(Poco::Channel::Ptr(m_channel.get(), true));
    target.setLevel(level);
}

LogCapture::~LogCapture()
{
    Poco::Logger& target = Poco::Logger::get(m_logger);
    target.setChannel(m_previousChannel);
    target.setLevel(m_previousLevel);
}

std::vector<LogCapture::Record> LogCapture::Records()
{
    std::lock_guard<std::mutex> lock(m_channel->mutex);
    return m_channel->records;
}

std::vector<std::string> LogCapture::Texts(const std::string& needle, Poco::Message::Priority atMost)
{
    std::vector<std::string> out;
    for (const auto& r : Records()) {
        if (r.priority <= atMost && r.text.find(needle) != std::string::npos) {
            out.push_back(r.text);
        }
    }
    return out;
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> lock(m_channel->mutex);
    m_channel->records.clear();
}

void LogCapture::SetHook(std::function<void(const Record&)> hook)
{
    std::lock_guard<std::mutex> lock(m_channel->mutex);
    m_channel->hook = std::move(hook);
}

std::string LogCapture::Dump()
{
    std::string out;
    for (const auto& r : Records()) {
        out += "[" + std::to_string(r.priority) + "] " + r.text + "\n";
    }
    return out;
}

TestEngine::TestEngine(const std::vector<std::string>& modules) : m_dir("ardent-engine")
{
    m_installDir = MakeInstallTree(m_dir, modules);
    SDK::PathUtils::SetInstallationPath(m_installDir);
    m_engine = std::make_unique<Framework::Engine>();
    m_engine->config().setString("agent.install_dir", m_installDir);
    m_engine->config().setString("agent.events", m_installDir + "log/webshell_events.jsonl");
    m_engine->config().setString("agent.host_root", "/");
}

TestEngine::~TestEngine()
{
    m_engine.reset();
    SDK::PathUtils::SetInstallationPath("");
}

AgentProcess::~AgentProcess()
{
    if (m_pid > 0 && Running()) {
        kill(m_pid, SIGKILL);
        int status = 0;
        waitpid(m_pid, &status, 0);
    }
}

bool AgentProcess::Start(const std::vector<std::string>& args, const std::string& workDir)
{
    m_ioDir = std::make_unique<TempDir>("ardent-agent-io");
    m_outPath = m_ioDir->Join("stdout");
    m_errPath = m_ioDir->Join("stderr");
    std::vector<std::string> argv{AgentBinary()};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> cargv;
    for (auto& a : argv) {
        cargv.push_back(const_cast<char*>(a.c_str()));
    }
    cargv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, m_outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, m_errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (!workDir.empty()) {
        posix_spawn_file_actions_addchdir_np(&actions, workDir.c_str());
    }
    // The child starts with no signal blocked, whatever the test's threads do.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
    const int rc = posix_spawn(&m_pid, cargv[0], &actions, &attr, cargv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
        m_pid = -1;
        return false;
    }
    m_status = -1;
    return true;
}

bool AgentProcess::Running()
{
    if (m_pid <= 0 || m_status != -1) {
        return false;
    }
    int status = 0;
    const pid_t r = waitpid(m_pid, &status, WNOHANG);
    if (r == m_pid) {
        m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return false;
    }
    return r == 0;
}

int AgentProcess::Wait(int timeoutMs)
{
    if (m_pid <= 0) {
        return -1;
    }
    WaitFor([&] { return !Running(); }, timeoutMs);
    return Running() ? -1 : m_status;
}

int AgentProcess::Stop(int sig, int timeoutMs)
{
    if (Running()) {
        kill(m_pid, sig);
    }
    return Wait(timeoutMs);
}


}  // namespace TestSupport

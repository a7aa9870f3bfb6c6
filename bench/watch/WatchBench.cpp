// Real-time detection with the real agent: `ardent-agent run` watches one
// web root with "monitor_file_change" on, and this program writes web
// shells into it and reads the event sink.
//
//  1. latency from a writer's close() to the shell's event line in the sink,
//     over N files written one after the other (median, p99, max);
//  2. a 10 MB file written in 4 KB pieces: how many times it was checked
//     (the web-shell module logs "Receive file notify message" per check);
//  3. a burst of new script files in new directories: every one checked and
//     reported, total time, and the agent's peak RSS.
//
// Usage: bench_watch [--stage DIR] [--files N] [--burst-dirs D] [--burst-files F]
// DIR defaults to $ARDENT_STAGE, else <this program's dir>/../stage.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "sdk/FileUtils.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

const char* const kRules = R"(
rule bench_watch_certain : certain_webshell
{
    strings:
        $a = "BENCH_WATCH_SHELL_MARKER"
    condition:
        $a
}
)";
const std::string kShell = "<?php @eval($_POST['c']); /* BENCH_WATCH_SHELL_MARKER */ ?>\n";

void Die(const std::string& what)
{
    std::cerr << "bench_watch: " << what << "\n";
    std::exit(2);
}

void MkDirs(const std::string& path)
{
    std::string cur;
    std::stringstream ss(path);
    std::string part;
    while (std::getline(ss, part, '/')) {
        if (part.empty()) {
            cur += "/";
            continue;
        }
        cur += part + "/";
        if (mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST) {
            Die("mkdir " + cur + ": " + strerror(errno));
        }
    }
}

void WriteText(const std::string& path, const std::string& text)
{
    int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        close(fd) != 0) {
        Die("write " + path + ": " + strerror(errno));
    }
}

// Follows the event sink as the report task appends to it and remembers
// when each reported path first showed up.
class SinkReader {
public:
    SinkReader(const std::string& dir, const std::string& name)
        : m_path(dir + "/" + name), m_name(name)
    {
        m_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (m_fd < 0 || inotify_add_watch(m_fd, dir.c_str(), IN_CREATE | IN_MODIFY) < 0) {
            Die("inotify on " + dir + ": " + strerror(errno));
        }
        m_thread = std::thread([this] { Loop(); });
    }
    ~SinkReader()
    {
        m_stop = true;
        m_thread.join();
        close(m_fd);
    }

    // Waits until `path` was reported; its arrival time, or false.
    bool WaitFor(const std::string& path, int timeoutMs, Clock::time_point& at)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        bool ok = m_cond.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                  [&] { return m_seen.count(path) > 0; });
        if (ok) {
            at = m_seen[path].first;
        }
        return ok;
    }
    size_t CountWithPrefix(const std::string& prefix)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        size_t n = 0;
        for (auto it = m_seen.lower_bound(prefix); it != m_seen.end(); ++it) {
            if (it->first.compare(0, prefix.size(), prefix) != 0) {
                break;
            }
            ++n;
        }
        return n;
    }
    Clock::time_point LastWithPrefix(const std::string& prefix)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Clock::time_point last{};
        for (auto it = m_seen.lower_bound(prefix); it != m_seen.end(); ++it) {
            if (it->first.compare(0, prefix.size(), prefix) != 0) {
                break;
            }
            last = std::max(last, it->second.first);
        }
        return last;
    }
    int Reports(const std::string& path)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_seen.find(path);
        return it == m_seen.end() ? 0 : it->second.second;
    }

private:
    void Loop()
    {
        char buf[64 * 1024];
        while (!m_stop) {
            struct pollfd p{m_fd, POLLIN, 0};
            poll(&p, 1, 50);
            while (read(m_fd, buf, sizeof(buf)) > 0) {
            }
            ReadNew();
        }
    }
    void ReadNew()
    {
        std::ifstream in(m_path, std::ios::binary);
        if (!in) {
            return;
        }
        in.seekg(static_cast<std::streamoff>(m_offset));
        std::string chunk((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (chunk.empty()) {
            return;
        }
        Clock::time_point now = Clock::now();
        m_offset += chunk.size();
        m_partial += chunk;
        size_t start = 0;
        std::vector<std::string> paths;
        for (size_t nl; (nl = m_partial.find('\n', start)) != std::string::npos; start = nl + 1) {
            Json::Value event;
            Json::CharReaderBuilder builder;
            std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
            std::string line = m_partial.substr(start, nl - start);
            if (reader->parse(line.data(), line.data() + line.size(), &event, nullptr)) {
                for (const auto& f : event["file_info"]) {
                    paths.push_back(f["file_path"].asString());
                }
            }
        }
        m_partial.erase(0, start);
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& p : paths) {
            auto& entry = m_seen[p];
            if (entry.second++ == 0) {
                entry.first = now;
            }
        }
        m_cond.notify_all();
    }

    std::string m_path;
    std::string m_name;
    int m_fd = -1;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    size_t m_offset = 0;
    std::string m_partial;
    std::mutex m_mutex;
    std::condition_variable m_cond;
    std::map<std::string, std::pair<Clock::time_point, int>> m_seen;
};

// Lines of the agent log that contain `needle`, and the largest number of
// them written by one thread (the log prints the thread as "<N>"): each
// scan task that asked for the watch checks the file on its own thread.
size_t CountLogLines(const std::string& log, const std::string& needle, size_t* perThreadMax = nullptr)
{
    std::ifstream in(log);
    std::string line;
    size_t n = 0;
    std::map<std::string, size_t> byThread;
    while (std::getline(in, line)) {
        if (line.find(needle) == std::string::npos) {
            continue;
        }
        ++n;
        size_t open = line.find(" <");
        size_t close = open == std::string::npos ? open : line.find('>', open);
        ++byThread[close == std::string::npos ? std::string() : line.substr(open, close - open)];
    }
    if (perThreadMax != nullptr) {
        *perThreadMax = 0;
        for (auto& entry : byThread) {
            *perThreadMax = std::max(*perThreadMax, entry.second);
        }
    }
    return n;
}

// Distinct paths under `prefix` in "Receive file notify message" lines.
size_t CheckedPaths(const std::string& log, const std::string& prefix)
{
    const std::string head = "Receive file notify message, file path(";
    std::ifstream in(log);
    std::string line;
    std::set<std::string> paths;
    while (std::getline(in, line)) {
        size_t at = line.find(head + prefix);
        if (at == std::string::npos) {
            continue;
        }
        size_t start = at + head.size();
        size_t end = line.find(").", start);
        paths.insert(line.substr(start, end == std::string::npos ? std::string::npos : end - start));
    }
    return paths.size();
}

long PeakRssKb(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    while (in >> key) {
        if (key == "VmHWM:") {
            long kb = 0;
            in >> kb;
            return kb;
        }
        std::string rest;
        std::getline(in, rest);
    }
    return -1;
}

double Percentile(std::vector<double> v, double p)
{
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    size_t idx = static_cast<size_t>(p / 100.0 * static_cast<double>(v.size() - 1) + 0.5);
    return v[std::min(idx, v.size() - 1)];
}

std::string Arg(int argc, char** argv, const std::string& name, const std::string& def)
{
    for (int i = 1; i + 1 < argc; ++i) {
        if (argv[i] == name) {
            return argv[i + 1];
        }
    }
    return def;
}

std::string DefaultStage(const char* argv0)
{
    if (const char* env = getenv("ARDENT_STAGE")) {
        return env;
    }
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    std::string exe = n > 0 ? std::string(self, static_cast<size_t>(n)) : std::string(argv0);
    return exe.substr(0, exe.rfind('/')) + "/../stage";
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string stage = Arg(argc, argv, "--stage", DefaultStage(argv[0]));
    const int files = std::stoi(Arg(argc, argv, "--files", "1000"));
    const int burstDirs = std::stoi(Arg(argc, argv, "--burst-dirs", "50"));
    const int burstFiles = std::stoi(Arg(argc, argv, "--burst-files", "10000"));
    const std::string agentBin = stage + "/bin/ardent-agent";
    if (access(agentBin.c_str(), X_OK) != 0) {
        Die("no agent at " + agentBin + " (build ardent-agent and the modules, or pass --stage)");
    }

    char templ[] = "/tmp/ardent-bench-watch-XXXXXX";
    if (mkdtemp(templ) == nullptr) {
        Die("mkdtemp");
    }
    const std::string tmp = templ;
    const std::string install = tmp + "/install/";
    for (const char* sub : {"bin", "lib", "module", "data/webshell", "data/upload", "policy", "log", "run"}) {
        MkDirs(install + sub);
    }
    for (const char* sub : {"lib", "module"}) {
        std::string from = stage + "/" + sub;
        std::string cmd = "ln -s '" + from + "'/* '" + install + sub + "/'";
        if (system(cmd.c_str()) != 0) {
            Die("cannot link " + from);
        }
    }
    if (symlink(agentBin.c_str(), (install + "bin/ardent-agent").c_str()) != 0) {
        Die("symlink agent");
    }
    const std::string rules = tmp + "/webshell.yar";
    WriteText(rules, kRules);
    // In place before the start: the first watch registration does not wait
    // for the rule library's download.
    WriteText(install + "data/webshell/webshell.dat", kRules);
    std::string hash;
    bool flag = true;
    if (SDK::FileUtils::GetFileSha256(rules, flag, hash, 0) != 0) {
        Die("sha256 of " + rules);
    }
    const std::string root = tmp + "/www";
    MkDirs(root);
    MkDirs(tmp + "/host");
    Json::Value policy;
    policy["feature_name"] = "detect_webshell";
    policy["hash"] = "bench-watch";
    policy["content"]["default_scan_paths"] = Json::Value(Json::arrayValue);
    policy["content"]["customize_scan_paths"].append(root);
    policy["content"]["lib_version"] = "1";
    policy["content"]["lib_url"] = "file://" + rules;
    policy["content"]["lib_hash"] = hash;
    policy["content"]["monitor_file_change"] = true;
    policy["content"]["file_type"] = "php";
    policy["content"]["auto_scan_task"]["task_condition"]["type"] = "interval";
    policy["content"]["auto_scan_task"]["task_condition"]["interval_s"] = 86400;
    policy["content"]["auto_scan_task"]["task_condition"]["delay_s"] = 86400;
    const std::string policyFile = tmp + "/policy.json";
    WriteText(policyFile, Json::FastWriter().write(policy));

    SinkReader sink(tmp, "events.jsonl");
    std::vector<std::string> args = {install + "bin/ardent-agent", "run", "--install-dir", install,
                                     "--policy", policyFile, "--events", tmp + "/events.jsonl",
                                     "--host-root", tmp + "/host", "--log-level", "information"};
    std::vector<char*> cargs;
    for (auto& a : args) {
        cargs.push_back(const_cast<char*>(a.c_str()));
    }
    cargs.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, (tmp + "/agent.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, (tmp + "/agent.err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    if (posix_spawn(&pid, cargs[0], &actions, nullptr, cargs.data(), environ) != 0) {
        Die("cannot start " + agentBin);
    }
    posix_spawn_file_actions_destroy(&actions);

    int status = 0;
    auto fail = [&](const std::string& what) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        std::cerr << "bench_watch: " << what << " (agent output kept in " << tmp << ")\n";
        std::exit(2);
    };

    // Ready once a probe in the root is reported (the watch is set up after
    // the rule library is in place).
    Clock::time_point at;
    bool ready = false;
    for (int i = 0; i < 60 && !ready; ++i) {
        std::string probe = root + "/probe" + std::to_string(i) + ".php";
        WriteText(probe, kShell);
        ready = sink.WaitFor(probe, 1000, at);
    }
    if (!ready) {
        fail("the agent did not report a probe shell within 60 s");
    }

    // 1. Latency, close to event line.
    MkDirs(root + "/lat");
    {
        std::string probe = root + "/lat/probe.php";
        for (int i = 0; i < 50 && !sink.WaitFor(probe, 0, at); ++i) {
            WriteText(probe, kShell);
            sink.WaitFor(probe, 200, at);
        }
    }
    std::vector<double> latMs;
    int missing = 0;
    for (int i = 0; i < files; ++i) {
        std::string path = root + "/lat/f" + std::to_string(i) + ".php";
        int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0 || write(fd, kShell.data(), kShell.size()) != static_cast<ssize_t>(kShell.size())) {
            fail("write " + path);
        }
        // Stamped before close(): the agent may see the close before this
        // thread runs again, on a busy machine.
        Clock::time_point closed = Clock::now();
        close(fd);
        if (sink.WaitFor(path, 10000, at)) {
            latMs.push_back(std::chrono::duration<double, std::milli>(at - closed).count());
        } else {
            ++missing;
        }
    }

    // 2. A 10 MB upload in 4 KB pieces.
    const std::string big = root + "/upload-big.php";
    {
        int fd = open(big.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) {
            fail("open " + big);
        }
        std::string piece(4096, 'A');
        piece.replace(0, kShell.size(), kShell);
        for (int i = 0; i < 2560; ++i) {
            if (write(fd, piece.data(), piece.size()) != 4096) {
                fail("write " + big);
            }
            if (i == 0) {
                piece.assign(4096, 'A');
            }
        }
        close(fd);
    }
    const std::string after = root + "/after-big.php";
    WriteText(after, kShell);
    if (!sink.WaitFor(after, 20000, at) || !sink.WaitFor(big, 20000, at)) {
        fail("the 10 MB file or the shell after it was not reported");
    }
    size_t bigPerTask = 0;
    const size_t bigChecks = CountLogLines(
        install + "log/agent.log", "Receive file notify message, file path(" + big + ")", &bigPerTask);

    // 3. A burst of new files in new directories.
    const int perDir = burstFiles / burstDirs;
    const std::string burstRoot = root + "/burst";
    MkDirs(burstRoot);
    Clock::time_point burstStart = Clock::now();
    for (int d = 0; d < burstDirs; ++d) {
        std::string dir = burstRoot + "/d" + std::to_string(d);
        if (mkdir(dir.c_str(), 0755) != 0) {
            fail("mkdir " + dir);
        }
        for (int f = 0; f < perDir; ++f) {
            WriteText(dir + "/s" + std::to_string(f) + ".php", kShell);
        }
    }
    Clock::time_point written = Clock::now();
    const size_t total = static_cast<size_t>(perDir) * static_cast<size_t>(burstDirs);
    Clock::time_point deadline = Clock::now() + std::chrono::seconds(300);
    size_t reported = 0;
    while (Clock::now() < deadline && (reported = sink.CountWithPrefix(burstRoot + "/")) < total) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    Clock::time_point burstEnd = sink.LastWithPrefix(burstRoot + "/");
    const size_t burstChecks =
        CountLogLines(install + "log/agent.log", "Receive file notify message, file path(" + burstRoot + "/");
    const size_t burstChecked = CheckedPaths(install + "log/agent.log", burstRoot + "/");
    const long rssKb = PeakRssKb(pid);

    kill(pid, SIGTERM);
    waitpid(pid, &status, 0);

    double median = Percentile(latMs, 50);
    double p99 = Percentile(latMs, 99);
    double maxMs = latMs.empty() ? 0 : *std::max_element(latMs.begin(), latMs.end());
    double burstS = std::chrono::duration<double>(burstEnd - burstStart).count();
    double writeS = std::chrono::duration<double>(written - burstStart).count();

    std::printf("watch: close -> event line, %d files one after another\n", files);
    std::printf("  median %.1f ms   p99 %.1f ms   max %.1f ms   missing %d   (budget: p99 < 200 ms) %s\n",
                median, p99, maxMs, missing, (p99 < 200 && missing == 0) ? "OK" : "OVER BUDGET");
    std::printf("watch: 10 MB written in 4 KB pieces -> %zu checks in all, at most %zu by one watching task, "
                "%d events   (budget: <= 2 checks) %s\n",
                bigChecks, bigPerTask, sink.Reports(big),
                (bigPerTask >= 1 && bigPerTask <= 2) ? "OK" : "OVER BUDGET");
    std::printf("watch: burst of %zu new files in %d new directories\n", total, burstDirs);
    std::printf("  written in %.2f s; %zu/%zu files checked (%zu checks in all), %zu/%zu reported, "
                "the last after %.2f s; agent peak RSS %.1f MiB   %s\n",
                writeS, burstChecked, total, burstChecks, reported, total, burstS,
                static_cast<double>(rssKb) / 1024.0,
                (reported == total && burstChecked == total) ? "none lost" : "LOST FILES");
    bool ok = missing == 0 && reported == total && burstChecked == total;
    if (ok) {
        std::string cmd = "rm -rf '" + tmp + "'";
        if (system(cmd.c_str()) != 0) {
            std::cerr << "bench_watch: could not remove " << tmp << "\n";
        }
    } else {
        std::cerr << "bench_watch: agent output kept in " << tmp << "\n";
    }
    return ok ? 0 : 1;
}

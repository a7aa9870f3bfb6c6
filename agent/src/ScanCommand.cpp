// `ardent-agent scan [--policy F] [--rules F] [--events F|-] [PATH...]`:
// one full web-shell pass with the real modules, then exit.
//
// The pass goes through the same machinery as the resident agent: an engine
// with only the report and web-shell modules loaded, the policy applied as
// policy 10001, and the tasklet "detect_webshell_10001". The rule library is
// prepared the way the agent prepares it: the web-shell module finds
// data/webshell/webshell.dat missing or stale, asks the file report service
// to fetch the policy's "lib_url" (here file://<rules>), and skips the pass;
// this command waits for that download and runs the pass again.
//
// Choices for a one-shot pass:
// - Without --policy a built-in policy is used: the usual web roots, the
//   usual server-side script suffixes, 10 MiB, 100 uploads.
// - File-change and container monitoring are switched off, whatever the
//   policy says: nothing is left running after the pass.
// - PATHs replace "customize_scan_paths" and empty "default_scan_paths".
// - Events go to stdout unless --events names a file. Progress is shown on
//   stderr when stderr is a terminal, except while the events are written
//   to that same terminal (the two would garble each other).
// - Exit status: 0 nothing certain found, 1 certain findings, 2 an error
//   (bad arguments or policy, rules that cannot be prepared, events that
//   could not be written).

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Glob.h>
#include <Poco/Path.h>
#include <Poco/Runnable.h>
#include <Poco/Thread.h>
#include <Poco/URI.h>
#include <json/json.h>

#include "Commands.h"
#include "framework/Engine.h"
#include "framework/StatusBoard.h"
#include "framework/Task.h"
#include "sdk/FileUtils.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/Posix.h"
#include "sdk/TimeUtils.h"
#include "sdk/YaraUtils.h"

namespace Agent {

namespace {

const char* const kPolicyId = "10001";
const char* const kFeature = "detect_webshell";
const char* const kTasklet = "detect_webshell_10001";
const char* const kLibRelativePath = "data/webshell/webshell.dat";
const char* const kDataTask = "data_comm_report_task";
const char* const kFileTask = "file_comm_report_task";
const char* const kModules[] = {"libreport_module.so", "libwebshell_module.so"};

// The web-shell module hashes its rule library up to this size.
const long kMaxRulesBytes = 10485760;
const int kDefaultMaxFileSize = 10485760;
const int kDefaultUploadQuota = 100;
// Long enough for the report service's own download timeout to fire first.
const int kRulesWaitS = 90;
const int kDrainWaitS = 60;
const int kPollMs = 20;

const char* const kDefaultRoots[] = {
    "/var/www",
    "/srv/www",
    "/srv/http",
    "/usr/share/nginx/html",
    "/usr/local/nginx/html",
    "/usr/local/apache2/htdocs",
    "/var/lib/tomcat*/webapps",
    "/opt/tomcat*/webapps",
    "/usr/share/tomcat*/webapps",
};

const char* const kDefaultSuffixes =
    "php,php3,php4,php5,php7,php8,phtml,pht,phps,phar,inc,"
    "jsp,jspx,jspf,jsw,jsv,"
    "asp,aspx,asa,asax,ascx,ashx,asmx,cer,cshtml,"
    "cfm,cfml,cgi,pl";

int Error(const std::string& message)
{
    std::cerr << "ardent-agent scan: " << message << "\n";
    return 2;
}

std::string Absolute(const std::string& path)
{
    if (!path.empty() && path[0] == '/') {
        return path;
    }
    std::string cwd = Poco::Path::current();
    if (cwd.empty() || cwd.back() != '/') {
        cwd += '/';
    }
    return cwd + path;
}

bool ReadFile(const std::string& path, std::string& out, std::string& error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    out = text.str();
    return true;
}

int64_t NowMs()
{
    return static_cast<int64_t>(SDK::TimeUtils::GetCurrentSystemTickUsed());
}

template <typename Pred>
bool WaitUntil(Pred pred, int timeoutS)
{
    const int64_t deadline = NowMs() + static_cast<int64_t>(timeoutS) * 1000;
    while (!pred()) {
        if (NowMs() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kPollMs));
    }
    return true;
}

uint64_t Figure(const Json::Value& object, const char* key)
{
    const Json::Value& v = object[key];
    return v.isUInt64() ? v.asUInt64() : 0;
}

// "HH:MM" of the minute that just passed: a daily schedule at that time
// cannot fire while this short-lived process runs.
std::string PassedMinute()
{
    std::time_t now = std::time(nullptr) - 60;
    std::tm local{};
    localtime_r(&now, &local);
    char text[8];
    std::snprintf(text, sizeof(text), "%02d:%02d", local.tm_hour, local.tm_min);
    return text;
}

Json::Value DefaultPolicy()
{
    Json::Value doc(Json::objectValue);
    doc["feature_name"] = kFeature;
    doc["enabled"] = true;
    Json::Value& content = doc["content"];
    content["customize_scan_paths"] = Json::Value(Json::arrayValue);
    content["default_scan_paths"] = Json::Value(Json::arrayValue);
    for (const char* pattern : kDefaultRoots) {
        std::set<std::string> found;
        Poco::Glob::glob(pattern, found, Poco::Glob::GLOB_DIRS_ONLY);
        for (const auto& dir : found) {
            std::string path = dir;
            if (path.size() > 1 && path.back() == '/') {
                path.pop_back();
            }
            content["default_scan_paths"].append(path);
        }
    }
    content["file_type"] = kDefaultSuffixes;
    content["max_file_size"] = kDefaultMaxFileSize;
    content["upload_file_count_per_day"] = kDefaultUploadQuota;
    content["auto_scan_task"]["task_condition"]["type"] = "daily";
    content["auto_scan_task"]["task_condition"]["at"] = PassedMinute();
    return doc;
}

// Elapsed time and findings so far, rewritten in place on stderr.
class Progress : public Poco::Runnable {
public:
    void run() override
    {
        const int64_t start = NowMs();
        while (!m_stop.load()) {
            const Json::Value events = Framework::StatusBoard::Get("report.events");
            const Json::Value uploads = Framework::StatusBoard::Get("report.uploads");
            std::fprintf(stderr, "\rscanning... %.1f s, %llu events, %llu uploads\033[K",
                         static_cast<double>(NowMs() - start) / 1000.0,
                         static_cast<unsigned long long>(Figure(events, "received")),
                         static_cast<unsigned long long>(Figure(uploads, "received")));
            std::fflush(stderr);
            for (int i = 0; i < 10 && !m_stop.load(); ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(25));
            }
        }
        std::fprintf(stderr, "\r\033[K");
        std::fflush(stderr);
    }
    void Stop() { m_stop.store(true); }

private:
    std::atomic<bool> m_stop{false};
};

struct ScanRun {
    Framework::Engine& engine;
    std::string install;
    std::string libPath;
    bool showProgress = false;

    // Runs the tasklet once; the pass's figures as the module published them.
    bool Pass(Json::Value& pass, std::string& error)
    {
        Progress progress;
        Poco::Thread progressThread("scan progress");
        if (showProgress) {
            progressThread.start(progress);
        }
        const uint64_t before = Figure(Framework::StatusBoard::Get("webshell.last_pass"), "pass_id");
        int result = 0;
        const Framework::Engine::TaskletResult outcome =
            engine.InvokeTasklet(kTasklet, "", true, result);
        if (showProgress) {
            progress.Stop();
            progressThread.join();
        }
        if (outcome == Framework::Engine::TASKLET_UNKNOWN) {
            error = "the web-shell module did not register the scan tasklet " +
                    std::string(kTasklet) + " (see " + install + "log/agent.log)";
            return false;
        }
        pass = Framework::StatusBoard::Get("webshell.last_pass");
        if (pass.isNull() || Figure(pass, "pass_id") == before) {
            error = "the scan tasklet ran but reported no pass (see " + install + "log/agent.log)";
            return false;
        }
        return true;
    }

    // After a pass skipped for want of rules: wait for the download the
    // module asked for. Empty text when the file is in place.
    std::string WaitForRules()
    {
        std::string failure;
        const bool settled = WaitUntil(
            [&] {
                const Json::Value d = Framework::StatusBoard::Get("report.downloads")[libPath];
                const std::string state = d["state"].asString();
                if (state == "failed") {
                    failure = "download of " + d["url"].asString() + " to " + libPath +
                              " failed: " + d["error"].asString();
                    return true;
                }
                return state == "done";
            },
            kRulesWaitS);
        if (!failure.empty()) {
            return failure;
        }
        if (!settled) {
            return "the rule library did not arrive at " + libPath + " within " +
                   std::to_string(kRulesWaitS) + " s";
        }
        return "";
    }

    // Until the report services handled every event and upload of the pass.
    bool Drain(const Json::Value& pass)
    {
        const uint64_t events = Figure(pass, "events");
        const uint64_t uploads = Figure(pass, "uploads");
        return WaitUntil(
            [&] {
                Framework::Task* data = engine.FindTask(kDataTask);
                Framework::Task* file = engine.FindTask(kFileTask);
                return Figure(Framework::StatusBoard::Get("report.events"), "received") >= events &&
                       Figure(Framework::StatusBoard::Get("report.uploads"), "received") >= uploads &&
                       (data == nullptr || data->QueueDepth() == 0) &&
                       (file == nullptr || file->QueueDepth() == 0);
            },
            kDrainWaitS);
    }
};

std::string RulesProblem(const std::string& libPath)
{
    const Json::Value rules = Framework::StatusBoard::Get("webshell.rules");
    const std::string state = rules["state"].asString();
    if (state == "load_failed") {
        return "the rule library " + libPath + " cannot be loaded";
    }
    if (state == "hash_mismatch") {
        return "the rule library at " + libPath + " does not match the policy's lib_hash";
    }
    if (state == "missing") {
        return "the rule library " + libPath + " is missing";
    }
    return "the rule library is not ready (state \"" + state + "\")";
}

std::string HumanBytes(uint64_t bytes)
{
    std::ostringstream out;
    if (bytes < 1024) {
        out << bytes << " B";
    } else if (bytes < 1024 * 1024) {
        out << std::fixed << std::setprecision(1) << static_cast<double>(bytes) / 1024.0 << " KiB";
    } else {
        out << std::fixed << std::setprecision(1) << static_cast<double>(bytes) / (1024.0 * 1024.0)
            << " MiB";
    }
    return out.str();
}

void PrintSummary(const Json::Value& pass, const Json::Value& events, const Json::Value& uploads,
                  const std::string& sink)
{
    std::ostringstream out;
    out << "ardent-agent scan: " << Figure(pass, "files_seen") << " files seen, "
        << Figure(pass, "files_checked") << " checked, " << Figure(pass, "files_matched")
        << " matched (" << Figure(pass, "certain") << " certain, " << Figure(pass, "uncertain")
        << " suspicious)\n";
    out << "  events:  " << Figure(events, "written") << " written to " << sink;
    if (Figure(pass, "certain") > Figure(pass, "events")) {
        out << " (" << Figure(pass, "certain") - Figure(pass, "events")
            << " repeated within a minute and not reported again)";
    }
    out << "\n";
    out << "  uploads: " << Figure(uploads, "stored") << " kept, " << Figure(uploads, "duplicates")
        << " already kept, " << Figure(uploads, "refused") + Figure(uploads, "failed")
        << " not kept, in " << uploads["dir"].asString() << "\n";
    out << "  checked: " << HumanBytes(Figure(pass, "bytes_checked")) << " in " << std::fixed
        << std::setprecision(2) << pass["seconds"].asDouble() << " s\n";
    std::cerr << out.str();
}

}  // namespace

int ScanCommandMain(const AgentOptions& options)
{
    std::string install = options.installDir;
    if (!install.empty() && install.back() != '/') {
        install += '/';
    }
    SDK::InnerCpuCtrlUtils::SetCpuLimit(options.cpuLimit);

    // --- arguments, before anything starts
    // A policy of one's own keeps its rule library unless --rules is given.
    const bool defaultRules = options.rulesFile.empty();
    const bool useRules = !defaultRules || options.policyFile.empty();
    const std::string rulesPath =
        Absolute(defaultRules ? install + "share/rules/webshell.yar" : options.rulesFile);
    struct stat st;
    if (useRules && (::stat(rulesPath.c_str(), &st) != 0 || !S_ISREG(st.st_mode))) {
        return Error("rule library " + rulesPath +
                     (defaultRules ? " (the starter library) is missing; give one with --rules F"
                                   : " is not a readable file"));
    }
    if (useRules && st.st_size > kMaxRulesBytes) {
        return Error("rule library " + rulesPath + " is larger than 10 MiB");
    }

    Json::Value policy;
    if (options.policyFile.empty()) {
        policy = DefaultPolicy();
    } else {
        std::string text;
        std::string error;
        if (!ReadFile(options.policyFile, text, error)) {
            return Error("policy: " + error);
        }
        if (SDK::JsonUtils::ParseJsonStr(text, policy) != 0 || !policy.isObject()) {
            return Error("policy file " + options.policyFile + " is not a JSON object");
        }
        if (!policy["content"].isObject()) {
            return Error("policy file " + options.policyFile + " has no \"content\" object");
        }
    }
    Json::Value& content = policy["content"];

    std::vector<std::string> paths;
    for (const auto& arg : options.args) {
        // What a shell user types ("./www/", ".") reads better in events
        // without the "./" and the trailing slash.
        std::string typed = arg;
        while (typed.size() > 2 && typed.compare(0, 2, "./") == 0) {
            typed.erase(0, 2);
        }
        while (typed.size() > 1 && typed.back() == '/') {
            typed.pop_back();
        }
        std::string path = typed == "." ? Poco::Path::current() : Absolute(typed);
        while (path.size() > 1 && path.back() == '/') {
            path.pop_back();
        }
        if (::stat(path.c_str(), &st) != 0) {
            return Error("scan path " + path + " does not exist");
        }
        if (!S_ISDIR(st.st_mode)) {
            return Error("scan path " + path + " is not a directory");
        }
        paths.push_back(path);
    }
    if (!paths.empty()) {
        content["customize_scan_paths"] = Json::Value(Json::arrayValue);
        for (const auto& path : paths) {
            content["customize_scan_paths"].append(path);
        }
        content["default_scan_paths"] = Json::Value(Json::arrayValue);
    } else if (options.policyFile.empty() && content["default_scan_paths"].empty()) {
        std::string roots;
        for (const char* root : kDefaultRoots) {
            roots += std::string(roots.empty() ? "" : ", ") + root;
        }
        return Error("none of the usual web roots exists here (" + roots +
                     "); name the directories to scan");
    }
    content["monitor_file_change"] = false;
    content["monitor_container"] = false;

    // An events file that cannot even be opened fails the scan before it starts.
    const std::string sink = options.eventsSink.empty() || options.eventsSink == "-"
                                 ? std::string("-")
                                 : Absolute(options.eventsSink);
    if (sink != "-") {
        const int fd = ::open(sink.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640);
        if (fd < 0) {
            return Error("cannot write events to " + sink + ": " + std::strerror(errno));
        }
        ::close(fd);
    }

    // --- the install tree and logging
    for (const char* sub : {"log", "data/webshell", "data/upload"}) {
        try {
            Poco::File(install + sub).createDirectories();
        } catch (const Poco::Exception& e) {
            return Error("cannot create " + install + sub + ": " + e.displayText());
        }
    }
    // Kept samples and the rule library are private; a link planted in
    // place of either directory is refused, never followed.
    for (const char* sub : {"data/webshell", "data/upload"}) {
        const SDK::Status made = SDK::MakePrivateDir(install + sub);
        if (!made) {
            std::cerr << "ardent-agent scan: " << made.message() << "; left as it is\n";
        }
    }
    const bool verbose = options.logLevel == "debug" || options.logLevel == "trace";
    if (!SDK::LoggerUtils::GetInstance()->Configure(install + "log/agent.log", verbose,
                                                    options.logLevel)) {
        std::cerr << "ardent-agent scan: cannot write " << install
                  << "log/agent.log; logging to stderr\n";
    }

    if (useRules) {
        // Compiled once here so that a broken file is reported on the
        // terminal with its error, not only in the log.
        SDK::YaraUtils probe([](void*, int, void*, void*) -> int { return 0; });
        if (!probe.LoadRuleFromFile(rulesPath)) {
            return Error("the rules in " + rulesPath + " cannot be used: " + probe.LastError());
        }
        bool flag = true;
        std::string sha256;
        if (SDK::FileUtils::GetFileSha256(rulesPath, flag, sha256, kMaxRulesBytes) != 0) {
            return Error("cannot read the rule library " + rulesPath);
        }
        Poco::URI url;
        url.setScheme("file");
        url.setPath(rulesPath);
        content["lib_url"] = url.toString();
        content["lib_hash"] = sha256;
        content["lib_version"] = "sha256-" + sha256.substr(0, 16);
        if (!policy.isMember("hash")) {
            policy["hash"] = sha256;
        }
    }
    const std::string document = SDK::JsonUtils::JsonToString(policy);

    // --- the engine with the report and web-shell modules

    Framework::Engine engine;
    engine.config().setString("agent.install_dir", install);
    engine.config().setString("agent.log_dir", install + "log");
    engine.config().setString("agent.events", sink);
    engine.config().setString("agent.host_root", "/");

    for (const char* name : kModules) {
        const std::string path = install + "module/" + name;
        if (!Poco::File(path).exists()) {
            return Error("module " + path + " is missing");
        }
        if (!engine.LoadModule(path)) {
            return Error("module " + path + " cannot be loaded (see " + install + "log/agent.log)");
        }
    }
    if (engine.FindTask(kDataTask) == nullptr || engine.FindTask(kFileTask) == nullptr) {
        return Error("the report services did not start (see " + install + "log/agent.log)");
    }
    std::string policyError;
    if (!engine.ApplyPolicyDocument(kPolicyId, document, policyError)) {
        return Error("policy refused: " + policyError);
    }

    // --- the pass, once more if the rules had to be fetched first
    ScanRun run{engine, install, install + kLibRelativePath,
                ::isatty(STDERR_FILENO) == 1 && !(sink == "-" && ::isatty(STDOUT_FILENO) == 1)};
    Json::Value pass;
    std::string error;
    if (!run.Pass(pass, error)) {
        return Error(error);
    }
    if (pass["state"].asString() == "skipped" && pass["reason"].asString() == "rules not ready") {
        error = run.WaitForRules();
        if (!error.empty()) {
            return Error("cannot prepare the rule library: " + error);
        }
        if (!run.Pass(pass, error)) {
            return Error(error);
        }
    }
    if (pass["state"].asString() == "skipped") {
        const std::string reason = pass["reason"].asString();
        if (reason == "rules not ready") {
            return Error("cannot prepare the rule library: " + RulesProblem(run.libPath));
        }
        if (reason == "scan path empty") {
            return Error("none of the scan paths is an existing directory");
        }
        return Error("the pass was skipped: " + reason);
    }
    const bool drained = run.Drain(pass);
    engine.UnloadModules();  // the report tasks write what is still queued

    const Json::Value events = Framework::StatusBoard::Get("report.events");
    const Json::Value uploads = Framework::StatusBoard::Get("report.uploads");
    PrintSummary(pass, events, uploads, sink == "-" ? std::string("standard output") : sink);
    const uint64_t unwritten = Figure(events, "held") + Figure(events, "dropped");
    if (unwritten > 0) {
        return Error(std::to_string(unwritten) + " events could not be written: " +
                     events["last_error"].asString());
    }
    if (!drained) {
        std::cerr << "ardent-agent scan: the report services did not confirm every event and "
                     "upload within "
                  << kDrainWaitS << " s\n";
    }
    return Figure(pass, "certain") > 0 ? 1 : 0;
}

}  // namespace Agent

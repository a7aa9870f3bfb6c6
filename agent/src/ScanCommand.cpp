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
// The command learns how things went from the typed outcomes the services
// announce (message/Outcomes.h), which arrive in a mailbox of its own: the
// end of the pass, the end of the download, the figures of the event sink
// and the upload store. It waits on that mailbox, never on status texts.
//
// Choices for a one-shot pass:
// - Without --policy a built-in policy is used: the usual web roots, the
//   usual server-side script suffixes, 10 MiB, 100 uploads.
// - Exactly one pass over each file: schedules are held, so the periodic
//   task never walks beside the pass this command runs, whatever the
//   policy's schedule. File-change and container monitoring are switched
//   off: nothing is left running after the pass.
// - --threads N: the walk, on a thread of its own, feeds N scanning threads,
//   each with a scanner of its own over the one compiled library; events,
//   uploads and the upload quota are as with one thread.
// - PATHs replace "customize_scan_paths" and empty "default_scan_paths". A
//   file is checked alone, whatever its suffix.
// - Copies of suspicious files never go into the install tree unless
//   --upload-dir names it: by default a fresh private directory under
//   $TMPDIR (removed again when nothing was kept), none with --no-upload.
// - Every match is listed in the summary and, with --report, written as JSON.
// - Events go to stdout unless --events names a file. Progress is shown on
//   stderr when stderr is a terminal, except while the events are written
//   to that same terminal (the two would garble each other).
// - Exit status: 0 nothing certain found, 1 certain findings, 2 an error
//   (bad arguments or policy, rules that cannot be prepared, events that
//   could not be written).

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <Poco/Base64Encoder.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Glob.h>
#include <Poco/Path.h>
#include <Poco/URI.h>
#include <json/json.h>

#include "Commands.h"
#include "framework/Engine.h"
#include "framework/Health.h"
#include "framework/Mailbox.h"
#include "framework/Topics.h"
#include "message/Matches.h"
#include "message/Outcomes.h"
#include "sdk/FileUtils.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/LogMacros.h"
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

// --rules is installed through the report service's download, which takes
// up to this much by default (report.download_max_bytes).
const long kMaxRulesBytes = 64L * 1024 * 1024;
const int kDefaultMaxFileSize = 10485760;
const int kDefaultUploadQuota = 100;
// Long enough for the report service's own download timeout to fire first.
const int kRulesWaitS = 90;
const int kDrainWaitS = 60;
// How often the progress line is redrawn while the pass runs.
const long kProgressMs = 250;
// Figures arrive after every event and upload; the mailbox is drained all
// along, this only bounds a burst.
const unsigned int kOutcomeCapacity = 8192;

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

int64_t NowMs()
{
    return static_cast<int64_t>(SDK::TimeUtils::GetCurrentSystemTickUsed());
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
    // Held by this command like any schedule: the periodic task never fires.
    content["auto_scan_task"]["task_condition"]["type"] = "daily";
    content["auto_scan_task"]["task_condition"]["at"] = "03:00";
    return doc;
}

// What the services announced, gathered on the calling thread from a
// mailbox subscribed to their topics.
class Outcomes {
public:
    Outcomes() : m_mailbox(std::make_shared<Framework::Mailbox>("scan_command", kOutcomeCapacity))
    {
        for (const char* topic : kTopics) {
            Framework::Topics::Subscribe(topic, Framework::MailboxRef(m_mailbox));
        }
    }
    ~Outcomes()
    {
        for (const char* topic : kTopics) {
            Framework::Topics::Unsubscribe(topic, Framework::MailboxRef(m_mailbox));
        }
    }
    Outcomes(const Outcomes&) = delete;
    Outcomes& operator=(const Outcomes&) = delete;

    // Takes in what arrived; when nothing had, waits up to waitMs first.
    void Pump(long waitMs)
    {
        if (m_mailbox->Depth() == 0 && waitMs > 0) {
            m_mailbox->Wait(waitMs);
        }
        std::shared_ptr<Framework::Message> msg;
        while (m_mailbox->Take(msg)) {
            if (auto* pass = dynamic_cast<Engine::ScanPassMessage*>(msg.get())) {
                passes.push_back(*pass);
            } else if (auto* download = dynamic_cast<Engine::DownloadMessage*>(msg.get())) {
                downloads.erase(download->target);
                downloads.emplace(download->target, *download);
            } else if (auto* sink = dynamic_cast<Engine::EventSinkMessage*>(msg.get())) {
                events = sink->figures;
            } else if (auto* store = dynamic_cast<Engine::UploadMessage*>(msg.get())) {
                uploads = store->figures;
            } else if (auto* list = dynamic_cast<Engine::MatchListMessage*>(msg.get())) {
                matches.insert(matches.end(), list->matches.begin(), list->matches.end());
                matchesNotListed += list->notListed;
            }
        }
    }

    // Pumps until `done` holds or timeoutS passed; `tick` runs at least every
    // kProgressMs.
    template <typename Done, typename Tick>
    bool WaitUntil(Done done, int timeoutS, Tick tick)
    {
        const int64_t deadline = NowMs() + static_cast<int64_t>(timeoutS) * 1000;
        for (;;) {
            Pump(0);
            if (done()) {
                return true;
            }
            const int64_t left = deadline - NowMs();
            if (left <= 0) {
                return false;
            }
            tick();
            Pump(std::min<int64_t>(left, kProgressMs));
        }
    }
    template <typename Done>
    bool WaitUntil(Done done, int timeoutS)
    {
        return WaitUntil(done, timeoutS, [] {});
    }

    std::vector<Engine::ScanPassMessage> passes;
    std::map<std::string, Engine::DownloadMessage> downloads;
    Engine::EventSinkFigures events;
    Engine::UploadFigures uploads;
    std::vector<Engine::MatchRecord> matches;
    uint64_t matchesNotListed = 0;

private:
    static constexpr const char* kTopics[] = {Engine::kScanPassTopic, Engine::kDownloadTopic,
                                              Engine::kEventSinkTopic, Engine::kUploadTopic,
                                              Engine::kMatchListTopic};
    std::shared_ptr<Framework::Mailbox> m_mailbox;
};

struct ScanRun {
    Framework::Engine& engine;
    Outcomes& outcomes;
    std::string install;
    std::string libPath;
    bool showProgress = false;

    // Runs the tasklet once, on the engine's worker thread, and waits for the
    // pass to end. `pass` is what the module announced.
    bool Pass(Engine::ScanPassMessage& pass, std::string& error)
    {
        const size_t before = outcomes.passes.size();
        int result = 0;
        const Framework::TaskletResult started = engine.InvokeTasklet(kTasklet, "", false, result);
        if (started == Framework::TASKLET_UNKNOWN) {
            error = "the web-shell module did not register the scan tasklet " +
                    std::string(kTasklet) + " (see " + install + "log/agent.log)";
            return false;
        }
        const int64_t start = NowMs();
        auto ended = [&] {
            return outcomes.passes.size() > before || engine.TaskletRunner().Running().empty();
        };
        while (!ended()) {
            outcomes.WaitUntil(ended, 3600, [&] { ShowProgress(start); });
        }
        engine.WaitForTasklets();
        outcomes.Pump(0);
        if (showProgress) {
            std::fprintf(stderr, "\r\033[K");
            std::fflush(stderr);
        }
        if (outcomes.passes.size() <= before) {
            error = "the scan tasklet ran but reported no pass (see " + install + "log/agent.log)";
            return false;
        }
        pass = outcomes.passes.back();
        return true;
    }

    void ShowProgress(int64_t start) const
    {
        if (!showProgress) {
            return;
        }
        std::fprintf(stderr, "\rscanning... %.1f s, %llu events, %llu uploads\033[K",
                     static_cast<double>(NowMs() - start) / 1000.0,
                     static_cast<unsigned long long>(outcomes.events.received),
                     static_cast<unsigned long long>(outcomes.uploads.received));
        std::fflush(stderr);
    }

    // After a pass skipped for want of rules: wait for the download the
    // module asked for. Empty text when the file is in place.
    std::string WaitForRules()
    {
        if (!outcomes.WaitUntil([&] { return outcomes.downloads.count(libPath) != 0; }, kRulesWaitS)) {
            return "the rule library did not arrive at " + libPath + " within " +
                   std::to_string(kRulesWaitS) + " s";
        }
        const Engine::DownloadMessage& d = outcomes.downloads.at(libPath);
        if (!d.ok) {
            return "download of " + d.url + " to " + libPath + " failed: " + d.error;
        }
        return "";
    }

    // Until the report services handled every event and upload of the pass.
    bool Drain(const Engine::PassFigures& pass)
    {
        return outcomes.WaitUntil(
            [&] {
                return outcomes.events.received >= pass.events &&
                       outcomes.uploads.received >= pass.uploads;
            },
            kDrainWaitS);
    }
};

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

// Figures of every pass this command made: a file checked twice shows.
Engine::PassFigures Total(const std::vector<Engine::ScanPassMessage>& passes, double& seconds)
{
    Engine::PassFigures total;
    seconds = 0;
    for (const auto& p : passes) {
        total.filesSeen += p.figures.filesSeen;
        total.filesChecked += p.figures.filesChecked;
        total.filesTimedOut += p.figures.filesTimedOut;
        total.filesFailed += p.figures.filesFailed;
        total.filesMatched += p.figures.filesMatched;
        total.certain += p.figures.certain;
        total.uncertain += p.figures.uncertain;
        total.allowed += p.figures.allowed;
        total.events += p.figures.events;
        total.uploads += p.figures.uploads;
        total.bytesChecked += p.figures.bytesChecked;
        if (!p.Skipped()) {
            seconds += static_cast<double>(p.finishedMs - p.startedMs) / 1000.0;
        }
    }
    return total;
}

// Where copies of suspicious files go: --upload-dir, nowhere, or a fresh
// private directory that is removed again if nothing was kept in it.
struct UploadPlace {
    std::string dir;         // "" with --no-upload
    bool temporary = false;  // made for this run
};

const char* Tier(const Engine::MatchRecord& m)
{
    return m.certain ? "certain" : "uncertain";
}

// In path order, whatever order the scanning threads found them in.
void SortMatches(std::vector<Engine::MatchRecord>& matches)
{
    std::sort(matches.begin(), matches.end(), [](const Engine::MatchRecord& a, const Engine::MatchRecord& b) {
        return a.path != b.path ? a.path < b.path : a.rule < b.rule;
    });
}

std::string MatchLines(const Outcomes& outcomes)
{
    std::ostringstream out;
    // Names come from the scanned tree: escaped so they cannot garble the terminal.
    for (const auto& m : outcomes.matches) {
        out << "    " << Tier(m) << " " << SDK::LogSafe(m.path, 1024)
            << "  rule " << SDK::LogSafe(m.rule, 256);
        if (!m.keyword.empty()) {
            out << "  keyword \"" << SDK::LogSafe(m.keyword, 256) << "\"";
        }
        if (m.layerDepth > 0) {
            out << "  layer " << m.layerDepth;
        }
        if (!m.certain) {
            out << (m.uploaded ? "  uploaded" : "  not uploaded");
        }
        out << "\n";
    }
    if (outcomes.matchesNotListed > 0) {
        out << "    ... and " << outcomes.matchesNotListed << " more matches, counted but not listed\n";
    }
    return out.str();
}

Json::Value MatchReport(const Outcomes& outcomes)
{
    Json::Value report(Json::objectValue);
    report["matches"] = Json::Value(Json::arrayValue);
    for (const auto& m : outcomes.matches) {
        Json::Value v(Json::objectValue);
        // As in events: a name that is not UTF-8 is escaped, its bytes alongside.
        bool escaped = false;
        v["path"] = SDK::JsonUtils::EscapeNonUtf8(m.path, escaped);
        if (escaped) {
            std::ostringstream b64;
            Poco::Base64Encoder encoder(b64);
            encoder.rdbuf()->setLineLength(0);
            encoder << m.path;
            encoder.close();
            v["path_b64"] = b64.str();
        }
        v["rule"] = m.rule;
        v["tier"] = Tier(m);
        v["keyword"] = m.keyword;
        v["sha256"] = m.sha256;
        v["uploaded"] = m.uploaded;
        v["layer_depth"] = m.layerDepth;
        report["matches"].append(v);
    }
    report["not_listed"] = Json::UInt64(outcomes.matchesNotListed);
    return report;
}

void PrintSummary(const Outcomes& outcomes, const std::string& sink, const UploadPlace& place)
{
    double seconds = 0;
    const Engine::PassFigures pass = Total(outcomes.passes, seconds);
    const Engine::EventSinkFigures& events = outcomes.events;
    const Engine::UploadFigures& uploads = outcomes.uploads;
    std::ostringstream out;
    out << "ardent-agent scan: " << pass.filesSeen << " files seen, " << pass.filesChecked
        << " checked, " << pass.filesMatched << " matched (" << pass.certain << " certain, "
        << pass.uncertain << " suspicious" << (pass.allowed > 0 ? ", " + std::to_string(pass.allowed) + " allowed" : "")
        << ")\n";
    if (pass.filesTimedOut + pass.filesFailed > 0) {
        out << "  not checked to the end: " << pass.filesTimedOut << " timed out, " << pass.filesFailed
            << " failed (see the log; kept for a second look within the upload quota)\n";
    }
    out << "  events:  " << events.written << " written to " << sink;
    if (pass.certain > pass.events) {
        out << " (" << pass.certain - pass.events
            << " repeated within a minute and not reported again)";
    }
    out << "\n";
    if (place.dir.empty()) {
        out << "  uploads: none kept (--no-upload)\n";
    } else if (place.temporary && uploads.stored + uploads.duplicates == 0) {
        out << "  uploads: none kept\n";
    } else {
        out << "  uploads: " << uploads.stored << " kept, " << uploads.duplicates << " already kept, "
            << uploads.refused + uploads.failed << " not kept, in " << place.dir << "\n";
    }
    out << "  checked: " << HumanBytes(pass.bytesChecked) << " in " << std::fixed
        << std::setprecision(2) << seconds << " s\n";
    if (!outcomes.matches.empty() || outcomes.matchesNotListed > 0) {
        out << "  matches:\n" << MatchLines(outcomes);
    }
    std::cerr << out.str();
}

// Replaced whole: a reader never sees half a report.
SDK::Status WriteReport(const std::string& path, const Json::Value& report)
{
    const std::string temp = path + ".tmp";
    SDK::UniqueFd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW, 0640));
    if (!fd.Valid()) {
        return SDK::Status::Error(temp + ": " + SDK::ErrnoText(errno));
    }
    const SDK::Status written = SDK::WriteAll(fd.Get(), SDK::JsonUtils::JsonToString(report) + "\n", temp);
    if (!written) {
        ::unlink(temp.c_str());
        return written;
    }
    if (::rename(temp.c_str(), path.c_str()) != 0) {
        const std::string why = SDK::ErrnoText(errno);
        ::unlink(temp.c_str());
        return SDK::Status::Error(path + ": " + why);
    }
    return SDK::Status::Ok();
}

// Scanning threads beside the walk: as asked, else one per core; none under
// a CPU limit (the walking thread scans, as in the resident agent), the
// limiter applying to each thread.
int ScanThreads(const AgentOptions& options)
{
    if (options.threads > 0) {
        return options.threads;
    }
    if (options.cpuLimit > 0) {
        return 0;
    }
    const unsigned int cores = std::thread::hardware_concurrency();
    return cores > 0 ? static_cast<int>(std::min(cores, 64u)) : 1;
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
        return Error("rule library " + rulesPath + " is larger than 64 MiB");
    }

    Json::Value policy;
    if (options.policyFile.empty()) {
        policy = DefaultPolicy();
    } else {
        std::string text;
        const SDK::ReadResult read = SDK::ReadRegularFile(options.policyFile, Framework::PolicyStore::kMaxDocumentBytes, text);
        if (!read.ok()) {
            return Error("policy: cannot read " + read.status.message());
        }
        if (SDK::JsonUtils::ParseJsonStr(text, policy) != 0 || !policy.isObject()) {
            return Error("policy file " + options.policyFile + " is not a JSON object");
        }
        if (!policy["content"].isObject()) {
            return Error("policy file " + options.policyFile + " has no \"content\" object");
        }
        // Asking for a scan is the operator's decision: a policy that turns
        // the resident feature off still names what to scan.
        const Json::Value& enabled = policy.get("enabled", Json::Value());
        if (enabled.isBool() && !enabled.asBool()) {
            std::cerr << "ardent-agent scan: " << options.policyFile
                      << " disables the feature; scanning with it all the same\n";
            policy["enabled"] = true;
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
        if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) {
            return Error("scan path " + path + " is neither a directory nor a regular file");
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
    const std::string reportPath = options.reportFile.empty() ? "" : Absolute(options.reportFile);
    if (!reportPath.empty()) {
        const int fd = ::open(reportPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640);
        if (fd < 0) {
            return Error("cannot write the report to " + reportPath + ": " + std::strerror(errno));
        }
        ::close(fd);
    }

    // --- where copies of suspicious files go
    UploadPlace place;
    if (!options.uploadDir.empty()) {
        place.dir = Absolute(options.uploadDir);
        // A link planted in its place is refused, never followed: the
        // upload store then keeps nothing and says so in the summary.
        const SDK::Status made = SDK::MakePrivateDir(place.dir);
        if (!made) {
            std::cerr << "ardent-agent scan: " << made.message() << "; left as it is\n";
        }
    } else if (!options.noUpload) {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/ardent-scan-XXXXXX";
        if (::mkdtemp(&pattern[0]) == nullptr) {
            return Error("cannot make a directory for copies of suspicious files (" + pattern +
                         "): " + std::strerror(errno) + "; give one with --upload-dir D or use --no-upload");
        }
        place.dir = Absolute(pattern);
        place.temporary = true;
    }

    // --- the install tree and logging
    for (const char* sub : {"log", "data/webshell"}) {
        try {
            Poco::File(install + sub).createDirectories();
        } catch (const Poco::Exception& e) {
            return Error("cannot create " + install + sub + ": " + e.displayText());
        }
    }
    // Kept samples and the rule library are private; a link planted in
    // place of either directory is refused, never followed.
    for (const char* sub : {"data/webshell"}) {
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

    Outcomes outcomes;
    Framework::Engine engine;
    engine.Tasks().HoldSchedules(true);
    // The verdict is the resident agent's; a one-shot scan says what went
    // wrong on stderr and in its exit code.
    Framework::Health::LogVerdictChanges(false);
    engine.config().setString("agent.install_dir", install);
    engine.config().setString("agent.log_dir", install + "log");
    engine.config().setString("agent.events", sink);
    engine.config().setString("agent.host_root", "/");
    engine.config().setString("agent.upload_dir", place.dir);
    engine.config().setBool("webshell.upload", !place.dir.empty());
    engine.config().setInt("webshell.scan_threads", ScanThreads(options));

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
    ScanRun run{engine, outcomes, install, install + kLibRelativePath,
                !options.quiet && ::isatty(STDERR_FILENO) == 1 && !(sink == "-" && ::isatty(STDOUT_FILENO) == 1)};
    Engine::ScanPassMessage pass;
    std::string error;
    if (!run.Pass(pass, error)) {
        return Error(error);
    }
    if (pass.AwaitsRules()) {
        error = run.WaitForRules();
        if (!error.empty()) {
            return Error("cannot prepare the rule library: " + error);
        }
        if (!run.Pass(pass, error)) {
            return Error(error);
        }
    }
    switch (pass.skip) {
    case Engine::PassSkip::None:
        break;
    case Engine::PassSkip::RulesMissing:
    case Engine::PassSkip::RulesMismatch:
    case Engine::PassSkip::RulesUnloadable:
        return Error("cannot prepare the rule library: " + pass.reason);
    case Engine::PassSkip::NoScanPath:
        return Error(pass.reason);
    default:
        return Error("the pass was skipped: " + pass.reason);
    }
    const bool drained = run.Drain(pass.figures);
    engine.UnloadModules();  // the report tasks write what is still queued
    outcomes.Pump(0);

    SortMatches(outcomes.matches);
    if (place.temporary) {
        ::rmdir(place.dir.c_str());  // only when empty: what was kept stays
    }
    if (!options.quiet) {
        PrintSummary(outcomes, sink == "-" ? std::string("standard output") : sink, place);
    }
    if (!reportPath.empty()) {
        const SDK::Status written = WriteReport(reportPath, MatchReport(outcomes));
        if (!written) {
            return Error("cannot write the report: " + written.message());
        }
    }
    const uint64_t unwritten = outcomes.events.held + outcomes.events.dropped;
    if (unwritten > 0) {
        return Error(std::to_string(unwritten) + " events could not be written: " +
                     outcomes.events.lastError);
    }
    if (!drained) {
        std::cerr << "ardent-agent scan: the report services did not confirm every event and "
                     "upload within "
                  << kDrainWaitS << " s\n";
    }
    return pass.figures.certain > 0 ? 1 : 0;
}

}  // namespace Agent

// ardent-agent: the host of the agent's modules.
//   ardent-agent run  [--policy F] [--events F|-] [--cpu-limit P] [--host-root DIR] [--log-stderr]
//   ardent-agent scan [--policy F] [--rules F] [--events F|-] [--cpu-limit P] [--threads N] [-q]
//                     [--report F] [--no-upload | --upload-dir D] [PATH...]
//   ardent-agent ctl  status|scan-now|reload|policy F
//   ardent-agent check-policy F
//   ardent-agent quarantine list | restore ID
//   ardent-agent help [COMMAND] | --version
// Every subcommand takes --install-dir D and --log-level L.

#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include <Poco/Path.h>

#include "Commands.h"
#include "sdk/PathUtils.h"

namespace {

struct CommandHelp {
    const char* name;
    const char* text;
};

// One block per command: `ardent-agent help scan` and `ardent-agent scan
// --help` print it alone, `ardent-agent --help` prints them all.
const CommandHelp kCommands[] = {
    {"run",
     "  run    run the agent in the foreground until SIGTERM or SIGINT\n"
     "         [--policy F] [--events F|-] [--cpu-limit P] [--host-root DIR]\n"
     "         [--log-stderr]  (the log is copied to stderr when it is a terminal\n"
     "                          or with this option)\n"},
    {"scan",
     "  scan   one full web-shell scan pass, then exit (0: nothing certain found,\n"
     "         1: web shells found, 2: error)\n"
     "         [--policy F] [--rules F] [--events F|-] [--cpu-limit P] [--threads N]\n"
     "         [-q] [--report F] [--no-upload | --upload-dir D] [DIR|FILE...]\n"
     "         -q, --quiet     only events and errors: no progress, no summary\n"
     "         --threads N     scanning threads beside the walk, 1 to 64 (default: the\n"
     "                         number of cores; with --cpu-limit, one thread walks and\n"
     "                         scans; the limit applies to each thread)\n"
     "         --report F      write every match (path, rule, tier, keyword, sha256,\n"
     "                         uploaded) to F as JSON\n"
     "         --no-upload     keep no copy of suspicious files anywhere\n"
     "         --upload-dir D  keep copies of suspicious files in D (0700)\n"
     "         Without either, copies go to a new private directory\n"
     "         $TMPDIR/ardent-scan-XXXXXX (/tmp without TMPDIR), named in the summary\n"
     "         and removed when empty; never into the install tree unless D says so.\n"},
    {"ctl",
     "  ctl    talk to the running agent: status | scan-now | reload | policy F\n"
     "         (status exits 0 ok, 1 degraded, 2 failing, 3 no agent answers)\n"},
    {"check-policy",
     "  check-policy F\n"
     "         check policy document F as the agent would before applying it;\n"
     "         reasons on stderr (0: good, 2: the agent would refuse it)\n"},
    {"quarantine",
     "  quarantine list | restore ID\n"
     "         files a policy with \"quarantine_certain\" moved to\n"
     "         <install>/data/quarantine/: list them, or put one back at its original\n"
     "         path with its owner, mode and times (refused when a file is there)\n"},
};

const char* const kCommonOptions =
    "options of every command:\n"
    "  --install-dir D   installation directory (default: the parent of the\n"
    "                    directory holding this program)\n"
    "  --log-level L     fatal, critical, error, warning, notice, information,\n"
    "                    debug or trace (default information)\n"
    "\n"
    "ardent-agent --version prints the version; man ardent-agent has the rest.\n";

// Usage of one command, or of all of them when `command` is empty.
std::string Usage(const std::string& command = "")
{
    std::string out = "usage: ardent-agent <command> [options]\n\ncommands:\n";
    for (const auto& c : kCommands) {
        if (command.empty() || command == c.name) {
            out += c.text;
        }
    }
    return out + "\n" + kCommonOptions;
}

bool KnownCommand(const std::string& command)
{
    for (const auto& c : kCommands) {
        if (command == c.name) {
            return true;
        }
    }
    return false;
}

bool KnownLevel(const std::string& level)
{
    for (const char* l : {"fatal", "critical", "error", "warning", "notice", "information", "debug", "trace"}) {
        if (level == l) {
            return true;
        }
    }
    return false;
}

int Fail(const std::string& message)
{
    std::cerr << "ardent-agent: " << message << "\n\n" << Usage();
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    Agent::AgentOptions options;
    if (argc < 2) {
        return Fail("no command given");
    }
    options.command = argv[1];
    if (options.command == "--version" || options.command == "version") {
        std::cout << "ardent-agent " << ARDENT_VERSION << "\n";
        return 0;
    }
    if (options.command == "-h" || options.command == "--help" || options.command == "help") {
        const std::string topic = argc > 2 ? argv[2] : "";
        if (!topic.empty() && !KnownCommand(topic)) {
            return Fail("no help for unknown command '" + topic + "'");
        }
        std::cout << Usage(topic);
        return 0;
    }
    if (!KnownCommand(options.command)) {
        return Fail("unknown command '" + options.command + "'");
    }
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string& out) -> bool {
            if (i + 1 >= argc) {
                return false;
            }
            out = argv[++i];
            return true;
        };
        std::string cpu;
        if (arg == "-h" || arg == "--help") {
            std::cout << Usage(options.command);
            return 0;
        } else if ((arg == "-q" || arg == "--quiet") && options.command == "scan") {
            options.quiet = true;
        } else if (arg == "--install-dir") {
            if (!value(options.installDir)) return Fail("--install-dir needs a directory");
        } else if (arg == "--log-level") {
            if (!value(options.logLevel) || !KnownLevel(options.logLevel))
                return Fail("--log-level needs one of fatal ... trace");
        } else if (arg == "--policy" && (options.command == "run" || options.command == "scan")) {
            if (!value(options.policyFile)) return Fail("--policy needs a file");
        } else if (arg == "--no-upload" && options.command == "scan") {
            options.noUpload = true;
        } else if (arg == "--upload-dir" && options.command == "scan") {
            if (!value(options.uploadDir)) return Fail("--upload-dir needs a directory");
        } else if (arg == "--report" && options.command == "scan") {
            if (!value(options.reportFile)) return Fail("--report needs a file");
        } else if (arg == "--rules" && options.command == "scan") {
            if (!value(options.rulesFile)) return Fail("--rules needs a file");
        } else if (arg == "--events" && (options.command == "run" || options.command == "scan")) {
            if (!value(options.eventsSink)) return Fail("--events needs a file or -");
        } else if (arg == "--cpu-limit" && (options.command == "run" || options.command == "scan")) {
            if (!value(cpu)) return Fail("--cpu-limit needs a percentage");
            char* end = nullptr;
            long percent = std::strtol(cpu.c_str(), &end, 10);
            if (end == cpu.c_str() || *end != '\0' || percent < 0 || percent > 100)
                return Fail("--cpu-limit takes a whole number from 0 (off) to 100");
            options.cpuLimit = static_cast<int>(percent);
        } else if (arg == "--threads" && options.command == "scan") {
            std::string n;
            if (!value(n)) return Fail("--threads needs a number");
            char* end = nullptr;
            long threads = std::strtol(n.c_str(), &end, 10);
            if (end == n.c_str() || *end != '\0' || threads < 1 || threads > 64)
                return Fail("--threads takes a whole number from 1 to 64");
            options.threads = static_cast<int>(threads);
        } else if (arg == "--log-stderr" && options.command == "run") {
            options.logStderr = true;
        } else if (arg == "--host-root" && options.command == "run") {
            if (!value(options.hostRoot)) return Fail("--host-root needs a directory");
        } else if (arg.size() > 1 && arg[0] == '-' && arg != "-") {
            return Fail("unknown option '" + arg + "' for " + options.command);
        } else if (options.command == "run") {
            return Fail("run takes no argument '" + arg + "'");
        } else {
            options.args.push_back(arg);
        }
    }

    if (!options.installDir.empty()) {
        std::string dir = Poco::Path(options.installDir).absolute().toString();
        if (dir.empty() || dir.back() != '/') {
            dir += '/';
        }
        SDK::PathUtils::SetInstallationPath(dir);
    }
    if (SDK::PathUtils::GetInstallationPath(options.installDir) != 0) {
        std::cerr << "ardent-agent: the installation directory "
                  << (options.installDir.empty() ? std::string("cannot be found") : "'" + options.installDir + "' does not exist")
                  << "; give one with --install-dir\n";
        return 2;
    }

    if (options.command == "run") {
        return Agent::RunCommandMain(options);
    }
    if (options.command == "scan") {
        if (options.noUpload && !options.uploadDir.empty()) {
            return Fail("--no-upload and --upload-dir exclude each other");
        }
        return Agent::ScanCommandMain(options);
    }
    if (options.command == "check-policy") {
        return Agent::CheckPolicyCommandMain(options);
    }
    if (options.command == "quarantine") {
        return Agent::QuarantineCommandMain(options);
    }
    return Agent::CtlCommandMain(options);
}

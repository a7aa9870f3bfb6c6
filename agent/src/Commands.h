#pragma once
// The subcommands of ardent-agent. main() parses the command line into
// AgentOptions and hands it to one of these; each returns the exit code.

#include <string>
#include <vector>

namespace Agent {

struct AgentOptions {
    std::string command;             // "run", "scan", "ctl", "check-policy", "quarantine"
    std::string installDir;          // --install-dir, ends with "/" once resolved
    std::string logLevel = "information";
    std::string policyFile;          // --policy
    std::string rulesFile;           // --rules (scan)
    std::string eventsSink;          // --events: file or "-"; empty: the command's default
    int cpuLimit = 0;                // --cpu-limit, percent of one core, 0 = off
    std::string hostRoot = "/";      // --host-root
    bool logStderr = false;          // --log-stderr (run)
    bool quiet = false;              // -q, --quiet (scan): events and errors only
    bool noUpload = false;           // --no-upload (scan): no file is kept anywhere
    std::string uploadDir;           // --upload-dir (scan): where kept files go
    std::string reportFile;          // --report (scan): every match as JSON
    int threads = 0;                 // --threads (scan): scanning threads, 0 = the command's default
    std::vector<std::string> args;   // scan: paths; ctl: the request and its argument; check-policy: the file
};

int RunCommandMain(const AgentOptions& options);   // agent/src/RunCommand.cpp
int ScanCommandMain(const AgentOptions& options);  // agent/src/ScanCommand.cpp
int CtlCommandMain(const AgentOptions& options);   // agent/src/CtlCommand.cpp
int CheckPolicyCommandMain(const AgentOptions& options);  // agent/src/CheckPolicyCommand.cpp
int QuarantineCommandMain(const AgentOptions& options);   // agent/src/QuarantineCommand.cpp

}  // namespace Agent

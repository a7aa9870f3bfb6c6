// `ardent-agent quarantine list | restore ID`: the files a policy with
// "quarantine_certain" took out of the web roots, and putting one back.
//
// list prints one line per file: id, when, rule, size, original path.
// restore puts content, owner, group, mode and times back at the original
// path and refuses when a file exists there. Exit status: 0 done, 2 not.

#include <iomanip>
#include <iostream>
#include <string>
#include <vector>

#include "Commands.h"
#include "sdk/LogMacros.h"
#include "webshell/Quarantine.h"

namespace Agent {

namespace {

int Fail(const std::string& message)
{
    std::cerr << "ardent-agent quarantine: " << message << "\n";
    return 2;
}

}  // namespace

int QuarantineCommandMain(const AgentOptions& options)
{
    const Engine::Quarantine quarantine(options.installDir);
    const std::vector<std::string>& args = options.args;
    if (args.size() == 1 && args[0] == "list") {
        std::vector<Engine::QuarantineRecord> records;
        std::vector<std::string> problems;
        const SDK::Status listed = quarantine.List(records, problems);
        for (const auto& problem : problems) {
            std::cerr << "ardent-agent quarantine: unreadable record " << problem << "\n";
        }
        if (!listed) {
            return Fail("cannot list " + quarantine.Dir() + ": " + listed.message());
        }
        if (records.empty()) {
            std::cerr << "nothing is quarantined in " << quarantine.Dir() << "\n";
            return problems.empty() ? 0 : 2;
        }
        std::cout << std::left << std::setw(27) << "ID" << std::setw(26) << "QUARANTINED" << std::setw(24)
                  << "RULE" << std::setw(10) << "SIZE" << "PATH\n";
        for (const auto& r : records) {
            std::cout << std::setw(27) << r.id << std::setw(26) << r.quarantinedAt << std::setw(24) << r.rule
                      << std::setw(10) << r.size << SDK::LogSafe(r.path) << "\n";
        }
        return problems.empty() ? 0 : 2;
    }
    if (args.size() == 2 && args[0] == "restore") {
        Engine::QuarantineRecord record;
        const SDK::Status restored = quarantine.Restore(args[1], record);
        if (!restored) {
            return Fail("not restored: " + restored.message());
        }
        std::cout << "restored " << record.id << " to " << SDK::LogSafe(record.path) << " (owner " << record.owner
                  << ":" << record.group << ", mode " << std::oct << std::setw(4) << std::setfill('0')
                  << record.mode << std::dec << ")\n"
                  << "an agent with quarantine on takes it again at its next check unless an allow-list "
                     "names it\n";
        return 0;
    }
    return Fail("give list, or restore ID (see ardent-agent help quarantine)");
}

}  // namespace Agent

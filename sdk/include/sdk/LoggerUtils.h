#pragma once
// The agent's loggers. The root logger ("" in Poco's hierarchy) writes to
// log/agent.log through a rotating file channel and, in the foreground, to
// stderr; module loggers are its children and share its channel.

#include <string>

#include <Poco/Logger.h>

namespace SDK {

class LoggerUtils {
public:
    static LoggerUtils* GetInstance();

    // Sets up the root channel. `logFile` empty: stderr only. `toStderr`
    // duplicates records to stderr as well. Level names are Poco's
    // ("fatal" ... "trace"). Returns false when the file cannot be opened
    // (logging then goes to stderr) or the level is unknown (information is
    // used); the reason is logged. The file rotates at 10 MB and keeps five
    // numbered archives. Channel and level apply to every logger, made
    // before or after this call, except the level of own-level loggers.
    bool Configure(const std::string& logFile, bool toStderr, const std::string& level);

    // A child of the root logger named `name`. With `ownLevel` false it
    // follows the root's level; with true it keeps the level it has.
    Poco::Logger* GetModuleLogger(const std::string& name, bool ownLevel);

    // The root logger, or null before the agent has configured logging.
    Poco::Logger* GetRootLogger();

private:
    LoggerUtils() = default;
    bool m_configured = false;
};

}  // namespace SDK

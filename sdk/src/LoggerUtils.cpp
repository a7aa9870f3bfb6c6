#include "sdk/LoggerUtils.h"

#include <set>
#include <utility>
#include <vector>
#include <mutex>

#include <Poco/AutoPtr.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/FileChannel.h>
#include <Poco/Formatter.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Message.h>
#include <Poco/Path.h>
#include <Poco/PatternFormatter.h>
#include <Poco/SplitterChannel.h>

#include "sdk/LogMacros.h"

namespace SDK {

namespace {

const char* const kSource = "sdk/src/LoggerUtils";

// Guards m_configured and g_ownLevel; Poco's registry has its own lock.
std::mutex g_loggerMutex;
// Module loggers that keep their own level when the root level changes.
std::set<std::string> g_ownLevel;

// "2024-05-01 12:00:00.123 [Information] webshell_module: text (file:line)":
// the source position is added only when the record carries one.
class RecordFormatter : public Poco::Formatter {
public:
    RecordFormatter()
        : m_pattern(new Poco::PatternFormatter("%Y-%m-%d %H:%M:%S.%i [%p] <%I> %s: %t"))
    {
        m_pattern->setProperty(Poco::PatternFormatter::PROP_TIMES, "local");
    }

    void format(const Poco::Message& msg, std::string& text) override
    {
        m_pattern->format(msg, text);
        if (msg.getSourceFile() != nullptr && msg.getSourceFile()[0] != '\0') {
            text += " (";
            text += msg.getSourceFile();
            text += ':';
            text += std::to_string(msg.getSourceLine());
            text += ')';
        }
    }

private:
    Poco::AutoPtr<Poco::PatternFormatter> m_pattern;
};

Poco::AutoPtr<Poco::Channel> MakeFileChannel(const std::string& logFile)
{
    Poco::Path parent = Poco::Path(logFile).parent();
    if (!parent.toString().empty()) {
        Poco::File(parent).createDirectories();
    }
    Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(logFile));
    // agent.log, agent.log.0 (newest) ... agent.log.4: at most ~60 MB on disk.
    file->setProperty(Poco::FileChannel::PROP_ROTATION, "10 M");
    file->setProperty(Poco::FileChannel::PROP_ARCHIVE, "number");
    file->setProperty(Poco::FileChannel::PROP_PURGECOUNT, "5");
    file->setProperty(Poco::FileChannel::PROP_TIMES, "local");
    file->setProperty(Poco::FileChannel::PROP_FLUSH, "true");
    file->open();  // throws when the file cannot be created or opened
    return file;
}

}  // namespace

LoggerUtils* LoggerUtils::GetInstance()
{
    static LoggerUtils instance;
    return &instance;
}

bool LoggerUtils::Configure(const std::string& logFile, bool toStderr, const std::string& level)
{
    bool ok = true;
    std::string problem;

    int prio = Poco::Message::PRIO_INFORMATION;
    try {
        prio = Poco::Logger::parseLevel(level);
    } catch (const Poco::Exception&) {
        ok = false;
        problem = "unknown log level '" + level + "', using information";
    }

    Poco::AutoPtr<Poco::Channel> file;
    if (!logFile.empty()) {
        try {
            file = MakeFileChannel(logFile);
        } catch (const Poco::Exception& e) {
            ok = false;
            problem = "cannot open log file " + logFile + " (" + e.displayText() +
                      "), logging to stderr only";
            toStderr = true;
        }
    } else {
        toStderr = true;
    }

    Poco::AutoPtr<Poco::Channel> sink;
    if (!file.isNull() && toStderr) {
        Poco::AutoPtr<Poco::SplitterChannel> splitter(new Poco::SplitterChannel);
        splitter->addChannel(file);
        splitter->addChannel(new Poco::ConsoleChannel);  // std::clog: stderr
        sink = splitter;
    } else if (!file.isNull()) {
        sink = file;
    } else {
        sink = new Poco::ConsoleChannel;
    }
    Poco::AutoPtr<Poco::Channel> channel(new Poco::FormattingChannel(new RecordFormatter, sink));

    Poco::Logger* root = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_loggerMutex);
        // Every logger, made before or after this call, writes to one channel;
        // loggers made later inherit channel and level from the root.
        std::vector<std::pair<Poco::Logger*, int>> kept;
        for (const auto& name : g_ownLevel) {
            Poco::Logger& own = Poco::Logger::get(name);
            kept.emplace_back(&own, own.getLevel());
        }
        Poco::Logger::root();  // setChannel("") reaches only loggers that exist
        Poco::Logger::setChannel("", channel);
        Poco::Logger::setLevel("", prio);
        for (const auto& own : kept) {
            own.first->setLevel(own.second);
        }
        m_configured = true;
        root = &Poco::Logger::root();
    }
    if (!ok) {
        SDK_LOG(root, Poco::Message::PRIO_WARNING, kSource, "Logging: %s.", problem);
    }
    return ok;
}

Poco::Logger* LoggerUtils::GetModuleLogger(const std::string& name, bool ownLevel)
{
    std::lock_guard<std::mutex> lock(g_loggerMutex);
    Poco::Logger& logger = Poco::Logger::get(name);
    if (ownLevel) {
        g_ownLevel.insert(name);
    } else if (g_ownLevel.erase(name) > 0) {
        logger.setLevel(Poco::Logger::root().getLevel());
    }
    return &logger;
}

Poco::Logger* LoggerUtils::GetRootLogger()
{
    std::lock_guard<std::mutex> lock(g_loggerMutex);
    return m_configured ? &Poco::Logger::root() : nullptr;
}

}  // namespace SDK

#include "sdk/LoggerUtils.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

// The log file and its archives: readable by the agent's group at most.
const mode_t kLogFileMode = 0640;
const Poco::UInt64 kRotateBytes = 10 * 1024 * 1024;  // "10 M" below
const int kArchives = 5;

// "2024-05-01 12:00:00.123 [Information] webshell_module: text (file:line)":
// the source position is added only when the record carries one. The text
// goes through LogSafe once more, so a record made without SDK_LOG cannot
// split a line either; a trailing newline of a message is its line end.
class RecordFormatter : public Poco::Formatter {
public:
    RecordFormatter()
        : m_pattern(new Poco::PatternFormatter("%Y-%m-%d %H:%M:%S.%i [%p] <%I> "))
    {
        m_pattern->setProperty(Poco::PatternFormatter::PROP_TIMES, "local");
    }

    void format(const Poco::Message& msg, std::string& text) override
    {
        m_pattern->format(msg, text);
        text += ModuleName(msg);
        text += ": ";
        const std::string& body = msg.getText();
        const std::size_t length = !body.empty() && body.back() == '\n' ? body.size() - 1 : body.size();
        text += LogSafe(length == body.size() ? body : body.substr(0, length), kMaxLogRecordBytes);
        if (msg.getSourceFile() != nullptr && msg.getSourceFile()[0] != '\0') {
            text += " (";
            text += msg.getSourceFile();
            text += ':';
            text += std::to_string(msg.getSourceLine());
            text += ')';
        }
    }

private:
    // The logger's name; a record of the root logger (shared helpers) is
    // named after the part of the tree its source lives in
    // ("sdk/src/YaraUtils" -> "sdk", "module/module_report/..." ->
    // "module_report"), so every line says who wrote it.
    static std::string ModuleName(const Poco::Message& msg)
    {
        if (!msg.getSource().empty()) {
            return msg.getSource();
        }
        const char* file = msg.getSourceFile();
        if (file == nullptr || file[0] == '\0') {
            return "agent";
        }
        std::string path(file);
        if (path.compare(0, 7, "module/") == 0) {
            path = path.substr(7);
        }
        const std::size_t slash = path.find('/');
        return slash == std::string::npos || slash == 0 ? std::string("agent") : path.substr(0, slash);
    }

    Poco::AutoPtr<Poco::PatternFormatter> m_pattern;
};

// Poco creates the log file with the process umask (often 0644). The file
// is made 0640 at most before Poco opens it; the new file a rotation
// creates is made under a umask that leaves no more than that. The umask is
// the process's, so it is narrowed only around the one record that rotates
// (once per 10 MB): files other threads create in that instant get fewer
// permissions, never more.
void RestrictLogFile(const std::string& path, bool create);

class PrivateFileChannel : public Poco::FileChannel {
public:
    explicit PrivateFileChannel(const std::string& path) : Poco::FileChannel(path), m_path(path) {}

    // Opens the file now (throws when it cannot be) and notes which it is.
    void OpenNow()
    {
        Poco::FileChannel::open();
        Remember();
    }

    void log(const Poco::Message& msg) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ReopenIfGone();
        if (size() < kRotateBytes) {
            Poco::FileChannel::log(msg);
            return;
        }
        const mode_t old = ::umask(0077);
        ::umask(old | 0027);
        try {
            Poco::FileChannel::log(msg);
        } catch (...) {
            ::umask(old);
            throw;
        }
        ::umask(old);
        Remember();  // a rotation opens a new file
    }

private:
    void Remember()
    {
        struct stat st;
        m_known = ::stat(m_path.c_str(), &st) == 0;
        m_dev = m_known ? st.st_dev : 0;
        m_ino = m_known ? st.st_ino : 0;
    }

    // The file (or log/ itself) removed or replaced by hand: without this
    // every later line would go to a file nobody can open any more.
    void ReopenIfGone()
    {
        struct stat st;
        if (m_known && ::stat(m_path.c_str(), &st) == 0 && st.st_dev == m_dev && st.st_ino == m_ino) {
            return;
        }
        try {
            Poco::FileChannel::close();
            const Poco::Path parent = Poco::Path(m_path).parent();
            if (!parent.toString().empty()) {
                Poco::File(parent).createDirectories();
            }
            RestrictLogFile(m_path, true);
            Poco::FileChannel::open();
        } catch (const Poco::Exception&) {
            // Poco's log() opens it again itself and names the problem.
        }
        Remember();
    }

    std::string m_path;
    std::mutex m_mutex;
    bool m_known = false;
    dev_t m_dev = 0;
    ino_t m_ino = 0;
};

// Creates `path` 0640 when missing; takes group write and all other access
// away from an existing one (an older agent made it with the umask).
void RestrictLogFile(const std::string& path, bool create)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK |
                                            (create ? O_CREAT : 0),
                          kLogFileMode);
    if (fd < 0) {
        return;  // Poco's open names the problem
    }
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 07777 & ~kLogFileMode) != 0) {
        ::fchmod(fd, st.st_mode & kLogFileMode);
    }
    ::close(fd);
}

Poco::AutoPtr<Poco::Channel> MakeFileChannel(const std::string& logFile)
{
    Poco::Path parent = Poco::Path(logFile).parent();
    if (!parent.toString().empty()) {
        Poco::File(parent).createDirectories();
    }
    RestrictLogFile(logFile, true);
    for (int i = 0; i < kArchives; ++i) {
        RestrictLogFile(logFile + "." + std::to_string(i), false);
    }
    Poco::AutoPtr<PrivateFileChannel> file(new PrivateFileChannel(logFile));
    // agent.log, agent.log.0 (newest) ... agent.log.4: at most ~60 MB on disk.
    file->setProperty(Poco::FileChannel::PROP_ROTATION, "10 M");
    file->setProperty(Poco::FileChannel::PROP_ARCHIVE, "number");
    file->setProperty(Poco::FileChannel::PROP_PURGECOUNT, std::to_string(kArchives));
    file->setProperty(Poco::FileChannel::PROP_TIMES, "local");
    file->setProperty(Poco::FileChannel::PROP_FLUSH, "true");
    file->OpenNow();
    return Poco::AutoPtr<Poco::Channel>(file.duplicate());
}

// Length of the well-formed UTF-8 character at `p` (at most `left` bytes),
// or 0 when the bytes there are not one.
std::size_t Utf8Length(const unsigned char* p, std::size_t left)
{
    const unsigned char b = p[0];
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (b >= 0xC2 && b <= 0xDF) {
        length = 2;
    } else if (b >= 0xE0 && b <= 0xEF) {
        length = 3;
        low = b == 0xE0 ? 0xA0 : 0x80;   // no overlong forms
        high = b == 0xED ? 0x9F : 0xBF;  // no surrogates
    } else if (b >= 0xF0 && b <= 0xF4) {
        length = 4;
        low = b == 0xF0 ? 0x90 : 0x80;
        high = b == 0xF4 ? 0x8F : 0xBF;  // nothing past U+10FFFF
    } else {
        return 0;
    }
    if (left < length || p[1] < low || p[1] > high) {
        return 0;
    }
    for (std::size_t i = 2; i < length; ++i) {
        if (p[i] < 0x80 || p[i] > 0xBF) {
            return 0;
        }
    }
    return length;
}

}  // namespace

std::string LogSafe(const std::string& text, std::size_t maxBytes)
{
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size() < maxBytes ? text.size() : maxBytes);
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    std::size_t i = 0;
    while (i < text.size()) {
        const unsigned char b = bytes[i];
        std::size_t length = 1;
        bool escape = false;
        if (b < 0x80) {
            escape = b < 0x20 || b == 0x7F;
        } else {
            length = Utf8Length(bytes + i, text.size() - i);
            // Not UTF-8, or a C1 control (U+0080..U+009F, "\xc2\x80".."\xc2\x9f").
            escape = length == 0 || (b == 0xC2 && bytes[i + 1] < 0xA0);
            if (length == 0) {
                length = 1;
            }
        }
        const std::size_t written = escape ? 4 * length : length;
        if (out.size() + written > maxBytes) {
            break;
        }
        if (escape) {
            for (std::size_t k = 0; k < length; ++k) {
                const unsigned char e = bytes[i + k];
                out += '\\';
                out += 'x';
                out += kHex[e >> 4];
                out += kHex[e & 0x0F];
            }
        } else {
            out.append(text, i, length);
        }
        i += length;
    }
    if (i < text.size()) {
        out += "...(" + std::to_string(text.size() - i) + " bytes cut)";
    }
    return out;
}

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

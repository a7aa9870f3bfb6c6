#pragma once
// The event sink of "data_comm_report_task": one JSON document per line,
// written with one write(2) per event so that nothing sits in a user-space
// buffer when the agent dies.
//
// A file sink is reopened whenever its path no longer names the open file
// (log rotation by another tool, deletion, rename) and after a write error.
// Lines that cannot be written are held, up to a bound, and written first
// once the sink works again; beyond the bound the oldest are dropped and
// counted. The sink belongs to one thread (the task that owns it).

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <string>

namespace Poco {
class Logger;
}

namespace Report {

struct EventSinkOptions {
    static constexpr uint64_t kDefaultMaxBytes = 50ull * 1024 * 1024;
    static constexpr int kDefaultKeep = 5;
    static constexpr size_t kDefaultMaxHeld = 1000;

    std::string path = "-";                 // "-": standard output
    uint64_t maxBytes = kDefaultMaxBytes;   // rotate before passing it; 0: never
    int keep = kDefaultKeep;                // archives path.1 (newest) .. path.keep
    size_t maxHeld = kDefaultMaxHeld;       // lines held while the sink fails
};

struct EventSinkStats {
    uint64_t written = 0;    // lines that reached the sink
    uint64_t bytes = 0;      // bytes of those lines
    uint64_t failures = 0;   // write or open attempts that failed
    uint64_t dropped = 0;    // held lines given up because the hold was full
    uint64_t rotations = 0;
    uint64_t reopens = 0;    // the file was found replaced or removed
    size_t held = 0;         // lines waiting for the sink to work again
    bool healthy = true;     // the last attempt succeeded
    std::string lastError;   // "<path>: <reason>" of the last failure
    int64_t lastErrorMs = 0;
};

class EventSink {
public:
    EventSink(const EventSinkOptions& options, Poco::Logger* logger);
    ~EventSink();
    EventSink(const EventSink&) = delete;
    EventSink& operator=(const EventSink&) = delete;

    // Writes held lines, then `content` as one line. true when `content`
    // reached the sink; false when it is held (or dropped) for later.
    bool Write(const std::string& content);
    // Tries the held lines again; returns how many are still held.
    size_t Retry();
    void Close();

    const EventSinkStats& Stats() const { return m_stats; }
    const std::string& Path() const { return m_options.path; }
    bool IsStdout() const { return m_options.path == "-"; }

    // `content` as one line: trailing line breaks removed, inner CR/LF turned
    // into blanks (in JSON they can only be whitespace between tokens), and
    // a final "\n".
    static std::string ToLine(const std::string& content);

private:
    enum class Outcome { WRITTEN, FAILED };

    bool EnsureOpen();
    bool ReplacedUnderUs();
    bool RotateIfNeeded(size_t incoming);
    bool OpenFile();
    Outcome WriteOne(const std::string& line);
    void Fail(const std::string& what, int err);
    void Recovered();
    void Hold(const std::string& line);
    bool FlushHeld();

    EventSinkOptions m_options;
    Poco::Logger* m_logger;
    int m_fd = -1;
    bool m_ownsFd = false;
    dev_t m_dev = 0;
    ino_t m_ino = 0;
    bool m_brokenLine = false;  // a partial line is left in the file
    std::deque<std::string> m_held;
    EventSinkStats m_stats;
    int64_t m_lastFailLogMs = 0;
    uint64_t m_failuresSinceLog = 0;
};

}  // namespace Report

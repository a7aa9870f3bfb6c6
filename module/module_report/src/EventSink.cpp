#include "report/EventSink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Path.h>

#include "sdk/LogMacros.h"
#include "sdk/Posix.h"
#include "sdk/TimeUtils.h"

namespace Report {

namespace {

const char* const kSource = "module/module_report/src/EventSink";
// While the sink keeps failing, repeat the error at most this often.
const int64_t kFailLogIntervalMs = 60 * 1000;

}  // namespace

EventSink::EventSink(const EventSinkOptions& options, Poco::Logger* logger)
    : m_options(options), m_logger(logger)
{
    if (m_options.keep < 0) {
        m_options.keep = 0;
    }
}

EventSink::~EventSink()
{
    Close();
}

void EventSink::Close()
{
    if (m_fd >= 0 && m_ownsFd) {
        ::close(m_fd);
    }
    m_fd = -1;
    m_ownsFd = false;
}

std::string EventSink::ToLine(const std::string& content)
{
    std::string line = content;
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    for (char& c : line) {
        if (c == '\n' || c == '\r') {
            c = ' ';
        }
    }
    line.push_back('\n');
    return line;
}

bool EventSink::Write(const std::string& content)
{
    std::string line = ToLine(content);
    if (FlushHeld() && WriteOne(line) == Outcome::WRITTEN) {
        return true;
    }
    Hold(line);
    return false;
}

size_t EventSink::Retry()
{
    FlushHeld();
    return m_held.size();
}

bool EventSink::FlushHeld()
{
    while (!m_held.empty()) {
        if (WriteOne(m_held.front()) != Outcome::WRITTEN) {
            return false;
        }
        m_held.pop_front();
        m_stats.held = m_held.size();
    }
    return true;
}

void EventSink::Hold(const std::string& line)
{
    if (m_options.maxHeld == 0) {
        ++m_stats.dropped;
        return;
    }
    while (m_held.size() >= m_options.maxHeld) {
        m_held.pop_front();
        ++m_stats.dropped;
    }
    m_held.push_back(line);
    m_stats.held = m_held.size();
}

bool EventSink::ReplacedUnderUs()
{
    struct stat st;
    if (::stat(m_options.path.c_str(), &st) != 0) {
        return true;
    }
    return st.st_dev != m_dev || st.st_ino != m_ino;
}

bool EventSink::EnsureOpen()
{
    if (IsStdout()) {
        m_fd = STDOUT_FILENO;
        m_ownsFd = false;
        return true;
    }
    if (m_fd >= 0) {
        if (!ReplacedUnderUs()) {
            return true;
        }
        Close();
        ++m_stats.reopens;
        SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                "Event sink %s was removed or replaced while open; opening the path again.",
                m_options.path);
    }
    return OpenFile();
}

bool EventSink::OpenFile()
{
    const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY;
    SDK::UniqueFd fd(::open(m_options.path.c_str(), flags, 0640));
    if (!fd.Valid() && errno == ENOENT) {
        // The directory was removed under the agent (log/ deleted by hand):
        // make it again rather than hold events until a restart.
        const std::string parent = Poco::Path(m_options.path).parent().toString();
        try {
            Poco::File(parent).createDirectories();
            SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                    "Directory %s of event sink %s was missing; created it again.", parent,
                    m_options.path);
            fd.Reset(::open(m_options.path.c_str(), flags, 0640));
        } catch (const Poco::Exception& e) {
            SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                    "Directory %s of event sink %s is missing and cannot be created: %s.", parent,
                    m_options.path, e.displayText());
            errno = ENOENT;
        }
    }
    if (!fd.Valid()) {
        Fail("open", errno);
        return false;
    }
    struct stat st;
    if (::fstat(fd.Get(), &st) != 0) {
        Fail("fstat", errno);
        return false;
    }
    m_fd = fd.Release();
    m_ownsFd = true;
    m_dev = st.st_dev;
    m_ino = st.st_ino;
    // A line cut short by an earlier crash or a full disk must not swallow
    // the next event: start on a fresh line.
    if (S_ISREG(st.st_mode) && st.st_size > 0) {
        SDK::UniqueFd reader(
            ::open(m_options.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
        char last = '\n';
        if (reader.Valid() && ::pread(reader.Get(), &last, 1, st.st_size - 1) == 1 &&
            last != '\n') {
            m_brokenLine = true;
        }
    }
    return true;
}

bool EventSink::RotateIfNeeded(size_t incoming)
{
    if (IsStdout() || m_options.maxBytes == 0) {
        return true;
    }
    struct stat st;
    if (::fstat(m_fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        return true;  // devices and pipes named as the sink are never rotated
    }
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    if (size == 0 || size + incoming <= m_options.maxBytes) {
        return true;
    }
    Close();
    const std::string& path = m_options.path;
    for (int k = m_options.keep; k >= 2; --k) {
        std::string from = path + "." + std::to_string(k - 1);
        std::string to = path + "." + std::to_string(k);
        if (::rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) {
            SDK_LOG(m_logger, Poco::Message::PRIO_WARNING, kSource,
                    "Event sink rotation: cannot rename %s to %s: %s", from, to,
                    SDK::ErrnoText(errno));
        }
    }
    int rc = m_options.keep >= 1 ? ::rename(path.c_str(), (path + ".1").c_str())
                                 : ::unlink(path.c_str());
    if (rc != 0) {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                "Event sink rotation of %s failed: %s; appending to it beyond %?d bytes.", path,
                SDK::ErrnoText(errno), m_options.maxBytes);
    } else {
        ++m_stats.rotations;
        SDK_LOG(m_logger, Poco::Message::PRIO_INFORMATION, kSource,
                "Event sink %s rotated at %?d bytes (archives kept: %d).", path,
                size, m_options.keep);
    }
    return OpenFile();
}

EventSink::Outcome EventSink::WriteOne(const std::string& line)
{
    if (!EnsureOpen()) {
        return Outcome::FAILED;
    }
    if (!RotateIfNeeded(line.size())) {
        return Outcome::FAILED;
    }
    const std::string data = m_brokenLine ? "\n" + line : line;
    off_t before = -1;
    struct stat st;
    if (m_ownsFd && ::fstat(m_fd, &st) == 0 && S_ISREG(st.st_mode)) {
        before = st.st_size;
    }
    size_t done = 0;
    int err = 0;
    while (done < data.size()) {
        ssize_t n = ::write(m_fd, data.data() + done, data.size() - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            err = errno;
            break;
        }
        if (n == 0) {
            err = EIO;
            break;
        }
        done += static_cast<size_t>(n);
    }
    if (done == data.size()) {
        m_brokenLine = false;
        ++m_stats.written;
        m_stats.bytes += line.size();
        Recovered();
        return Outcome::WRITTEN;
    }
    if (done > 0 && !(before >= 0 && ::ftruncate(m_fd, before) == 0)) {
        m_brokenLine = true;
    }
    Fail("write", err);
    Close();
    return Outcome::FAILED;
}

void EventSink::Fail(const std::string& what, int err)
{
    ++m_stats.failures;
    ++m_failuresSinceLog;
    const std::string reason = what + " failed: " + SDK::ErrnoText(err);
    m_stats.lastError = m_options.path + ": " + reason;
    const int64_t now = SDK::TimeUtils::GetCurrentTimestampMS();
    m_stats.lastErrorMs = now;
    if (m_stats.healthy) {
        m_stats.healthy = false;
        m_lastFailLogMs = now;
        m_failuresSinceLog = 0;
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                "Cannot write events to sink %s: %s. Events are held in memory (up to %z) "
                "and the sink is tried again on the next event.",
                m_options.path, reason, m_options.maxHeld);
    } else if (now - m_lastFailLogMs >= kFailLogIntervalMs) {
        SDK_LOG(m_logger, Poco::Message::PRIO_ERROR, kSource,
                "Event sink %s still failing (%s): %?d failed attempts in the last minute, "
                "%z events held, %?d dropped so far.",
                m_options.path, reason, m_failuresSinceLog,
                m_held.size(), m_stats.dropped);
        m_lastFailLogMs = now;
        m_failuresSinceLog = 0;
    }
}

void EventSink::Recovered()
{
    if (m_stats.healthy) {
        return;
    }
    m_stats.healthy = true;
    SDK_LOG(m_logger, Poco::Message::PRIO_NOTICE, kSource,
            "Event sink %s is writable again (%?d events dropped while it failed).",
            m_options.path, m_stats.dropped);
}

}  // namespace Report

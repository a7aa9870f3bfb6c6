#include "report/Spool.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <vector>

#include "sdk/Posix.h"

namespace Report {

using SDK::ErrnoText;
using SDK::Status;

namespace {

const char* const kSuffix = ".ndjson";
const char* const kCursor = "cursor";
const uint64_t kMaxSegmentBytes = 8ull * 1024 * 1024;
const uint64_t kMinSegmentBytes = 4096;
const uint64_t kMinRead = 64 * 1024;

bool ParseSegmentName(const std::string& name, uint64_t& seq)
{
    const size_t suffix = name.size() - std::min(name.size(), std::char_traits<char>::length(kSuffix));
    if (suffix == 0 || name.compare(suffix, std::string::npos, kSuffix) != 0 ||
        !std::all_of(name.begin(), name.begin() + static_cast<long>(suffix), ::isdigit)) {
        return false;
    }
    seq = std::stoull(name.substr(0, suffix));
    return true;
}

// Bytes [from, from+size) of `path`; shorter when the file is.
bool ReadRange(const std::string& path, uint64_t from, uint64_t size, std::string& out)
{
    SDK::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd.Valid()) {
        return false;
    }
    out.resize(size);
    size_t got = 0;
    while (got < size) {
        const ssize_t n = ::pread(fd.Get(), &out[got], size - got, static_cast<off_t>(from + got));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    out.resize(got);
    return true;
}

}  // namespace

Spool::Spool(const SpoolOptions& options) : m_options(options)
{
    if (m_options.segmentBytes == 0) {
        m_options.segmentBytes = std::min(kMaxSegmentBytes, m_options.maxBytes / 4);
    }
    m_options.segmentBytes = std::max(m_options.segmentBytes, kMinSegmentBytes);
}

Spool::~Spool()
{
    CloseWriter();
}

std::string Spool::SegmentPath(uint64_t seq) const
{
    char name[32];
    std::snprintf(name, sizeof(name), "%020" PRIu64, seq);
    return m_options.dir + "/" + name + kSuffix;
}

void Spool::CloseWriter()
{
    if (m_writeFd >= 0) {
        ::close(m_writeFd);
        m_writeFd = -1;
    }
}

Status Spool::Open()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    CloseWriter();
    m_segments.clear();
    m_stats = SpoolStats();
    m_open = false;
    if (m_options.dir.empty()) {
        return Status::Error("no spool directory is configured");
    }
    Status made = SDK::MakePrivateDir(m_options.dir);
    if (!made) {
        return made;
    }
    std::vector<SDK::DirEntry> entries;
    const SDK::ReadResult listed = SDK::ListDirectory(m_options.dir, entries);
    if (!listed.ok()) {
        return Status::Error("cannot list " + m_options.dir + ": " + listed.reason);
    }
    for (const auto& entry : entries) {
        uint64_t seq = 0;
        struct stat st;
        if (entry.type == SDK::DirEntry::Type::File && ParseSegmentName(entry.name, seq) &&
            ::stat(SegmentPath(seq).c_str(), &st) == 0) {
            m_segments[seq] = static_cast<uint64_t>(st.st_size);
        }
    }
    // A missing or unreadable cursor means starting from the oldest line:
    // some events are sent twice rather than some never.
    std::string text;
    unsigned long long seq = 0, offset = 0;
    if (SDK::ReadRegularFile(m_options.dir + "/" + kCursor, 256, text).ok() &&
        std::sscanf(text.c_str(), "%llu %llu", &seq, &offset) == 2) {
        m_cursorSeq = seq;
        m_cursorOffset = offset;
    } else {
        m_cursorSeq = m_segments.empty() ? 0 : m_segments.begin()->first;
        m_cursorOffset = 0;
    }
    // Segments before the cursor were sent; a crash kept them from going.
    while (!m_segments.empty() && m_segments.begin()->first < m_cursorSeq) {
        ::unlink(SegmentPath(m_segments.begin()->first).c_str());
        m_segments.erase(m_segments.begin());
    }
    const uint64_t last = std::max<uint64_t>(m_segments.empty() ? 0 : m_segments.rbegin()->first,
                                             m_cursorSeq);
    m_writeSeq = last + 1;  // never continue a segment a crash may have cut
    if (m_segments.empty() || m_segments.begin()->first != m_cursorSeq) {
        m_cursorSeq = m_segments.empty() ? m_writeSeq : m_segments.begin()->first;
        m_cursorOffset = 0;
    }
    for (const auto& segment : m_segments) {
        m_stats.bytes += segment.second;
        const uint64_t from =
            segment.first == m_cursorSeq ? std::min(m_cursorOffset, segment.second) : 0;
        m_stats.pending += CountLines(segment.first, from);
    }
    m_open = true;
    return Status::Ok();
}

uint64_t Spool::CountLines(uint64_t seq, uint64_t from) const
{
    auto it = m_segments.find(seq);
    std::string data;
    if (it == m_segments.end() || from >= it->second ||
        !ReadRange(SegmentPath(seq), from, it->second - from, data)) {
        return 0;
    }
    return static_cast<uint64_t>(std::count(data.begin(), data.end(), '\n'));
}

Status Spool::SaveCursor()
{
    const std::string path = m_options.dir + "/" + kCursor;
    const std::string temp = path + ".tmp";
    SDK::UniqueFd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd.Valid()) {
        return Status::Error("cannot write " + temp + ": " + ErrnoText(errno));
    }
    Status written = SDK::WriteAll(
        fd.Get(), std::to_string(m_cursorSeq) + " " + std::to_string(m_cursorOffset) + "\n", temp);
    if (written && ::rename(temp.c_str(), path.c_str()) != 0) {
        written = Status::Error("cannot rename " + temp + ": " + ErrnoText(errno));
    }
    return written;
}

void Spool::DropOldest()
{
    const auto oldest = m_segments.begin();
    const uint64_t seq = oldest->first;
    const uint64_t from = seq == m_cursorSeq ? m_cursorOffset : (seq < m_cursorSeq ? oldest->second : 0);
    const uint64_t lost = CountLines(seq, from);
    if (seq == m_writeSeq) {
        CloseWriter();
    }
    ::unlink(SegmentPath(seq).c_str());
    m_stats.bytes -= oldest->second;
    m_stats.dropped += lost;
    m_stats.pending -= std::min(lost, m_stats.pending);
    m_segments.erase(oldest);
    if (m_cursorSeq <= seq) {
        m_cursorSeq = m_segments.empty() ? m_writeSeq + (m_writeFd < 0 ? 1 : 0)
                                         : m_segments.begin()->first;
        m_cursorOffset = 0;
        SaveCursor();
    }
}

void Spool::Resync()
{
    CloseWriter();
    const uint64_t before = m_stats.pending;
    m_stats.pending = 0;
    m_stats.bytes = 0;
    for (auto it = m_segments.begin(); it != m_segments.end();) {
        struct stat st;
        if (::stat(SegmentPath(it->first).c_str(), &st) != 0) {
            it = m_segments.erase(it);
            continue;
        }
        it->second = static_cast<uint64_t>(st.st_size);
        m_stats.bytes += it->second;
        ++it;
    }
    if (m_segments.count(m_cursorSeq) == 0) {
        auto next = m_segments.lower_bound(m_cursorSeq);
        m_cursorSeq = next == m_segments.end() ? m_writeSeq + 1 : next->first;
        m_cursorOffset = 0;
    }
    for (const auto& segment : m_segments) {
        if (segment.first >= m_cursorSeq) {
            m_stats.pending += CountLines(segment.first, segment.first == m_cursorSeq ? m_cursorOffset : 0);
        }
    }
    m_stats.dropped += before - std::min(before, m_stats.pending);
    m_writeSeq = std::max(m_writeSeq, m_segments.empty() ? 0 : m_segments.rbegin()->first) + 1;
}

Status Spool::Append(const std::string& line)
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    if (!m_open) {
        return Status::Error("the spool " + m_options.dir + " is not open");
    }
    struct stat st;
    if (m_writeFd >= 0 && ::fstat(m_writeFd, &st) == 0 && st.st_nlink == 0) {
        // Removed under us (the directory too, perhaps): what it held is
        // lost and counted; a fresh segment takes what comes next.
        Resync();
    }
    const uint64_t size = line.size();
    if (size > m_options.maxBytes) {
        ++m_stats.dropped;
        return Status::Error("an event of " + std::to_string(size) + " bytes is larger than the spool");
    }
    if (m_writeFd >= 0 && m_segments[m_writeSeq] > 0 &&
        m_segments[m_writeSeq] + size > m_options.segmentBytes) {
        CloseWriter();
        ++m_writeSeq;
    }
    while (!m_segments.empty() && m_stats.bytes + size > m_options.maxBytes) {
        DropOldest();
    }
    if (m_writeFd < 0) {
        if (m_segments.count(m_writeSeq) != 0) {
            ++m_writeSeq;  // its segment was dropped whole; never reuse a name
        }
        const std::string path = SegmentPath(m_writeSeq);
        m_writeFd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0600);
        if (m_writeFd < 0) {
            return Status::Error("cannot create " + path + ": " + ErrnoText(errno));
        }
        m_segments[m_writeSeq] = 0;
        if (m_cursorSeq > m_writeSeq || m_segments.size() == 1) {
            m_cursorSeq = m_writeSeq;
            m_cursorOffset = 0;
        }
    }
    uint64_t& segment = m_segments[m_writeSeq];
    const Status written = SDK::WriteAll(m_writeFd, line, SegmentPath(m_writeSeq));
    if (!written) {
        // Take a partial line back, so that the next one starts clean.
        if (::ftruncate(m_writeFd, static_cast<off_t>(segment)) != 0) {
            CloseWriter();
            ++m_writeSeq;
        }
        return written;
    }
    segment += size;
    m_stats.bytes += size;
    ++m_stats.pending;
    ++m_stats.spooled;
    return Status::Ok();
}

bool Spool::Peek(size_t maxCount, uint64_t maxBytes, SpoolBatch& out)
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    for (;;) {
        auto it = m_segments.lower_bound(m_cursorSeq);
        if (it == m_segments.end()) {
            return false;
        }
        if (it->first != m_cursorSeq) {
            m_cursorSeq = it->first;
            m_cursorOffset = 0;
        }
        const bool writing = m_writeFd >= 0 && it->first == m_writeSeq;
        const uint64_t left = it->second - std::min(m_cursorOffset, it->second);
        if (left == 0) {
            if (writing) {
                return false;
            }
            // Sent whole: it goes, the cursor moves to the next one.
            ::unlink(SegmentPath(it->first).c_str());
            m_stats.bytes -= it->second;
            m_segments.erase(it);
            m_cursorSeq = m_segments.empty() ? m_writeSeq : m_segments.begin()->first;
            m_cursorOffset = 0;
            SaveCursor();
            continue;
        }
        std::string data;
        if (!ReadRange(SegmentPath(it->first), m_cursorOffset, std::min(left, std::max(maxBytes, kMinRead)),
                       data)) {
            Resync();
            continue;
        }
        size_t end = 0, count = 0;
        for (size_t nl = data.find('\n'); nl != std::string::npos && count < maxCount;
             nl = data.find('\n', nl + 1)) {
            if (count > 0 && nl + 1 > maxBytes) {
                break;
            }
            end = nl + 1;
            ++count;
        }
        if (count == 0 && data.size() < left) {
            // One line longer than the read: take it whole.
            ReadRange(SegmentPath(it->first), m_cursorOffset, left, data);
            const size_t nl = data.find('\n');
            if (nl != std::string::npos) {
                end = nl + 1;
                count = 1;
            }
        }
        if (count == 0) {
            if (writing) {
                return false;
            }
            // The tail of a line a crash cut short: nothing to send.
            ++m_stats.dropped;
            m_cursorOffset = it->second;
            SaveCursor();
            continue;
        }
        data.resize(end);
        out.body = std::move(data);
        out.count = count;
        out.seq = m_cursorSeq;
        out.begin = m_cursorOffset;
        out.end = m_cursorOffset + end;
        return true;
    }
}

Status Spool::Ack(const SpoolBatch& batch)
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    if (batch.seq != m_cursorSeq || batch.begin != m_cursorOffset) {
        return Status::Ok();  // the bound dropped it while it was out
    }
    m_cursorOffset = batch.end;
    m_stats.pending -= std::min<uint64_t>(batch.count, m_stats.pending);
    return SaveCursor().Prefixed("cannot keep the spool position");
}

SpoolStats Spool::Stats() const
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    SpoolStats stats = m_stats;
    // Segments before the cursor are gone, so only the cursor's own offset
    // is already sent.
    stats.pendingBytes = stats.pending == 0 ? 0 : stats.bytes - std::min(stats.bytes, m_cursorOffset);
    return stats;
}

}  // namespace Report

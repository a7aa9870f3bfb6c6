#pragma once
// An on-disk queue of event lines for a sink that may be unreachable for a
// while: events survive an agent restart and go out in the order they came.
//
// Lines are appended to numbered segment files (<dir>/<seq>.ndjson, mode
// 0600 in a 0700 directory) with one write(2) each; a cursor file names the
// first line not yet acknowledged. A batch is read from the cursor and the
// cursor moves past it only on Ack, so a crash between sending and Ack sends
// the batch again (at least once). Past `maxBytes` the oldest segment is
// removed whole and its unsent lines are counted as dropped. After a restart
// writing starts in a fresh segment, so a line a crash cut short is never
// continued; such a fragment is skipped when read.
//
// Thread-safe: one thread appends while another reads and acknowledges.

#include <cstdint>
#include <map>
#include <string>

#include <Poco/Mutex.h>

#include "sdk/Status.h"

namespace Report {

struct SpoolOptions {
    static constexpr uint64_t kDefaultMaxBytes = 100ull * 1024 * 1024;

    std::string dir;
    uint64_t maxBytes = kDefaultMaxBytes;
    uint64_t segmentBytes = 0;  // 0: a quarter of maxBytes, at most 8 MiB
};

struct SpoolBatch {
    std::string body;    // complete lines, each ending in "\n"
    size_t count = 0;    // lines in body
    uint64_t seq = 0;    // segment and offsets the batch was read from
    uint64_t begin = 0;
    uint64_t end = 0;
};

struct SpoolStats {
    uint64_t spooled = 0;   // lines appended since the start
    uint64_t dropped = 0;   // unsent lines removed by the bound, or cut short by a crash
    uint64_t pending = 0;   // lines not yet acknowledged
    uint64_t bytes = 0;     // size of the segments on disk
    uint64_t pendingBytes = 0;
};

class Spool {
public:
    explicit Spool(const SpoolOptions& options);
    ~Spool();
    Spool(const Spool&) = delete;
    Spool& operator=(const Spool&) = delete;

    // Makes the directory and finds what an earlier run left unsent.
    SDK::Status Open();
    // `line` must end in "\n". On failure nothing of it stays on disk.
    SDK::Status Append(const std::string& line);
    // The lines after the cursor, at most `maxCount` and about `maxBytes`
    // (one line at least); false when there are none.
    bool Peek(size_t maxCount, uint64_t maxBytes, SpoolBatch& out);
    // Moves the cursor past `batch` unless the bound dropped it meanwhile.
    SDK::Status Ack(const SpoolBatch& batch);

    SpoolStats Stats() const;
    const std::string& Dir() const { return m_options.dir; }

private:
    std::string SegmentPath(uint64_t seq) const;
    SDK::Status SaveCursor();
    void DropOldest();
    uint64_t CountLines(uint64_t seq, uint64_t from) const;
    void CloseWriter();
    // After segments were removed by someone else: forgets them, counts
    // what they held as dropped.
    void Resync();

    SpoolOptions m_options;
    mutable Poco::FastMutex m_mutex;  // guards everything below
    std::map<uint64_t, uint64_t> m_segments;  // seq -> size in bytes
    uint64_t m_writeSeq = 0;   // segment being appended to (when m_writeFd >= 0)
    int m_writeFd = -1;
    uint64_t m_cursorSeq = 0;  // first unacknowledged line: segment, offset
    uint64_t m_cursorOffset = 0;
    SpoolStats m_stats;
    bool m_open = false;
};

}  // namespace Report

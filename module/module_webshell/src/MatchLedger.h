#pragma once
// Every match of one pass, for the `scan` command's summary and report.
// Several scanning threads record into one ledger; the pass takes the list
// when it ends and announces it (message/Matches.h).

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <Poco/Logger.h>
#include <Poco/Mutex.h>

#include "message/Matches.h"

namespace Engine {

class MatchLedger {
public:
    // A rule that matches every file of a large tree must not exhaust
    // memory: past this many, matches are only counted.
    static constexpr std::size_t kDefaultBound = 100000;

    explicit MatchLedger(std::size_t bound = kDefaultBound) : m_bound(bound) {}
    MatchLedger(const MatchLedger&) = delete;
    MatchLedger& operator=(const MatchLedger&) = delete;

    void Record(MatchRecord record);
    // The list so far as a message; the ledger starts empty again.
    std::shared_ptr<MatchListMessage> Take(const std::string& task, uint64_t passId);

private:
    const std::size_t m_bound;
    Poco::Mutex m_mutex;
    std::vector<MatchRecord> m_matches;
    uint64_t m_notListed = 0;
};

// An uncertain match not kept because the daily upload quota is used up:
// logged at information and counted under "webshell.uploads" in status.
void NoteOverQuota(Poco::Logger* logger, const std::string& path, int quota);

// The file's digest, "" when it cannot be read.
std::string FileSha256(const std::string& path);

}  // namespace Engine

#pragma once
// Every match of one scan pass, announced once when the pass ends
// (kMatchListTopic), just before the pass itself (kScanPassTopic): a listener
// that waits for the end of the pass already holds its matches. The `scan`
// command lists them and writes them to its report.

#include <cstdint>
#include <string>
#include <vector>

#include "framework/Message.h"

namespace Engine {

constexpr const char* kMatchListTopic = "webshell.matches";

struct MatchRecord {
    std::string path;
    std::string rule;
    bool certain = false;   // an event; otherwise a file kept for a second look
    std::string keyword;    // the matched text, "" when none
    std::string sha256;     // "" when the file could not be read again
    bool uploaded = false;  // handed to the upload store (uncertain matches only)
    int layerDepth = 0;     // 0: the file itself; N: a layer N decoding steps deep
};

class MatchListMessage : public Framework::Message {
public:
    MatchListMessage() : Framework::Message("match_list") {}

    std::string task;
    uint64_t passId = 0;
    std::vector<MatchRecord> matches;
    uint64_t notListed = 0;  // matches beyond the list's bound: counted, not kept
};

}  // namespace Engine

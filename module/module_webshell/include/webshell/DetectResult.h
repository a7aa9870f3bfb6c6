#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Engine {

// The outcome of checking one file against the rule library, filled by the
// YARA match callback. Among the rules that match a buffer, the first
// certain one wins and ends the scan; without a certain one, the first
// match stays. A certain match on any decoded layer makes the file certain.
struct DetectResult {
    bool matched = false;   // a rule matched
    bool extraPhp = false;  // its first fitting tag begins with "extra_php"
    bool extraJsp = false;  // ... with "extra_jsp"
    bool certain = false;   // ... with "certain", or promoted by score: report an event, not an upload
    std::string ruleName;   // identifier of the matched rule
    std::string keyWord;    // text of the rule's last reported string match
    int layerDepth = 0;     // where it matched: 0 the file itself, N a layer N decoding steps deep
    std::optional<int64_t> score;  // the rule's integer "score" meta, if it has one
    std::string description;       // the rule's "description" meta, if it has one
    std::string sha256;            // of the content that matched, once something needed it
    // Set when the policy asks for certain files to be quarantined: the
    // quarantine id, or "" when the file stayed where it was.
    std::optional<std::string> quarantineId;

    // Set before the scan: a rule without a deciding tag (certain, extra_php,
    // extra_jsp) whose score is at least this counts as certain. Unset: off.
    std::optional<int64_t> certainMinScore;
};

}  // namespace Engine

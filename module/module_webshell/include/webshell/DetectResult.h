#pragma once

#include <string>

namespace Engine {

// The outcome of checking one file against the rule library: filled by the
// YARA match callback from the first rule that matches.
struct DetectResult {
    bool matched = false;   // a rule matched
    bool extraPhp = false;  // its first fitting tag begins with "extra_php"
    bool extraJsp = false;  // ... with "extra_jsp"
    bool certain = false;   // ... with "certain": report an event, not an upload
    std::string ruleName;   // identifier of the matched rule
    std::string keyWord;    // text of the rule's last reported string match
};

}  // namespace Engine

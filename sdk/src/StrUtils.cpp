#include "sdk/StrUtils.h"

namespace SDK {

void StrUtils::Split(const std::string& text, const std::string& sep,
                     std::vector<std::string>& out)
{
    if (text.empty()) {
        return;
    }
    if (sep.empty()) {
        // Nothing to split at: the text is its own single piece.
        out.push_back(text);
        return;
    }
    std::string::size_type begin = 0;
    for (;;) {
        const std::string::size_type end = text.find(sep, begin);
        if (end == std::string::npos) {
            out.push_back(text.substr(begin));
            return;
        }
        out.push_back(text.substr(begin, end - begin));
        begin = end + sep.size();
    }
}

}  // namespace SDK

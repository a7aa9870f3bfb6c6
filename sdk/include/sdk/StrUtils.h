#pragma once

#include <string>
#include <vector>

namespace SDK {

class StrUtils {
public:
    // Appends the pieces of `text` between occurrences of `sep` to `out`.
    // An empty text gives no piece; pieces are kept as they are (no trim,
    // empty pieces between adjacent separators included).
    static void Split(const std::string& text, const std::string& sep,
                      std::vector<std::string>& out);
};

}  // namespace SDK

#pragma once

#include <string>

namespace SDK {

class CryptoCodeUtils {
public:
    // Random (version 4) UUID, lower-case 8-4-4-4-12 text.
    static std::string GenerateUUID();
};

}  // namespace SDK

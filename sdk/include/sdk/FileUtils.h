#pragma once

#include <string>

namespace SDK {

class FileUtils {
public:
    // Streams the file and fills `sha256` with the lower-case hex digest
    // (the text sha256sum prints). 0 on success; -1 for a missing,
    // unreadable or non-regular file, or one larger than `limit` bytes
    // (limit <= 0: no limit). `flag` is accepted and not used.
    static int GetFileSha256(const std::string& path, bool& flag, std::string& sha256,
                             long limit);
};

}  // namespace SDK

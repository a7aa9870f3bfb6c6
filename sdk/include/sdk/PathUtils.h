#pragma once

#include <string>

namespace SDK {

class PathUtils {
public:
    // The agent's installation directory, always ending with "/": the one
    // set with SetInstallationPath, else the parent of the directory that
    // holds the running executable. 0 on success; -1 when it is unknown or
    // is not an existing directory.
    static int GetInstallationPath(std::string& out);
    // An empty text goes back to deriving it from the executable.
    static void SetInstallationPath(const std::string& dir);

    // realpath(3); empty text on failure.
    static std::string GetLinkRealPath(const std::string& path);
};

}  // namespace SDK

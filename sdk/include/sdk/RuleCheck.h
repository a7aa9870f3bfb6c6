#pragma once
// libyara trusts the structure of a compiled rule library (yarac output):
// a file with a few flipped bytes can trip an assertion or a wild read
// inside the library and take the whole agent down, again at every start.
// So a compiled library is first loaded, and run over a small sample, by a
// child process; only when the child comes back fine is the file loaded in
// the agent. A library that fails is remembered by its SHA-256 with a
// marker file beside it ("<library>.<sha256>.rejected"), so a restart does
// not retry it; a new download has another digest and is checked afresh.

#include <string>

#include "sdk/Status.h"

namespace SDK {

// ok when `fd` (an open regular file, named `path` in messages) does not
// start like a compiled library, or when it loaded and scanned in a child.
// Otherwise an error naming the file, its digest and what went wrong. The
// descriptor's offset is left as it was. Source rules are left to the
// compiler, which reports their errors itself.
Status CheckCompiledRules(int fd, const std::string& path);

// The marker that remembers `path` with content digest `sha256` as rejected.
std::string RejectedRulesMarker(const std::string& path, const std::string& sha256);

}  // namespace SDK

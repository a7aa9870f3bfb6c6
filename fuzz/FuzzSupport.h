#pragma once
// Shared by the fuzz targets: a scratch directory for the process, input
// split into parts, and a check that aborts (a finding) when it fails.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace Fuzz {

// A fresh directory under $TMPDIR (or /tmp), removed at exit.
const std::string& ScratchDir();
// Creates `path` and its parents.
void MakeDirs(const std::string& path);
// Writes `content` to `path` (parents created).
void WriteFile(const std::string& path, const std::string& content);

// The input cut at every "\n--\n": each part one file or field, so a
// corpus entry stays readable and mutations can move bytes between parts.
std::vector<std::string> Split(const uint8_t* data, size_t size, size_t parts);

// Quiets the agent's loggers (a finding is the crash, not the log).
void SilenceLogs();

}  // namespace Fuzz

#define FUZZ_CHECK(cond, what)                                                            \
    do {                                                                                  \
        if (!(cond)) {                                                                    \
            std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", (what), __FILE__, __LINE__); \
            std::abort();                                                                 \
        }                                                                                 \
    } while (0)

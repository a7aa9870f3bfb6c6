#pragma once
// Keeps suspicious files for analysis: data/upload/<sha256> plus a sidecar
// data/upload/<sha256>.json {"path","size","time","kind","sha256"}.
//
// Copies are mode 0600 in a 0700 directory and carry no suffix: a kept
// sample is never executable and never served by a web server that happens
// to look there. The source is opened with O_NONBLOCK and checked with
// fstat before a byte is read, so a FIFO or device named like a page is
// refused at once instead of blocking the report task.

#include <cstdint>
#include <string>

namespace Report {

struct UploadOptions {
    static constexpr uint64_t kDefaultMaxBytes = 64ull * 1024 * 1024;

    std::string dir;                       // the upload directory, created 0700
    uint64_t maxBytes = kDefaultMaxBytes;  // larger files are refused
};

struct UploadResult {
    enum Outcome { STORED, DUPLICATE, REFUSED, FAILED };
    Outcome outcome = FAILED;
    std::string sha256;
    std::string storedPath;
    uint64_t size = 0;
    std::string error;  // REFUSED or FAILED: why
};

class UploadStore {
public:
    explicit UploadStore(const UploadOptions& options);

    // Removes the temporary files an agent that crashed while copying left
    // in the directory; returns how many.
    int RemoveLeftovers();

    // Copies `path` (kind "webshell") into the store. A file whose content is
    // already kept is a DUPLICATE: the copy and its sidecar stay as they are.
    UploadResult Store(const std::string& path, const std::string& kind);

    const std::string& Dir() const { return m_options.dir; }

    static const char* OutcomeName(UploadResult::Outcome outcome);

private:
    std::string PrepareDir();
    std::string CopyToTemp(int srcFd, std::string& tempPath, uint64_t& size);
    std::string WriteSidecar(const std::string& path, uint64_t size, const std::string& kind,
                             const std::string& sha256);

    UploadOptions m_options;
};

}  // namespace Report

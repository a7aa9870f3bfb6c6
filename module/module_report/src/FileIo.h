#pragma once
// Small file helpers shared by the downloader and the upload store.

#include <cerrno>
#include <string>

namespace Report {
namespace FileIo {

// strerror text of `err`.
std::string ErrnoText(int err);
// The directory part of `path` ("." when there is none).
std::string DirName(const std::string& path);
// Writes all of `data`, retrying after EINTR; "" on success, else the reason.
std::string WriteAll(int fd, const char* data, size_t size);

}  // namespace FileIo
}  // namespace Report

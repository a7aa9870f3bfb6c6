#include "FileIo.h"

#include <unistd.h>

#include <Poco/Error.h>

namespace Report {
namespace FileIo {

std::string ErrnoText(int err)
{
    return Poco::Error::getMessage(err);
}

std::string DirName(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string WriteAll(int fd, const char* data, size_t size)
{
    size_t done = 0;
    while (done < size) {
        ssize_t n = ::write(fd, data + done, size - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return ErrnoText(errno);
        }
        done += static_cast<size_t>(n);
    }
    return "";
}

}  // namespace FileIo
}  // namespace Report

#include "sdk/FileUtils.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include <Poco/DigestEngine.h>
#include <Poco/SHA2Engine.h>

namespace SDK {

namespace {

constexpr size_t kReadChunk = 64 * 1024;

class FdCloser {
public:
    explicit FdCloser(int fd) : m_fd(fd) {}
    ~FdCloser() { close(m_fd); }
    FdCloser(const FdCloser&) = delete;
    FdCloser& operator=(const FdCloser&) = delete;

private:
    int m_fd;
};

}  // namespace

int FileUtils::GetFileSha256(const std::string& path, bool& flag, std::string& sha256,
                             long limit)
{
    (void)flag;
    // O_NONBLOCK: a FIFO or device named like the file must not hang the
    // caller; fstat below then refuses it before anything is read.
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return -1;
    }
    FdCloser closer(fd);
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        return -1;
    }
    if (limit > 0 && st.st_size > limit) {
        return -1;
    }

    Poco::SHA2Engine engine(Poco::SHA2Engine::SHA_256);
    std::vector<char> buffer(kReadChunk);
    long long total = 0;
    for (;;) {
        const ssize_t got = read(fd, buffer.data(), buffer.size());
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (got == 0) {
            break;
        }
        total += got;
        // The file may grow while it is read: the limit holds for what is hashed.
        if (limit > 0 && total > limit) {
            return -1;
        }
        engine.update(buffer.data(), static_cast<unsigned>(got));
    }
    sha256 = Poco::DigestEngine::digestToHex(engine.digest());
    return 0;
}

}  // namespace SDK

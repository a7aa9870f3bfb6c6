#include "sdk/FileUtils.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include <Poco/DigestEngine.h>
#include <Poco/SHA2Engine.h>

#include "sdk/Posix.h"

namespace SDK {

namespace {

constexpr size_t kReadChunk = 64 * 1024;

}  // namespace

int FileUtils::GetFileSha256(const std::string& path, bool& flag, std::string& sha256,
                             long limit)
{
    (void)flag;
    // A FIFO or device named like the file is refused before anything is read.
    UniqueFd fd;
    if (!OpenRegularFile(path, false, fd).ok()) {
        return -1;
    }
    struct stat st {};
    if (fstat(fd.Get(), &st) != 0 || (limit > 0 && st.st_size > limit)) {
        return -1;
    }

    Poco::SHA2Engine engine(Poco::SHA2Engine::SHA_256);
    std::vector<char> buffer(kReadChunk);
    long long total = 0;
    for (;;) {
        const ssize_t got = read(fd.Get(), buffer.data(), buffer.size());
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

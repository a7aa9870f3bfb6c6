#include "FuzzSupport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include <Poco/AutoPtr.h>
#include <Poco/Logger.h>
#include <Poco/NullChannel.h>

namespace Fuzz {

namespace {

std::string MakeScratch()
{
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/ardent-fuzz-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
    static std::string path(buf.data());
    std::atexit([] {
        const std::string cmd = "rm -rf '" + path + "'";
        if (std::system(cmd.c_str()) != 0) {
            // left behind
        }
    });
    return path;
}

}  // namespace

const std::string& ScratchDir()
{
    static const std::string dir = MakeScratch();
    return dir;
}

void MakeDirs(const std::string& path)
{
    for (size_t pos = 1; pos != std::string::npos;) {
        pos = path.find('/', pos + 1);
        mkdir(path.substr(0, pos).c_str(), 0755);
    }
}

void WriteFile(const std::string& path, const std::string& content)
{
    MakeDirs(path.substr(0, path.rfind('/')));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::vector<std::string> Split(const uint8_t* data, size_t size, size_t parts)
{
    static const std::string kSeparator = "\n--\n";
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> out;
    size_t start = 0;
    while (out.size() + 1 < parts) {
        const size_t at = input.find(kSeparator, start);
        if (at == std::string::npos) {
            break;
        }
        out.push_back(input.substr(start, at - start));
        start = at + kSeparator.size();
    }
    out.push_back(input.substr(start));
    out.resize(parts);
    return out;
}

void SilenceLogs()
{
    Poco::AutoPtr<Poco::NullChannel> null(new Poco::NullChannel);
    Poco::Logger::root();
    Poco::Logger::setChannel("", null);
    Poco::Logger::setLevel("", Poco::Message::PRIO_FATAL);
}

}  // namespace Fuzz

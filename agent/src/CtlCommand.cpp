// `ardent-agent ctl`: one request to the running agent over run/agent.sock.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "Commands.h"
#include "sdk/JsonUtils.h"
#include "sdk/Posix.h"

namespace Agent {

namespace {

const int kReplyTimeoutMs = 30000;
// `status` exits with the verdict (0 ok, 1 degraded, 2 failing), so it
// needs a code of its own for "no answer".
const int kStatusUnknown = 3;
// What the agent takes in one request, less the command line.
const size_t kMaxPolicyBytes = 16 * 1024 * 1024 - 64;

bool SendAll(int fd, const std::string& data)
{
    size_t off = 0;
    while (off < data.size()) {
        ssize_t n = send(fd, data.data() + off, data.size() - off, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        off += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

int CtlCommandMain(const AgentOptions& options)
{
    if (options.args.empty()) {
        std::cerr << "ardent-agent ctl: give a request: status, scan-now, reload or policy F\n";
        return 2;
    }
    const std::string& verb = options.args[0];
    std::string request;
    if ((verb == "status" || verb == "scan-now" || verb == "reload") && options.args.size() == 1) {
        request = verb + "\n";
    } else if (verb == "policy" && options.args.size() == 2) {
        std::string content;
        const SDK::ReadResult read = SDK::ReadRegularFile(options.args[1], kMaxPolicyBytes, content);
        if (!read.ok()) {
            std::cerr << "ardent-agent ctl: cannot read policy file " << read.status.message() << "\n";
            return 2;
        }
        request = "policy 10001\n" + content;
    } else {
        std::cerr << "ardent-agent ctl: unknown request; use status, scan-now, reload or policy F\n";
        return 2;
    }

    const int failed = verb == "status" ? kStatusUnknown : 2;
    const std::string path = options.installDir + "run/agent.sock";
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        std::cerr << "ardent-agent ctl: socket path too long: " << path << "\n";
        return failed;
    }
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        std::cerr << "ardent-agent ctl: no agent answers on " << path << " (" << strerror(errno)
                  << "); is `ardent-agent run --install-dir " << options.installDir << "` running?\n";
        if (fd >= 0) {
            close(fd);
        }
        return failed;
    }
    // An agent that refuses this user answers and closes before reading:
    // the reply is still there to read after a broken pipe.
    if (!SendAll(fd, request) && errno != EPIPE && errno != ECONNRESET) {
        std::cerr << "ardent-agent ctl: sending the request failed: " << strerror(errno) << "\n";
        close(fd);
        return failed;
    }
    shutdown(fd, SHUT_WR);
    std::string reply;
    char buf[65536];
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, kReplyTimeoutMs) <= 0) {
            std::cerr << "ardent-agent ctl: no reply within " << kReplyTimeoutMs / 1000 << " s\n";
            close(fd);
            return failed;
        }
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0) {
            break;
        }
        reply.append(buf, static_cast<size_t>(n));
    }
    close(fd);

    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(reply, root) != 0 || !root.isObject()) {
        std::cerr << "ardent-agent ctl: the agent's reply is not JSON: " << reply.substr(0, 200) << "\n";
        return failed;
    }
    if (verb == "status") {
        Json::StreamWriterBuilder pretty;
        pretty["indentation"] = "  ";
        std::cout << Json::writeString(pretty, root) << "\n";
        if (!root["ok"].asBool()) {
            return failed;
        }
        const std::string verdict = root["verdict"].asString();
        if (verdict == "ok") {
            return 0;
        }
        std::cerr << "ardent-agent ctl: health is " << verdict << "\n";
        for (const auto& reason : root["health"]["reasons"]) {
            std::cerr << "  " << reason["severity"].asString() << " " << reason["key"].asString() << ": "
                      << reason["reason"].asString() << "\n";
        }
        return verdict == "degraded" ? 1 : verdict == "failing" ? 2 : failed;
    } else {
        std::cout << reply;
    }
    return root["ok"].asBool() ? 0 : 1;
}

}  // namespace Agent

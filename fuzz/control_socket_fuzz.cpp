// The control socket protocol end to end: the input is sent as one request
// over the real UNIX socket of an engine without modules, and the reply
// must be one line holding one JSON object with "ok".

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include <json/json.h>

#include "ControlServer.h"
#include "FuzzSupport.h"
#include "framework/Engine.h"

namespace {

// One server for the whole run: it reaps its finished request threads, so
// a million requests must not pile them up.
std::unique_ptr<Framework::Engine> g_engine;
std::unique_ptr<Agent::ControlServer> g_server;
std::string g_socket;

// libFuzzer's timeout alarm interrupts poll now and then: wait on.
bool WaitFd(int fd, short events)
{
    pollfd p{fd, events, 0};
    int r;
    do {
        r = poll(&p, 1, 10000);
    } while (r < 0 && errno == EINTR);
    return r > 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Fuzz::SilenceLogs();
    const std::string install = Fuzz::ScratchDir() + "/install/";
    for (const char* sub : {"policy", "run", "log", "module", "data/webshell"}) {
        Fuzz::MakeDirs(install + sub);
    }
    g_engine = std::make_unique<Framework::Engine>();
    g_engine->config().setString("agent.install_dir", install);
    g_socket = install + "run/agent.sock";
    g_server = std::make_unique<Agent::ControlServer>(*g_engine, g_socket);
    std::string error;
    FUZZ_CHECK(g_server->Start(error), error.c_str());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    FUZZ_CHECK(fd >= 0, "socket");
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, g_socket.c_str(), g_socket.size() + 1);
    FUZZ_CHECK(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0, "connect");
    size_t sent = 0;
    while (sent < size && WaitFd(fd, POLLOUT)) {
        const ssize_t n = send(fd, data + sent, size - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        sent += static_cast<size_t>(n);
    }
    shutdown(fd, SHUT_WR);
    std::string reply;
    char buf[4096];
    while (WaitFd(fd, POLLIN)) {
        const ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        reply.append(buf, static_cast<size_t>(n));
    }
    close(fd);

    if (reply.empty() || reply.back() != '\n' || reply.find('\n') != reply.size() - 1) {
        std::fprintf(stderr, "reply (%zu bytes): %.*s\n", reply.size(), 300, reply.c_str());
    }
    FUZZ_CHECK(!reply.empty() && reply.back() == '\n', "reply is not one line");
    FUZZ_CHECK(reply.find('\n') == reply.size() - 1, "reply spans several lines");
    Json::Value doc;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    FUZZ_CHECK(reader->parse(reply.data(), reply.data() + reply.size(), &doc, &errors), "reply is not JSON");
    FUZZ_CHECK(doc.isObject() && doc["ok"].isBool(), "reply has no \"ok\"");
    return 0;
}

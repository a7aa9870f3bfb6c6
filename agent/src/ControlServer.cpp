#include "ControlServer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "framework/Engine.h"
#include "sdk/JsonUtils.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"

namespace Agent {

namespace {

const char* const kSource = "agent/src/ControlServer";
const int kIoTimeoutMs = 5000;

Poco::Logger* Log()
{
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", false);
}

std::string ErrorReply(const std::string& error)
{
    Json::Value reply(Json::objectValue);
    reply["ok"] = false;
    reply["error"] = error;
    return SDK::JsonUtils::JsonToString(reply);
}

bool FillAddress(const std::string& path, sockaddr_un& addr)
{
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        return false;
    }
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return true;
}

bool WaitFd(int fd, short events, int timeoutMs)
{
    pollfd p{fd, events, 0};
    int r;
    do {
        r = poll(&p, 1, timeoutMs);
    } while (r < 0 && errno == EINTR);
    return r > 0;
}

}  // namespace

ControlServer::ControlServer(Framework::Engine& engine, const std::string& socketPath)
    : m_engine(engine), m_path(socketPath) {}

ControlServer::~ControlServer()
{
    Stop();
}

bool ControlServer::Start(std::string& error)
{
    sockaddr_un addr;
    if (!FillAddress(m_path, addr)) {
        error = "control socket path too long: " + m_path;
        return false;
    }
    // A live agent answers on the socket; a stale file is removed.
    int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe >= 0) {
        if (connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) {
            close(probe);
            error = "another agent already listens on " + m_path;
            return false;
        }
        close(probe);
    }
    unlink(m_path.c_str());
    m_listenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_listenFd < 0) {
        error = std::string("socket: ") + strerror(errno);
        return false;
    }
    const mode_t old = umask(0077);
    const int bound = bind(m_listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    umask(old);
    if (bound != 0 || listen(m_listenFd, 16) != 0) {
        error = "cannot listen on " + m_path + ": " + strerror(errno);
        close(m_listenFd);
        m_listenFd = -1;
        return false;
    }
    chmod(m_path.c_str(), 0600);
    m_stop = false;
    m_acceptThread = std::thread([this] { AcceptLoop(); });
    return true;
}

void ControlServer::Stop()
{
    if (m_listenFd < 0) {
        return;
    }
    m_stop = true;
    if (m_acceptThread.joinable()) {
        m_acceptThread.join();
    }
    Reap(true);
    close(m_listenFd);
    m_listenFd = -1;
    unlink(m_path.c_str());
}

void ControlServer::Reap(bool all)
{
    for (auto it = m_clients.begin(); it != m_clients.end();) {
        if (all || it->done->load()) {
            it->thread.join();
            it = m_clients.erase(it);
        } else {
            ++it;
        }
    }
}

void ControlServer::AcceptLoop()
{
    while (!m_stop) {
        const bool ready = WaitFd(m_listenFd, POLLIN, 200);
        Reap(false);
        if (!ready) {
            continue;
        }
        int fd = accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        if (m_clients.size() >= kMaxClients) {
            if (!m_busyWarned) {
                m_busyWarned = true;
                SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                        "Control socket: %z requests in progress; further ones are answered 'busy' until they end",
                        m_clients.size());
            }
            const std::string reply = ErrorReply("busy: too many requests at once, try again") + "\n";
            if (WaitFd(fd, POLLOUT, 100)) {
                (void)send(fd, reply.data(), reply.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            }
            close(fd);
            continue;
        }
        m_busyWarned = false;
        auto done = std::make_shared<std::atomic<bool>>(false);
        m_clients.push_back(Client{std::thread([this, fd, done] {
                                       Serve(fd);
                                       done->store(true);
                                   }),
                                   done});
    }
}

void ControlServer::Serve(int fd)
{
    ucred cred{};
    socklen_t len = sizeof(cred);
    std::string reply;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 ||
        (cred.uid != 0 && cred.uid != geteuid())) {
        SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                "Control socket: refused a peer of uid %d (pid %d); only root and the agent's user may talk to it",
                static_cast<int>(cred.uid), static_cast<int>(cred.pid));
        reply = ErrorReply("permission denied");
    } else {
        std::string request;
        char buf[65536];
        bool tooBig = false;
        while (WaitFd(fd, POLLIN, kIoTimeoutMs)) {
            ssize_t n = read(fd, buf, sizeof(buf));
            if (n <= 0) {
                break;
            }
            if (request.size() + static_cast<size_t>(n) > kMaxRequestBytes) {
                tooBig = true;
                break;
            }
            request.append(buf, static_cast<size_t>(n));
        }
        reply = tooBig ? ErrorReply("request larger than 16 MiB") : Handle(request);
    }
    reply += "\n";
    size_t off = 0;
    while (off < reply.size() && WaitFd(fd, POLLOUT, kIoTimeoutMs)) {
        ssize_t n = send(fd, reply.data() + off, reply.size() - off, MSG_NOSIGNAL);
        if (n <= 0) {
            break;
        }
        off += static_cast<size_t>(n);
    }
    close(fd);
}

std::string ControlServer::Handle(const std::string& request)
{
    const size_t eol = request.find('\n');
    std::string line = request.substr(0, eol);
    const std::string payload = eol == std::string::npos ? std::string() : request.substr(eol + 1);
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) {
        line.pop_back();
    }
    const size_t space = line.find(' ');
    const std::string command = line.substr(0, space);
    const std::string argument = space == std::string::npos ? std::string() : line.substr(space + 1);

    Json::Value reply(Json::objectValue);
    if (command == "status") {
        reply = m_engine.Status();
        reply["ok"] = true;
    } else if (command == "scan-now") {
        reply["ok"] = true;
        reply["tasklets"] = Json::Value(Json::objectValue);
        for (auto& result : m_engine.InvokeAllTasklets(false)) {
            const char* text = result.second == Framework::TASKLET_ALREADY_RUNNING ? "already running"
                               : result.second == Framework::TASKLET_STARTED        ? "started"
                                                                                    : "done";
            reply["tasklets"][result.first] = text;
        }
        if (reply["tasklets"].empty()) {
            reply["ok"] = false;
            reply["error"] = "no module offers an immediate scan";
        }
    } else if (command == "reload") {
        reply["ok"] = true;
        reply["applied"] = m_engine.ApplyPolicyDirectory(true);
    } else if (command == "policy") {
        std::string error;
        const std::string id = argument.empty() ? "10001" : argument;
        if (id.find('/') != std::string::npos || id.find("..") != std::string::npos) {
            return ErrorReply("bad policy id '" + id + "'");
        }
        // A document the agent refuses is not kept; the reply names every
        // reason, and the warnings of one it applies.
        Framework::PolicyCheck check;
        const bool installed = m_engine.Policies().Install(id, payload, error, &check);
        reply["ok"] = installed;
        if (installed) {
            reply["policy"] = id;
        } else {
            reply["error"] = error;
        }
        for (const auto& warning : check.warnings) {
            reply["warnings"].append(warning);
        }
    } else {
        SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                "Control socket: unknown request '%s' answered with an error",
                command.substr(0, 64));
        return ErrorReply("unknown request '" + command.substr(0, 64) +
                          "'; requests: status, scan-now, reload, policy [id]");
    }
    return SDK::JsonUtils::JsonToString(reply);
}

}  // namespace Agent

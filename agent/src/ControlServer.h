#pragma once
// The agent's control socket: a UNIX stream socket, mode 0600, one request
// per connection. A request is a command line ("status", "scan-now",
// "reload", "policy [id]") optionally followed by a payload (the policy
// document); the reply is one JSON object. Peers other than root and the
// agent's own user are refused (SO_PEERCRED).
//
// Each request is served on a thread of its own, so a policy change that
// waits for a running scan does not hold up `status`. Finished threads are
// joined by the accept loop as it goes, and at most kMaxClients requests
// are served at once: more are answered "busy" at once. The thread count
// stays flat however many requests come.

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <thread>

namespace Framework {
class Engine;
}

namespace Agent {

class ControlServer {
public:
    static const size_t kMaxRequestBytes = 16 * 1024 * 1024;
    static const size_t kMaxClients = 16;

    ControlServer(Framework::Engine& engine, const std::string& socketPath);
    ~ControlServer();

    // false (and `error`) when the socket cannot be made, or another agent
    // already answers on it.
    bool Start(std::string& error);
    void Stop();

private:
    struct Client {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };
    void AcceptLoop();
    void Reap(bool all);
    void Serve(int fd);
    std::string Handle(const std::string& request);

    Framework::Engine& m_engine;
    std::string m_path;
    int m_listenFd = -1;
    std::atomic<bool> m_stop{false};
    std::thread m_acceptThread;
    std::list<Client> m_clients;  // accept thread only (and Stop after it ended)
    bool m_busyWarned = false;
};

}  // namespace Agent

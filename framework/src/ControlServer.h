#pragma once
// The agent's control socket: a UNIX stream socket, mode 0600, one request
// per connection. A request is a command line ("status", "scan-now",
// "reload", "policy [id]") optionally followed by a payload (the policy
// document); the reply is one JSON object. Peers other than root and the
// agent's own user are refused (SO_PEERCRED).

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include <Poco/Mutex.h>

namespace Framework {

class Engine;

class ControlServer {
public:
    ControlServer(Engine& engine, const std::string& socketPath);
    ~ControlServer();

    // false (and `error`) when the socket cannot be made, or another agent
    // already answers on it.
    bool Start(std::string& error);
    void Stop();

    static const size_t kMaxRequestBytes = 16 * 1024 * 1024;

private:
    void AcceptLoop();
    void Serve(int fd);
    std::string Handle(const std::string& request);

    Engine& m_engine;
    std::string m_path;
    int m_listenFd = -1;
    std::atomic<bool> m_stop{false};
    std::thread m_acceptThread;
    Poco::FastMutex m_clientsMutex;
    std::list<std::thread> m_clients;
};

}  // namespace Framework

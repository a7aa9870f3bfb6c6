#pragma once
// A real HTTP server on 127.0.0.1 (port chosen by the kernel) for download
// tests. Each path has a behaviour:
//   /ok/<name>     200 with the body set by SetBody(name), Content-Length
//   /slow/<name>   the same, but the second half only after Release()
//   /missing       404
//   /big           200, Content-Length larger than any cap the tests use
//   /big-chunked   200, chunked, keeps sending until the client gives up
//   /half          200, Content-Length N, N/2 bytes, then the connection closes
//   /stall         200, Content-Length N, N/2 bytes, then nothing until Release()
//   /redirect/<n>  302 to /ok/<n>
//   /loop          302 to /loop
//   /ingest        a receiver of POSTed JSON lines; what it does is set by
//                  SetIngest (accept with 200, answer 500, never answer until
//                  the mode changes, or close with half the body read).
// Hits() counts requests per path; Down() and Up() stop and restart the
// server on the same port.

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerRequestImpl.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/SecureServerSocket.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>

class LoopbackHttpServer {
public:
    static constexpr size_t kHalfBody = 64 * 1024;
    static constexpr size_t kBigBody = 8 * 1024 * 1024;

    enum class Ingest { Accept, Fail500, Hang, CloseMidway };

    // With `tls` (a server context) it speaks HTTPS.
    explicit LoopbackHttpServer(Poco::Net::Context::Ptr tls = nullptr)
        : m_socket(tls ? Poco::Net::SecureServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0), 64, tls)
                       : Poco::Net::ServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0))),
          m_scheme(tls ? "https" : "http")
    {
        m_port = m_socket.address().port();
        Up();
    }

    ~LoopbackHttpServer()
    {
        Release();
        SetIngest(Ingest::Accept);
        Down();
    }

    void Up()
    {
        if (m_server) {
            return;
        }
        if (!m_socket.impl()->initialized()) {
            m_socket = Poco::Net::ServerSocket(Poco::Net::SocketAddress("127.0.0.1", m_port));
        }
        Poco::Net::HTTPServerParams::Ptr params = new Poco::Net::HTTPServerParams;
        params->setMaxThreads(8);
        params->setKeepAlive(false);
        m_server = std::make_unique<Poco::Net::HTTPServer>(new Factory(this), m_socket, params);
        m_server->start();
    }

    // Stops accepting: connections are refused until Up().
    void Down()
    {
        if (m_server) {
            m_server->stopAll(true);
            m_server.reset();
            m_socket.close();
        }
    }

    void SetIngest(Ingest mode)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_ingest = mode;
        m_cv.notify_all();
    }

    // Lines of every accepted batch, in order, and the last Authorization header.
    std::vector<std::string> Ingested()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_ingested;
    }
    std::string Authorization()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_authorization;
    }

    std::string Url(const std::string& path) const
    {
        return Url(path, "127.0.0.1");
    }

    std::string Url(const std::string& path, const std::string& host) const
    {
        return m_scheme + "://" + host + ":" + std::to_string(m_port) + path;
    }

    void SetBody(const std::string& name, const std::string& body)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bodies[name] = body;
    }

    int Hits(const std::string& path)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_hits[path];
    }

    // True once a /stall or /slow request has sent its first half.
    bool Stalling() const { return m_stalling.load() > 0; }

    // /stall and /slow wait again from now on.
    void Hold()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_released = false;
        m_stalling = 0;
    }

    void Release()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_released = true;
        m_cv.notify_all();
    }

private:
    class Handler : public Poco::Net::HTTPRequestHandler {
    public:
        explicit Handler(LoopbackHttpServer* owner) : m_owner(owner) {}
        void handleRequest(Poco::Net::HTTPServerRequest& request,
                           Poco::Net::HTTPServerResponse& response) override
        {
            m_owner->Serve(request, response);
        }

    private:
        LoopbackHttpServer* m_owner;
    };

    class Factory : public Poco::Net::HTTPRequestHandlerFactory {
    public:
        explicit Factory(LoopbackHttpServer* owner) : m_owner(owner) {}
        Poco::Net::HTTPRequestHandler* createRequestHandler(
            const Poco::Net::HTTPServerRequest&) override
        {
            return new Handler(m_owner);
        }

    private:
        LoopbackHttpServer* m_owner;
    };

    void ServeIngest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response)
    {
        std::string body;
        std::istream& in = request.stream();
        std::unique_lock<std::mutex> lock(m_mutex);
        const Ingest mode = m_ingest;
        lock.unlock();
        if (mode == Ingest::CloseMidway) {
            body.resize(static_cast<size_t>(request.getContentLength64() / 2));
            in.read(&body[0], static_cast<std::streamsize>(body.size()));
            static_cast<Poco::Net::HTTPServerRequestImpl&>(request).socket().shutdown();
            return;
        }
        body.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        lock.lock();
        if (mode == Ingest::Hang) {
            m_cv.wait_for(lock, std::chrono::seconds(30), [this] { return m_ingest != Ingest::Hang; });
            return;  // the client gave up long ago
        }
        if (mode == Ingest::Fail500) {
            lock.unlock();
            response.setStatusAndReason(Poco::Net::HTTPResponse::HTTP_INTERNAL_SERVER_ERROR);
            response.send() << "index unavailable";
            return;
        }
        m_authorization = request.get("Authorization", "");
        std::istringstream lines(body);
        for (std::string line; std::getline(lines, line);) {
            m_ingested.push_back(line);
        }
        lock.unlock();
        response.setContentLength(0);
        response.send();
    }

    void Serve(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response)
    {
        const std::string path = request.getURI();
        if (path == "/ingest") {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                ++m_hits[path];
            }
            ServeIngest(request, response);
            return;
        }
        std::string body;
        bool known = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_hits[path];
            const size_t prefix = path.compare(0, 4, "/ok/") == 0     ? 4
                                  : path.compare(0, 6, "/slow/") == 0 ? 6
                                                                      : 0;
            if (prefix > 0) {
                auto it = m_bodies.find(path.substr(prefix));
                known = it != m_bodies.end();
                if (known) {
                    body = it->second;
                }
            }
        }
        using Status = Poco::Net::HTTPResponse::HTTPStatus;
        if (known && path.compare(0, 6, "/slow/") == 0) {
            response.setContentLength64(static_cast<Poco::Int64>(body.size()));
            std::ostream& out = response.send();
            const size_t half = body.size() / 2;
            out.write(body.data(), static_cast<std::streamsize>(half));
            out.flush();
            ++m_stalling;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_cv.wait_for(lock, std::chrono::seconds(30), [this] { return m_released; });
            }
            out.write(body.data() + half, static_cast<std::streamsize>(body.size() - half));
        } else if (known) {
            response.setContentLength64(static_cast<Poco::Int64>(body.size()));
            response.send().write(body.data(), static_cast<std::streamsize>(body.size()));
        } else if (path.compare(0, 10, "/redirect/") == 0) {
            response.redirect("/ok/" + path.substr(10), Status::HTTP_FOUND);
        } else if (path == "/loop") {
            response.redirect("/loop", Status::HTTP_FOUND);
        } else if (path == "/big") {
            response.setContentLength64(kBigBody);
            std::ostream& out = response.send();
            const std::string chunk(64 * 1024, 'b');
            for (size_t sent = 0; sent < kBigBody && out.good(); sent += chunk.size()) {
                out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
            }
        } else if (path == "/big-chunked") {
            response.setChunkedTransferEncoding(true);
            std::ostream& out = response.send();
            const std::string chunk(64 * 1024, 'c');
            for (size_t sent = 0; sent < kBigBody && out.good(); sent += chunk.size()) {
                out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
                out.flush();
            }
        } else if (path == "/half" || path == "/stall") {
            response.setContentLength64(2 * kHalfBody);
            std::ostream& out = response.send();
            const std::string half(kHalfBody, 'h');
            out.write(half.data(), static_cast<std::streamsize>(half.size()));
            out.flush();
            if (path == "/stall") {
                ++m_stalling;
                std::unique_lock<std::mutex> lock(m_mutex);
                m_cv.wait_for(lock, std::chrono::seconds(30), [this] { return m_released; });
            }
            // Cut the connection with the body half sent.
            static_cast<Poco::Net::HTTPServerRequestImpl&>(request).socket().shutdown();
        } else {
            response.setStatusAndReason(Status::HTTP_NOT_FOUND);
            response.setContentLength(0);
            response.send();
        }
    }

    Poco::Net::ServerSocket m_socket;
    Poco::UInt16 m_port = 0;
    std::string m_scheme;
    std::unique_ptr<Poco::Net::HTTPServer> m_server;
    Ingest m_ingest = Ingest::Accept;
    std::vector<std::string> m_ingested;
    std::string m_authorization;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_released = false;
    std::map<std::string, std::string> m_bodies;
    std::map<std::string, int> m_hits;
    std::atomic<int> m_stalling{0};
};

#pragma once
// A real HTTP server on 127.0.0.1 (port chosen by the kernel) for download
// tests. Each path has a behaviour:
//   /ok/<name>     200 with the body set by SetBody(name), Content-Length
//   /slow/<name>   the same, but the second half only after Release()
//   /missing       404 (and any other unknown path)
//   /big           200, Content-Length larger than any cap the tests use
//   /big-chunked   200, chunked, keeps sending until the client gives up
//   /half          200, Content-Length N, N/2 bytes, then the connection closes
//   /redirect/<n>  302 to /ok/<n>
//   /loop          302 to /loop
//   /ingest        a receiver of POSTed JSON lines; what it does is set by
//                  SetIngest (accept with 200, answer 500, never answer until
//                  the mode changes, or close with half the body read).
// Hits() counts requests per path; Down() and Up() stop and restart the
// server on the same port.

#include <atomic>
#include <condition_variable>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
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
    std::vector<std::string> Ingested() { return Locked(m_ingested); }
    std::string Authorization() { return Locked(m_authorization); }
    int Hits(const std::string& path) { return Locked(m_hits)[path]; }

    std::string Url(const std::string& path, const std::string& host = "127.0.0.1") const
    {
        return m_scheme + "://" + host + ":" + std::to_string(m_port) + path;
    }

    void SetBody(const std::string& name, const std::string& body)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bodies[name] = body;
    }

    // True once a /slow request has sent its first half.
    bool Stalling() const { return m_stalling.load() > 0; }

    // /slow waits again from now on.
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
    struct Handler : Poco::Net::HTTPRequestHandler {
        LoopbackHttpServer* owner;
        explicit Handler(LoopbackHttpServer* o) : owner(o) {}
        void handleRequest(Poco::Net::HTTPServerRequest& rq, Poco::Net::HTTPServerResponse& rs) override
        {
            owner->Serve(rq, rs);
        }
    };
    struct Factory : Poco::Net::HTTPRequestHandlerFactory {
        LoopbackHttpServer* owner;
        explicit Factory(LoopbackHttpServer* o) : owner(o) {}
        Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override
        {
            return new Handler(owner);
        }
    };

    // A copy of `value`, read under the lock (the reference is bound outside it).
    template <typename T>
    T Locked(const T& value)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return value;
    }

    static void Cut(Poco::Net::HTTPServerRequest& request)
    {
        static_cast<Poco::Net::HTTPServerRequestImpl&>(request).socket().shutdown();
    }

    void WaitForRelease()
    {
        ++m_stalling;
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait_for(lock, std::chrono::seconds(30), [this] { return m_released; });
    }

    void ServeIngest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response)
    {
        const Ingest mode = Locked(m_ingest);
        std::string body;
        std::istream& in = request.stream();
        if (mode == Ingest::CloseMidway) {
            body.resize(static_cast<size_t>(request.getContentLength64() / 2));
            in.read(&body[0], static_cast<std::streamsize>(body.size()));
            Cut(request);
            return;
        }
        body.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        std::unique_lock<std::mutex> lock(m_mutex);
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

    // Writes `size` bytes of `fill`, chunk by chunk, while the client takes them.
    static void Stream(std::ostream& out, size_t size, char fill)
    {
        const std::string chunk(64 * 1024, fill);
        for (size_t sent = 0; sent < size && out.good(); sent += chunk.size()) {
            out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
            out.flush();
        }
    }

    void Serve(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response)
    {
        const std::string path = request.getURI();
        const bool slow = path.compare(0, 6, "/slow/") == 0;
        std::string body;
        bool known = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_hits[path];
            if (slow || path.compare(0, 4, "/ok/") == 0) {
                auto it = m_bodies.find(path.substr(slow ? 6 : 4));
                known = it != m_bodies.end();
                body = known ? it->second : "";
            }
        }
        using Status = Poco::Net::HTTPResponse::HTTPStatus;
        if (path == "/ingest") {
            ServeIngest(request, response);
        } else if (known) {
            response.setContentLength64(static_cast<Poco::Int64>(body.size()));
            std::ostream& out = response.send();
            const size_t half = slow ? body.size() / 2 : body.size();
            out.write(body.data(), static_cast<std::streamsize>(half));
            if (slow) {
                out.flush();
                WaitForRelease();
                out.write(body.data() + half, static_cast<std::streamsize>(body.size() - half));
            }
        } else if (path.compare(0, 10, "/redirect/") == 0) {
            response.redirect("/ok/" + path.substr(10), Status::HTTP_FOUND);
        } else if (path == "/loop") {
            response.redirect("/loop", Status::HTTP_FOUND);
        } else if (path == "/big" || path == "/big-chunked") {
            if (path == "/big") {
                response.setContentLength64(kBigBody);
            } else {
                response.setChunkedTransferEncoding(true);
            }
            Stream(response.send(), kBigBody, 'b');
        } else if (path == "/half") {
            response.setContentLength64(2 * kHalfBody);
            Stream(response.send(), kHalfBody, 'h');
            Cut(request);  // the body half sent
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

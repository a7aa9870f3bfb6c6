#pragma once
// What the downloader and the HTTP sink share: TLS client contexts that
// verify the peer and never prompt, and a session that hands over its
// descriptor as soon as it connects, so that another thread can cut it.

#include <functional>
#include <string>
#include <utility>

#include <Poco/Net/Context.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/SocketImpl.h>

namespace Report {

// `caFile` empty: the system's CA store. `verify` false accepts any
// certificate (for a receiver with a self-signed one, by explicit choice).
Poco::Net::Context::Ptr ClientContext(const std::string& caFile = "", bool verify = true);

// The TLS handshake of an HTTPS session is deferred to the first write
// (setLazyHandshake), so the descriptor is known before it starts.
template <class Base>
class WatchedSession : public Base {
public:
    template <class... Args>
    WatchedSession(std::function<void(int)> onConnected, Args&&... args)
        : Base(std::forward<Args>(args)...), m_onConnected(std::move(onConnected))
    {
    }

protected:
    void connect(const Poco::Net::SocketAddress& address) override
    {
        Base::connect(address);
        m_onConnected(this->socket().impl()->sockfd());
    }

private:
    std::function<void(int)> m_onConnected;
};

}  // namespace Report

#pragma once
// Debian's rsyslogd (apt-get install rsyslog) for the delivery tests.

#include <string>
#include <vector>

#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/ServerSocket.h>

#include "RealServer.h"
#include "testsupport/TestSupport.h"

// Debian's rsyslogd in the foreground, listening on loopback (UDP and TCP)
// and on a unix datagram socket of its own (`socket`), writing "PRI|APP-NAME|MSGID|MSG" lines to a file.
class RsyslogServer {
public:
    explicit RsyslogServer(TestSupport::TempDir& dir) : socket(dir.Join("log.sock")), m_out(dir.Join("syslog.out"))
    {
        {
            Poco::Net::DatagramSocket udp(Poco::Net::SocketAddress("127.0.0.1", 0));
            Poco::Net::ServerSocket tcp(Poco::Net::SocketAddress("127.0.0.1", 0));
            udpPort = udp.address().port();
            tcpPort = tcp.address().port();
        }
        const std::string conf = dir.Write("rsyslog.conf",
            "global(maxMessageSize=\"64k\" workDirectory=\"" + dir.Path() + "\")\n"
            "module(load=\"imudp\")\nmodule(load=\"imtcp\")\nmodule(load=\"imuxsock\" SysSock.Use=\"off\")\n"
            "input(type=\"imuxsock\" Socket=\"" + socket + "\" UseSpecialParser=\"off\" ParseHostname=\"on\")\n"
            "input(type=\"imudp\" address=\"127.0.0.1\" port=\"" + std::to_string(udpPort) + "\")\n"
            "input(type=\"imtcp\" address=\"127.0.0.1\" port=\"" + std::to_string(tcpPort) + "\")\n"
            "template(name=\"t\" type=\"string\" string=\"%pri%|%app-name%|%msgid%|%msg%\\n\")\n"
            "*.* action(type=\"omfile\" file=\"" + m_out + "\" template=\"t\")\n");
        ready = m_process.Start("/usr/sbin/rsyslogd", {"rsyslogd", "-n", "-f", conf, "-i", dir.Join("rsyslog.pid")},
                                dir.Join("rsyslogd.out")) &&
                TestSupport::WaitFor([&] { return AssetTest::Accepts(tcpPort) && TestSupport::FileExists(socket); },
                                     10000, 50);
    }
    std::vector<std::string> Lines() const { return TestSupport::ReadLines(m_out); }

    std::string socket;
    Poco::UInt16 udpPort = 0, tcpPort = 0;
    bool ready = false;

private:
    std::string m_out;
    AssetTest::ServerProcess m_process;
};

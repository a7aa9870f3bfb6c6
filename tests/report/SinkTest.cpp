// The remote sinks against real receivers on loopback: the spool across
// restarts and its bound, Debian's rsyslog over UDP and TCP, and an HTTP
// receiver that fails in each way a real one does.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LoopbackHttpServer.h"
#include "RsyslogServer.h"
#include "framework/Health.h"
#include "framework/StatusBoard.h"
#include "report/HttpSink.h"
#include "report/Spool.h"
#include "report/SyslogSink.h"
#include "testsupport/TestSupport.h"

namespace {

using TestSupport::ParseJson;
using TestSupport::TempDir;
using TestSupport::WaitFor;

std::string Event(int i, size_t pad = 40)
{
    return "{\"event_name\":\"webshell\",\"i\":" + std::to_string(i) + ",\"pad\":\"" + std::string(pad, 'p') + "\"}";
}

// Every line of the spool from its cursor on, acknowledged batch by batch.
std::vector<int> Drain(Report::Spool& spool, size_t batch = 7)
{
    std::vector<int> out;
    for (Report::SpoolBatch b; spool.Peek(batch, 1 << 20, b);) {
        for (size_t at = 0, nl; (nl = b.body.find('\n', at)) != std::string::npos; at = nl + 1) {
            out.push_back(ParseJson(b.body.substr(at, nl - at))["i"].asInt());
        }
        EXPECT_TRUE(spool.Ack(b).ok());
    }
    return out;
}

std::string HealthReason(const std::string& key)
{
    const Json::Value health = Framework::Health::Render();
    for (const auto& r : health["reasons"]) {
        if (r["key"] == key) {
            return r["reason"].asString();
        }
    }
    return "";
}

}  // namespace

TEST(Spool, KeepsOrderAcrossRestartsResendsWhatWasNotAcknowledgedAndDropsOnlyTheOldest)
{
    TempDir dir("spool");
    Report::SpoolOptions options;
    options.dir = dir.Join("spool");
    options.segmentBytes = 4096;  // several segments
    {
        Report::Spool spool(options);
        ASSERT_TRUE(spool.Open().ok());
        for (int i = 0; i < 200; ++i) {
            ASSERT_TRUE(spool.Append(Event(i) + "\n").ok());
        }
        Report::SpoolBatch batch;
        ASSERT_TRUE(spool.Peek(10, 1 << 20, batch));
        ASSERT_TRUE(spool.Ack(batch).ok());
        ASSERT_TRUE(spool.Peek(10, 1 << 20, batch));  // sent, never acknowledged: the agent died
        EXPECT_EQ(spool.Stats().pending, 190u);
    }
    // A line the crash cut short is skipped and counted, never glued to the next.
    std::string newest;
    ASSERT_EQ(0, TestSupport::RunCommand("ls " + options.dir + "/*.ndjson | tail -1", &newest));
    newest.erase(newest.find_last_not_of('\n') + 1);
    ASSERT_EQ(0, TestSupport::RunCommand("printf '{\"i\":200' >> " + newest));
    {
        Report::Spool spool(options);
        ASSERT_TRUE(spool.Open().ok());
        ASSERT_TRUE(spool.Append(Event(201) + "\n").ok());
        const std::vector<int> got = Drain(spool);
        ASSERT_EQ(got.size(), 191u);
        for (size_t k = 0; k < 190; ++k) {
            ASSERT_EQ(got[k], static_cast<int>(k) + 10);
        }
        EXPECT_EQ(got.back(), 201);
        EXPECT_EQ(spool.Stats().dropped, 1u);
        EXPECT_EQ(spool.Stats().pending, 0u);
    }
    // Past the bound the oldest go, counted; the newest are all there, in order.
    options.dir = dir.Join("bounded");
    options.maxBytes = 16384;
    Report::Spool spool(options);
    ASSERT_TRUE(spool.Open().ok());
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(spool.Append(Event(i) + "\n").ok());
    }
    const Report::SpoolStats stats = spool.Stats();
    EXPECT_LE(stats.bytes, options.maxBytes);
    EXPECT_EQ(stats.dropped + stats.pending, 1000u);
    EXPECT_GT(stats.pending, 100u);
    const std::vector<int> kept = Drain(spool);
    ASSERT_EQ(kept.size(), stats.pending);
    for (size_t k = 0; k < kept.size(); ++k) {
        ASSERT_EQ(kept[k], static_cast<int>(stats.dropped + k));
    }
}

// One table over the transports: rsyslog parses every message as RFC 5424
// with the event as MSG; a datagram (UDP, unix) over the limit arrives cut,
// marked and counted, the TCP one whole.
TEST(SyslogSink, RsyslogReceivesEveryEventOverUdpTcpAndAUnixSocket)
{
    TempDir dir("syslog");
    RsyslogServer rsyslog(dir);
    ASSERT_TRUE(rsyslog.ready) << "rsyslogd did not start (apt-get install rsyslog)";
    struct Case {
        std::string target;
        bool cut;
    };
    const Case cases[] = {{"udp://127.0.0.1:" + std::to_string(rsyslog.udpPort), true},
                          {"tcp://127.0.0.1:" + std::to_string(rsyslog.tcpPort), false},
                          {"unix:" + rsyslog.socket, true}};
    const int kEvents = 20;
    const size_t kBig = 6000;
    size_t expected = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.target);
        Report::SyslogSinkOptions options;
        options.target = c.target;
        options.datagramMaxBytes = 2048;
        Report::SyslogSink sink(options, &Poco::Logger::get("report_module"));
        sink.Start();
        for (int i = 0; i < kEvents; ++i) {
            sink.Submit(Event(i, i == kEvents - 1 ? kBig : 40));
        }
        expected += kEvents;
        ASSERT_TRUE(WaitFor([&] { return rsyslog.Lines().size() == expected; }, 10000))
            << rsyslog.Lines().size();
        const std::vector<std::string> lines = rsyslog.Lines();
        for (int i = 0; i < kEvents; ++i) {
            const std::string& line = lines[expected - kEvents + static_cast<size_t>(i)];
            ASSERT_EQ(line.compare(0, 27, "132|ardent-agent|webshell|{"), 0) << line;  // local0.warning
            const std::string msg = line.substr(26);
            if (i == kEvents - 1 && c.cut) {
                EXPECT_LE(msg.size(), 2048u);
                EXPECT_NE(msg.find("[truncated from "), std::string::npos) << msg;
            } else {
                EXPECT_EQ(ParseJson(msg)["i"].asInt(), i);
                EXPECT_EQ(ParseJson(msg)["pad"].asString().size(), i == kEvents - 1 ? kBig : 40u);
            }
        }
        sink.Stop();
        const Json::Value status = Framework::StatusBoard::Get(Report::SyslogSink::kStatusKey);
        EXPECT_EQ(status["sent"].asInt(), kEvents);
        EXPECT_EQ(status["truncated"].asInt(), c.cut ? 1 : 0);
    }
}

// A receiver that answers 500, never answers, or closes mid-batch: each is
// one outage, logged once, with the health reason raised while it lasts;
// every event arrives once it is back, in order. (A receiver that is down is
// the end-to-end delivery test's.) A spool that cannot be written is said
// once and nothing crashes.
TEST(HttpSink, RetriesEveryFaultUntilAcceptedAndLosesNothing)
{
    TempDir dir("http-sink");
    LoopbackHttpServer server;
    TestSupport::LogCapture log("report_module", Poco::Message::PRIO_WARNING);
    Report::HttpSinkOptions options;
    options.url = server.Url("/ingest");
    options.header = "Authorization: Splunk t0ken";
    options.batchEvents = 4;
    options.batchMs = 20;
    options.timeoutS = 1;
    options.retryMaxMs = 200;
    options.spool.dir = dir.Join("spool");
    Report::HttpSink sink(options, &Poco::Logger::get("report_module"));
    sink.Start();

    using Ingest = LoopbackHttpServer::Ingest;
    struct Fault {
        Ingest mode;
        std::string reason;
    };
    const Fault faults[] = {{Ingest::Fail500, "HTTP 500"}, {Ingest::Hang, "Timeout"}, {Ingest::CloseMidway, ""}};
    int sent = 0;
    for (const Fault& f : faults) {
        SCOPED_TRACE(f.reason);
        server.SetIngest(f.mode);
        for (int i = 0; i < 10; ++i) {
            sink.Submit(Event(sent++));
        }
        ASSERT_TRUE(WaitFor([&] { return !HealthReason("report.http").empty(); }, 10000));
        EXPECT_NE(HealthReason("report.http").find(f.reason), std::string::npos) << HealthReason("report.http");
        EXPECT_EQ(Framework::Health::Verdict(), "degraded");
        server.SetIngest(Ingest::Accept);
        ASSERT_TRUE(WaitFor([&] { return server.Ingested().size() == static_cast<size_t>(sent); }, 10000))
            << server.Ingested().size();
        ASSERT_TRUE(WaitFor([&] { return HealthReason("report.http").empty(); }));
    }
    const std::vector<std::string> got = server.Ingested();
    for (int i = 0; i < sent; ++i) {
        ASSERT_EQ(ParseJson(got[static_cast<size_t>(i)])["i"].asInt(), i);
    }
    EXPECT_EQ(server.Authorization(), "Splunk t0ken");
    EXPECT_EQ(log.Count("cannot deliver events"), 3u) << log.Dump();

    // The spool's directory gone and a file in its place: like a full disk,
    // the append fails; said once, raised, and over when it can write again.
    ASSERT_EQ(0, TestSupport::RunCommand("rm -rf " + options.spool.dir + " && touch " + options.spool.dir));
    for (int i = 0; i < 3; ++i) {
        sink.Submit(Event(sent + i));
    }
    EXPECT_EQ(log.Count("could not be kept for " + options.url), 1u) << log.Dump();
    EXPECT_NE(HealthReason("report.http.spool").find(options.spool.dir), std::string::npos);
    ASSERT_EQ(0, TestSupport::RunCommand("rm " + options.spool.dir + " && mkdir " + options.spool.dir));
    sink.Submit(Event(sent));
    EXPECT_TRUE(HealthReason("report.http.spool").empty());
    ASSERT_TRUE(WaitFor([&] { return server.Ingested().size() == static_cast<size_t>(sent) + 1; }, 10000));
    sink.Stop();
    const Json::Value status = Framework::StatusBoard::Get(Report::HttpSink::kStatusKey);
    EXPECT_EQ(status["sent"].asInt(), sent + 1);
    EXPECT_EQ(status["spool_errors"].asInt(), 3);
    EXPECT_EQ(status["pending"].asInt(), 0);
    EXPECT_GE(status["failed"].asInt(), 3);
}

// The receiver's certificate is checked unless switched off: a self-signed
// one gets nothing, until it is named as the CA or checks are off.
TEST(HttpSink, SendsOnlyToAReceiverWhoseCertificateIsTrusted)
{
    TempDir dir("http-tls");
    const std::string key = dir.Join("key.pem"), cert = dir.Join("cert.pem");
    ASSERT_EQ(0, TestSupport::RunCommand("openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost "
                                         "-addext subjectAltName=DNS:localhost -keyout " + key + " -out " + cert +
                                         " 2>/dev/null"));
    LoopbackHttpServer server(new Poco::Net::Context(Poco::Net::Context::TLS_SERVER_USE, key, cert, ""));
    struct Case {
        std::string caFile;
        bool verify;
        bool delivered;
    } const cases[] = {{"", true, false}, {cert, true, true}, {"", false, true}};
    size_t expected = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.caFile + (c.verify ? " verify" : " no verify"));
        Report::HttpSinkOptions options;
        options.url = server.Url("/ingest", "localhost");
        options.caFile = c.caFile;
        options.verify = c.verify;
        options.batchMs = 0;
        options.spool.dir = dir.Join("spool" + std::to_string(&c - cases));
        Report::HttpSink sink(options, &Poco::Logger::get("report_module"));
        sink.Start();
        sink.Submit(Event(0));
        expected += c.delivered ? 1 : 0;
        if (c.delivered) {
            EXPECT_TRUE(WaitFor([&] { return server.Ingested().size() == expected; }, 10000));
        } else {
            ASSERT_TRUE(WaitFor([&] { return !HealthReason("report.http").empty(); }, 10000));
            EXPECT_NE(HealthReason("report.http").find("certificate"), std::string::npos)
                << HealthReason("report.http");
            EXPECT_EQ(server.Ingested().size(), expected);
        }
        sink.Stop();
    }
}

#pragma once
// Events to an HTTP(S) receiver as batches of JSON lines (POST, body
// application/x-ndjson): the shape Elasticsearch's bulk API, Splunk's HEC and
// the HTTP sources of Vector or Fluent Bit take, with a header or two.
//
// Every event goes to the spool first (Report::Spool under
// <install>/data/spool/http) and the delivery thread sends from there: a
// batch leaves when it has `batchEvents` events or `batchBytes` bytes, or
// when its first event has waited `batchMs`. It is acknowledged, and only
// then removed from the spool, on a 2xx answer; any other answer, a timeout
// or a connection closed mid-batch is retried, with backoff, from the same
// event. Delivery is at least once, in order; events a restart finds in the
// spool go first.
//
// Published as "report.http": {"url","sent","batches","failed","spooled",
// "pending","dropped","spool_bytes","spool_errors","healthy","last_error"};
// health key "report.http".

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include <Poco/Condition.h>
#include <Poco/Mutex.h>
#include <Poco/Net/Context.h>

#include "report/RemoteSink.h"
#include "report/Spool.h"
#include "sdk/Status.h"

namespace Report {

struct HttpSinkOptions {
    static constexpr size_t kDefaultBatchEvents = 500;
    static constexpr uint64_t kDefaultBatchBytes = 1024 * 1024;
    static constexpr int kDefaultBatchMs = 1000;
    static constexpr int kDefaultTimeoutS = 10;
    static constexpr int kDefaultRetryMaxMs = 60000;

    std::string url;       // http:// or https://; empty: no HTTP sink
    std::string header;    // "Name: value", sent with every batch (a token)
    std::string caFile;    // PEM file of the CAs to trust; empty: the system's
    bool verify = true;    // check the server's certificate and name
    size_t batchEvents = kDefaultBatchEvents;
    uint64_t batchBytes = kDefaultBatchBytes;
    int batchMs = kDefaultBatchMs;
    int timeoutS = kDefaultTimeoutS;     // connect, send, and wait for the answer
    int retryMaxMs = kDefaultRetryMaxMs;
    SpoolOptions spool;
};

class HttpSink : public RemoteSink {
public:
    static const char* const kStatusKey;  // "report.http", also the health key

    HttpSink(const HttpSinkOptions& options, Poco::Logger* logger);
    ~HttpSink() override;

    void Start() override;
    void Submit(const std::string& line) override;
    void Stop() override;

private:
    void Loop();
    // Waits until a batch is due or the sink stops; false on stop.
    bool WaitForBatch();
    SDK::Status Post(const std::string& body);
    void SetSocket(int fd);
    void Publish();
    void NoteDelivery(uint64_t events);  // 0: a failed attempt

    HttpSinkOptions m_options;
    Poco::Logger* m_logger;
    std::string m_badConfig;  // why nothing can be sent
    std::string m_headerName, m_headerValue;
    Poco::Net::Context::Ptr m_tls;
    Spool m_spool;
    bool m_spoolOpen = false;

    Poco::Mutex m_mutex;  // guards everything up to m_socketMutex
    Poco::Condition m_wake;
    bool m_stop = false;
    // When the oldest unsent event came (monotonic ms); 0: none, -1: a
    // backlog, due now.
    int64_t m_firstPendingMs = 0;
    std::string m_spoolError;      // the last append that failed, until one works
    uint64_t m_spoolErrors = 0;
    // What the delivery thread did, for Publish on either thread.
    struct Delivered {
        uint64_t sent = 0, batches = 0, failed = 0;
        bool healthy = true;
        std::string lastError;
    } m_delivered;
    uint64_t m_droppedLogged = 0;
    int64_t m_dropLogMs = 0;

    std::atomic<bool> m_stopping{false};
    Poco::FastMutex m_socketMutex;
    int m_socketFd = -1;  // the connection in progress, for Stop; guarded by m_socketMutex

    // Delivery thread only.
    Outage m_outage;
    // std::thread rather than Poco::Thread: its join is a pthread_join, so
    // nothing of the ended thread outlives Stop (Poco's join only waits for
    // an event the thread still holds).
    std::thread m_thread;
};

}  // namespace Report

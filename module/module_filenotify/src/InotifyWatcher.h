#pragma once
// The kernel side of the file-notify service, behind a small interface so the
// service logic can be driven by a wrapper (for example one that injects an
// inotify queue overflow). Everything but Interrupt is called on the task
// thread only.

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "sdk/Posix.h"

namespace FileNotify {

struct WatchEvent {
    int wd = -1;  // -1 for IN_Q_OVERFLOW
    uint32_t mask = 0;
    uint32_t cookie = 0;
    std::string name;  // entry name inside the watched directory, may be empty
};

class Watcher {
public:
    virtual ~Watcher() = default;

    // false when the kernel instance could not be created; the reason is in
    // Error().
    virtual bool IsOpen() const = 0;
    virtual const std::string& Error() const = 0;

    // A watch descriptor (>= 0), or -errno.
    virtual int AddWatch(const std::string& path, uint32_t mask) = 0;
    virtual void RemoveWatch(int wd) = 0;

    // Waits up to timeoutMs (0: do not wait) for events or an Interrupt, then
    // appends up to maxEvents events to `out`. Returns how many were
    // appended, or -errno. `drained` is set when the kernel queue was seen
    // empty after the read.
    virtual int ReadEvents(int timeoutMs, size_t maxEvents, std::vector<WatchEvent>& out,
                           bool& drained) = 0;

    // Cuts a wait of ReadEvents short; safe from any thread.
    virtual void Interrupt() = 0;

    // The path a live watch descriptor was added under ("" when unknown).
    virtual std::string PathOf(int wd) const = 0;
    virtual size_t WatchCount() const = 0;
};

class InotifyWatcher : public Watcher {
public:
    InotifyWatcher();
    ~InotifyWatcher() override;
    InotifyWatcher(const InotifyWatcher&) = delete;
    InotifyWatcher& operator=(const InotifyWatcher&) = delete;

    bool IsOpen() const override { return m_fd.Valid() && m_wakeFd.Valid(); }
    const std::string& Error() const override { return m_error; }
    int AddWatch(const std::string& path, uint32_t mask) override;
    void RemoveWatch(int wd) override;
    int ReadEvents(int timeoutMs, size_t maxEvents, std::vector<WatchEvent>& out,
                   bool& drained) override;
    void Interrupt() override;
    std::string PathOf(int wd) const override;
    size_t WatchCount() const override { return m_paths.size(); }

private:
    // Decodes what is left in m_buffer[m_bufferPos, m_bufferEnd).
    void Decode(size_t maxEvents, std::vector<WatchEvent>& out, int& added);

    SDK::UniqueFd m_fd;
    SDK::UniqueFd m_wakeFd;  // eventfd written by Interrupt
    std::string m_error;
    std::unordered_map<int, std::string> m_paths;  // wd -> path it was added under
    std::vector<char> m_buffer;
    size_t m_bufferPos = 0;
    size_t m_bufferEnd = 0;
};

}  // namespace FileNotify

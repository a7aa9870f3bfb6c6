#include "InotifyWatcher.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstring>

#include "sdk/Posix.h"

namespace FileNotify {

namespace {

// Large enough for a few thousand events per read.
constexpr size_t kBufferSize = 256 * 1024;
constexpr size_t kLargestEvent = sizeof(struct inotify_event) + NAME_MAX + 1;

}  // namespace

InotifyWatcher::InotifyWatcher() : m_buffer(kBufferSize)
{
    m_fd.Reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!m_fd.Valid()) {
        m_error = "inotify_init1: " + SDK::ErrnoText(errno);
        return;
    }
    m_wakeFd.Reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!m_wakeFd.Valid()) {
        m_error = "eventfd: " + SDK::ErrnoText(errno);
        m_fd.Reset();
    }
}

// Closing the inotify descriptor drops every watch.
InotifyWatcher::~InotifyWatcher() = default;

int InotifyWatcher::AddWatch(const std::string& path, uint32_t mask)
{
    if (!m_fd.Valid()) {
        return -EBADF;
    }
    int wd = inotify_add_watch(m_fd.Get(), path.c_str(), mask);
    if (wd < 0) {
        return -errno;
    }
    // The same inode reached again keeps its descriptor and first path.
    m_paths.emplace(wd, path);
    return wd;
}

void InotifyWatcher::RemoveWatch(int wd)
{
    if (!m_fd.Valid()) {
        return;
    }
    // EINVAL: the kernel dropped it already (directory deleted); the
    // IN_IGNORED that said so may still be queued.
    (void)inotify_rm_watch(m_fd.Get(), wd);
    m_paths.erase(wd);
}

void InotifyWatcher::Interrupt()
{
    if (m_wakeFd.Valid()) {
        uint64_t one = 1;
        // A full counter still wakes the poll; nothing to do on failure.
        ssize_t n = write(m_wakeFd.Get(), &one, sizeof(one));
        (void)n;
    }
}

std::string InotifyWatcher::PathOf(int wd) const
{
    auto it = m_paths.find(wd);
    return it == m_paths.end() ? std::string() : it->second;
}

void InotifyWatcher::Decode(size_t maxEvents, std::vector<WatchEvent>& out, int& added)
{
    while (m_bufferPos + sizeof(struct inotify_event) <= m_bufferEnd &&
           static_cast<size_t>(added) < maxEvents) {
        struct inotify_event header;
        std::memcpy(&header, m_buffer.data() + m_bufferPos, sizeof(header));
        size_t total = sizeof(header) + header.len;
        if (m_bufferPos + total > m_bufferEnd) {
            break;  // cannot happen with whole-event reads; stop rather than overrun
        }
        WatchEvent ev;
        ev.wd = header.wd;
        ev.mask = header.mask;
        ev.cookie = header.cookie;
        if (header.len > 0) {
            const char* name = m_buffer.data() + m_bufferPos + sizeof(header);
            ev.name.assign(name, strnlen(name, header.len));
        }
        if ((ev.mask & IN_IGNORED) != 0) {
            m_paths.erase(ev.wd);
        }
        out.push_back(std::move(ev));
        ++added;
        m_bufferPos += total;
    }
    if (m_bufferPos >= m_bufferEnd) {
        m_bufferPos = m_bufferEnd = 0;
    }
}

int InotifyWatcher::ReadEvents(int timeoutMs, size_t maxEvents, std::vector<WatchEvent>& out,
                               bool& drained)
{
    drained = false;
    if (!m_fd.Valid()) {
        return -EBADF;
    }
    int added = 0;
    if (m_bufferPos < m_bufferEnd) {
        Decode(maxEvents, out, added);
        if (m_bufferPos < m_bufferEnd || static_cast<size_t>(added) >= maxEvents) {
            return added;
        }
        timeoutMs = 0;  // what is buffered is handled; only take what is ready now
    }

    struct pollfd fds[2];
    fds[0].fd = m_fd.Get();
    fds[0].events = POLLIN;
    fds[0].revents = 0;
    fds[1].fd = m_wakeFd.Get();
    fds[1].events = POLLIN;
    fds[1].revents = 0;
    int ready = poll(fds, 2, timeoutMs);
    if (ready < 0) {
        return errno == EINTR ? added : -errno;
    }
    if ((fds[1].revents & POLLIN) != 0) {
        uint64_t count = 0;
        ssize_t n = read(m_wakeFd.Get(), &count, sizeof(count));
        (void)n;
    }
    if ((fds[0].revents & POLLIN) == 0) {
        drained = (ready == 0);
        return added;
    }

    ssize_t n = read(m_fd.Get(), m_buffer.data(), m_buffer.size());
    if (n < 0) {
        if (errno == EAGAIN || errno == EINTR) {
            drained = (errno == EAGAIN);
            return added;
        }
        return -errno;
    }
    m_bufferPos = 0;
    m_bufferEnd = static_cast<size_t>(n);
    // The kernel copies events until its queue is empty or the next one does
    // not fit: room left for the largest event means the queue was empty.
    drained = static_cast<size_t>(n) + kLargestEvent <= m_buffer.size();
    Decode(maxEvents, out, added);
    if (m_bufferPos < m_bufferEnd) {
        drained = false;
    }
    return added;
}

}  // namespace FileNotify

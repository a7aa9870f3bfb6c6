#pragma once
// Runs a call that must not block on a FIFO. If it has not returned by the
// deadline, a writer is attached to the FIFO so the call (and the test) can
// end, and false is returned.

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <future>
#include <string>

inline bool ReturnsWithoutWaitingOn(const std::string& fifo, const std::function<void()>& call,
                                    int timeoutMs = 5000)
{
    auto done = std::async(std::launch::async, call);
    if (done.wait_for(std::chrono::milliseconds(timeoutMs)) == std::future_status::ready) {
        done.get();
        return true;
    }
    // Opening and closing a writer releases a reader blocked in open (it then
    // sees end of file).
    const int writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    if (writer >= 0) {
        close(writer);
    }
    done.wait();
    return false;
}

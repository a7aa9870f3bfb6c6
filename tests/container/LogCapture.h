#pragma once
// Records what the container module logs, for tests that check an operator
// gets told about a broken file.

#include <mutex>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

namespace ContainerTest {

class CaptureChannel : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(msg.getText());
    }
    std::vector<std::string> Lines()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    // Lines that contain every one of `parts`.
    size_t Count(const std::vector<std::string>& parts)
    {
        size_t n = 0;
        for (const auto& line : Lines()) {
            bool all = true;
            for (const auto& p : parts) {
                all = all && line.find(p) != std::string::npos;
            }
            n += all ? 1 : 0;
        }
        return n;
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

// Sends the "container_module" logger to a capture channel while alive.
class LogCapture {
public:
    LogCapture() : m_logger(Poco::Logger::get("container_module")), m_channel(new CaptureChannel)
    {
        m_oldChannel = m_logger.getChannel();
        m_oldLevel = m_logger.getLevel();
        m_logger.setChannel(m_channel);
        m_logger.setLevel(Poco::Message::PRIO_DEBUG);
    }
    ~LogCapture()
    {
        m_logger.setChannel(m_oldChannel);
        m_logger.setLevel(m_oldLevel);
    }
    CaptureChannel& Channel() { return *m_channel; }

private:
    Poco::Logger& m_logger;
    Poco::AutoPtr<CaptureChannel> m_channel;
    Poco::Channel::Ptr m_oldChannel;
    int m_oldLevel;
};

}  // namespace ContainerTest

#pragma once
// Records what the container module logs, for tests that check an operator
// gets told about a broken file.

#include <mutex>
#include <string>
#include <vector>

#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

namespace ContainerTest {

// Sends the "container_module" logger here while alive.
class LogCapture : public Poco::Channel {
public:
    LogCapture() : m_logger(Poco::Logger::get("container_module"))
    {
        m_old = m_logger.getChannel();
        m_oldLevel = m_logger.getLevel();
        m_logger.setChannel(Poco::Channel::Ptr(this, true));  // not owned: it lives on the stack
        m_logger.setLevel(Poco::Message::PRIO_INFORMATION);
    }
    ~LogCapture() override
    {
        m_logger.setChannel(m_old);
        m_logger.setLevel(m_oldLevel);
    }
    void log(const Poco::Message& msg) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(msg.getText());
    }
    // Lines that contain every one of `parts`.
    size_t Count(const std::vector<std::string>& parts)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        size_t n = 0;
        for (const auto& line : m_lines) {
            bool all = true;
            for (const auto& p : parts) {
                all = all && line.find(p) != std::string::npos;
            }
            n += all ? 1 : 0;
        }
        return n;
    }

private:
    Poco::Logger& m_logger;
    Poco::Channel::Ptr m_old;
    int m_oldLevel;
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

}  // namespace ContainerTest

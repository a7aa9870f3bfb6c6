#pragma once
// Shared by the report tests: strict JSON parsing of a line, and a logger
// whose records a test can read.

#include <sys/stat.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <gtest/gtest.h>
#include <json/json.h>

namespace ReportTest {

inline Json::Value Parse(const std::string& line)
{
    Json::CharReaderBuilder builder;
    builder["strictRoot"] = true;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    EXPECT_TRUE(reader->parse(line.data(), line.data() + line.size(), &value, &errors))
        << "not JSON: " << line << " (" << errors << ")";
    return value;
}

inline mode_t ModeOf(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

// Keeps what an operator reads (notices, warnings, errors) of one logger
// while it lives.
class LogCapture : public Poco::Channel {
public:
    explicit LogCapture(const std::string& logger) : m_logger(Poco::Logger::get(logger))
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
        if (msg.getPriority() <= Poco::Message::PRIO_NOTICE) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_texts.push_back(msg.getText());
        }
    }
    // The records that contain `part`.
    std::vector<std::string> Texts(const std::string& part = "")
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::string> out;
        for (const auto& t : m_texts) {
            if (t.find(part) != std::string::npos) {
                out.push_back(t);
            }
        }
        return out;
    }

private:
    Poco::Logger& m_logger;
    Poco::Channel::Ptr m_old;
    int m_oldLevel;
    std::mutex m_mutex;
    std::vector<std::string> m_texts;
};

}  // namespace ReportTest

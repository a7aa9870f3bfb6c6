#pragma once
// One log record: check the level first, format with Poco::format, and carry
// the source file and line. A standard exception while building or writing
// the record is dropped: logging never takes the caller down.

#include <exception>
#include <string>

#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

namespace SDK {

template <typename... Args>
inline void LogRecord(Poco::Logger* logger, Poco::Message::Priority prio, const char* file,
                      int line, const std::string& fmt, Args&&... args)
{
    if (logger == nullptr || !logger->is(prio)) {
        return;
    }
    try {
        std::string text;
        if constexpr (sizeof...(Args) == 0) {
            text = fmt;
        } else {
            text = Poco::format(fmt, std::forward<Args>(args)...);
        }
        Poco::Message msg(logger->name(), text, prio, file, line);
        logger->log(msg);
    } catch (const std::exception&) {
        // dropped on purpose
    }
}

}  // namespace SDK

#define SDK_LOG(logger, prio, file, ...) \
    ::SDK::LogRecord((logger), (prio), (file), __LINE__, __VA_ARGS__)

#pragma once
// One log record: check the level first, format with Poco::format, and carry
// the source file and line. A standard exception while building or writing
// the record is dropped: logging never takes the caller down.
//
// Every text value handed to SDK_LOG (std::string or C string) is made safe
// for a one-line log before it is formatted: a file named "x\nline.php" or
// one holding terminal escapes must not forge or split a line, and one huge
// path must not rotate the log away. The format text itself is ours and is
// kept as written. C strings reach Poco::format as std::string, so "%s"
// takes them too.

#include <cstddef>
#include <exception>
#include <string>
#include <type_traits>
#include <utility>

#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

namespace SDK {

// Longest logged value as written to the log, in bytes; what does not fit
// is named by "...(N bytes cut)".
constexpr std::size_t kMaxLogValueBytes = 4096;
// Longest record text the log channel writes (the formatter's backstop for
// records made without SDK_LOG).
constexpr std::size_t kMaxLogRecordBytes = 16384;

// `text` for a one-line log: control characters (C0, DEL and the C1 range)
// and bytes that are not well-formed UTF-8 become "\xNN"; everything else,
// backslashes included, stays, so escaping a safe text changes nothing. The
// result keeps at most `maxBytes` bytes (cut between characters) and then
// says how many bytes of `text` it left out: "...(N bytes cut)".
std::string LogSafe(const std::string& text, std::size_t maxBytes = kMaxLogValueBytes);

namespace Detail {

template <typename T>
decltype(auto) LogArg(T&& value)
{
    using Plain = std::decay_t<T>;
    if constexpr (std::is_same_v<Plain, std::string>) {
        return LogSafe(value);
    } else if constexpr (std::is_array_v<std::remove_reference_t<T>>) {
        return LogSafe(std::string(value));
    } else if constexpr (std::is_same_v<Plain, const char*> || std::is_same_v<Plain, char*>) {
        return LogSafe(value != nullptr ? std::string(value) : std::string());
    } else {
        return std::forward<T>(value);
    }
}

}  // namespace Detail

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
            text = Poco::format(fmt, Detail::LogArg(std::forward<Args>(args))...);
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

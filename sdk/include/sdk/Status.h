#pragma once
// The one reason type inside the platform: ok, or an error with a text an
// operator can read. Module interfaces keep their bool/int results; code
// that needs to say why (a read, a download, a parse) returns a Status.

#include <string>
#include <utility>

namespace SDK {

class Status {
public:
    Status() = default;  // ok
    static Status Ok() { return Status(); }
    static Status Error(std::string message) { return Status(std::move(message), true); }

    bool ok() const { return !m_failed; }
    explicit operator bool() const { return ok(); }
    // Empty when ok.
    const std::string& message() const { return m_message; }

    // "what: reason", so a caller can add the object it was working on.
    Status Prefixed(const std::string& what) const
    {
        return ok() ? *this : Error(what + ": " + m_message);
    }

private:
    Status(std::string message, bool failed) : m_message(std::move(message)), m_failed(failed) {}
    std::string m_message;
    bool m_failed = false;
};

}  // namespace SDK

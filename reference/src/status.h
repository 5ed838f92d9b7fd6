#ifndef REFERENCE_SRC_STATUS_H
#define REFERENCE_SRC_STATUS_H

// The result of an operation of the server, the logger service or the tools
// that can fail: success, or a failure with the message that says why. The
// operation only builds the message; the caller that can act on the failure
// reports it, once. (The library's entry points keep their fixed results and
// its error list; this type is for code around them.)

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

namespace ReplayPlatform {

class [[nodiscard]] Status {
  public:
    static Status Ok() { return Status(); }
    static Status Failure(std::string message) { return Status(std::move(message)); }
    // "context: <text of errorNumber>". Pass errno saved right after the
    // failed call: anything in between may change it.
    static Status SystemFailure(const std::string& context, int errorNumber) {
        return Status(context + ": " + std::strerror(errorNumber));
    }

    bool IsOk() const { return !m_failed; }
    const std::string& Message() const { return m_message; }

    // Puts `context` in front of a failure's message; success stays success.
    Status& Within(const std::string& context) {
        if (m_failed) {
            m_message = context + ": " + m_message;
        }
        return *this;
    }

  private:
    Status() = default;
    explicit Status(std::string message) : m_failed(true), m_message(std::move(message)) {}

    bool m_failed = false;
    std::string m_message;
};

}  // namespace ReplayPlatform

#endif

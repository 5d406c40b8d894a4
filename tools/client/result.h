// The result type of the client library: a value, or an error in words. Returned by everything in
// tools/client that can fail; no exception crosses the library's interface.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>

namespace shdclient {

enum class ErrorCode {
    kInvalidArgument,  // the caller's own argument; nothing was sent
    kUnavailable,      // nobody can be reached behind the socket
    kDisconnected,     // the daemon closed the connection
    kTimeout,          // no answer within the caller's limit; the request may still be executed
    kRefused,          // the hub or the MCU answered, and said no
    kProtocol,         // the daemon sent something that this library does not understand
    kSystem,           // a system call failed
};

struct Error {
    ErrorCode code;
    std::string message;  // one line without a full stop, names the file, socket or field
    int32_t status = 0;   // kRefused: the MCU's status 1..255, or -1
};

// Holds a T or an Error. value() and error() may be called only when ok() says that they exist.
template <typename T>
class [[nodiscard]] Result {
  public:
    Result(T value) : content_(std::move(value)) {}
    Result(Error error) : content_(std::move(error)) {}

    [[nodiscard]] bool ok() const { return std::holds_alternative<T>(content_); }
    explicit operator bool() const { return ok(); }

    [[nodiscard]] T& value() { return *std::get_if<T>(&content_); }
    [[nodiscard]] const T& value() const { return *std::get_if<T>(&content_); }
    [[nodiscard]] const Error& error() const { return *std::get_if<Error>(&content_); }

    T& operator*() { return value(); }
    const T& operator*() const { return value(); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }

  private:
    std::variant<T, Error> content_;
};

// The result of an operation that yields nothing but its success.
using Status = Result<std::monostate>;

inline Status Success() {
    return std::monostate{};
}

}  // namespace shdclient

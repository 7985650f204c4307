#pragma once
// The one way qorchat's own code fails: a Status says what kind of failure it was and carries one
// line for the user. Result<T> is a value or the Status that kept it from being made.
//
// Exceptions stay inside the code of libraries that throw (CLI11, the standard library); they are
// turned into a Status where they are caught.

#include <string>
#include <utility>
#include <variant>

namespace qorchat {

class [[nodiscard]] Status {
 public:
  enum class Kind {
    kOk,
    kInvalidInput,  // what the user typed or configured cannot be used
    kIoError,       // a file or folder of the machine
    kDatabase,      // the user's database refused or failed
    kRefused,       // qorchat's own guard would not run it
    kService,       // the model service answered with a failure
    kUnreachable,   // nothing answered at the service's address
    kTimedOut,      // a time limit passed
    kCancelled,     // the user pressed Ctrl-C
  };

  Status() = default;
  static Status ok() { return {}; }
  static Status invalidInput(std::string message) {
    return {Kind::kInvalidInput, std::move(message)};
  }
  static Status ioError(std::string message) { return {Kind::kIoError, std::move(message)}; }
  static Status database(std::string message) { return {Kind::kDatabase, std::move(message)}; }
  static Status refused(std::string message) { return {Kind::kRefused, std::move(message)}; }
  static Status service(std::string message) { return {Kind::kService, std::move(message)}; }
  static Status unreachable(std::string message) {
    return {Kind::kUnreachable, std::move(message)};
  }
  static Status timedOut(std::string message) { return {Kind::kTimedOut, std::move(message)}; }
  static Status cancelled(std::string message) { return {Kind::kCancelled, std::move(message)}; }

  bool isOk() const { return kind_ == Kind::kOk; }
  explicit operator bool() const { return isOk(); }
  Kind kind() const { return kind_; }
  // One line for the user; empty for ok().
  const std::string& message() const { return message_; }

 private:
  Status(Kind kind, std::string message) : kind_(kind), message_(std::move(message)) {}

  Kind kind_ = Kind::kOk;
  std::string message_;
};

template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : state_(std::move(value)) {}           // NOLINT(google-explicit-constructor)
  Result(Status failure) : state_(std::move(failure)) {}  // NOLINT(google-explicit-constructor)

  bool isOk() const { return std::holds_alternative<T>(state_); }
  explicit operator bool() const { return isOk(); }
  // The failure; ok() when there is a value.
  Status status() const { return isOk() ? Status::ok() : std::get<Status>(state_); }
  T& value() { return std::get<T>(state_); }
  const T& value() const { return std::get<T>(state_); }
  T& operator*() { return value(); }
  const T& operator*() const { return value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }

 private:
  std::variant<T, Status> state_;
};

}  // namespace qorchat

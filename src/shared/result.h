// A value or the human-readable description of why there is none. Failures
// travel as values between modules; nothing is thrown across them.
#pragma once

#include <string>
#include <utility>
#include <variant>

namespace palvin {

struct Error {
  std::string description;
};

template <class T>
class Result {
 public:
  Result(T value) : state_(std::move(value)) {}      // NOLINT(google-explicit-constructor)
  Result(Error error) : state_(std::move(error)) {}  // NOLINT(google-explicit-constructor)

  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }

  T& value() & { return std::get<0>(state_); }
  const T& value() const& { return std::get<0>(state_); }
  T&& value() && { return std::get<0>(std::move(state_)); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }

  const std::string& error() const { return std::get<1>(state_).description; }

 private:
  std::variant<T, Error> state_;
};

// The outcome of an operation that yields nothing on success.
using Status = Result<std::monostate>;
inline Status success() {
  return std::monostate{};
}

}  // namespace palvin

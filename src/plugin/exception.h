// The namespace's base exception: a printf-style constructor whose formatted message
// the exception owns (copies own their own text).
#pragma once

#include <exception>
#include <string>

namespace bootstrand {

class Exception : public std::exception {
 public:
  explicit Exception(const char* format, ...) __attribute__((format(printf, 2, 3)));
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

}  // namespace bootstrand

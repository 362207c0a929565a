// Sets or clears an environment variable for a scope.
#pragma once

#include <stdlib.h>

#include <optional>
#include <string>

namespace qixx::testing {

class ScopedVariable {
 public:
  /// A null value clears the variable.
  ScopedVariable(std::string name, const char* value) : name_(std::move(name)) {
    if (const char* old = ::getenv(name_.c_str()); old != nullptr) old_ = old;
    Put(value);
  }
  ~ScopedVariable() { Put(old_ ? old_->c_str() : nullptr); }
  ScopedVariable(const ScopedVariable&) = delete;

 private:
  void Put(const char* value) const {
    static_cast<void>(value == nullptr ? ::unsetenv(name_.c_str())
                                       : ::setenv(name_.c_str(), value, 1));
  }
  const std::string name_;
  std::optional<std::string> old_;
};

}  // namespace qixx::testing

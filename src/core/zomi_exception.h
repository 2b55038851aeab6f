// The one exception type of the object layer.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

#include "core/backtrace.h"

namespace nodelink {

class ZomiExceptionImpl : public std::runtime_error {
 public:
  ZomiExceptionImpl(std::uint32_t code, std::string message);
  std::uint32_t code() const { return code_; }
  const char* what() const noexcept override { return full_text_.c_str(); }

 private:
  std::uint32_t code_;
  Backtrace backtrace_;
  std::string full_text_;
};

// Carries an error code (core/error_code.h), a message and the call stack of the throw.
class ZomiException : public std::exception {
 public:
  ZomiException(std::uint32_t code, std::string message);

  // The code is kGenericError.
  explicit ZomiException(std::string message);

  // The message is ErrorCodeToText(code).
  explicit ZomiException(std::uint32_t code);

  // Wraps `other`: its what() becomes the message, so the text nests.
  ZomiException(const ZomiException& other);
  ZomiException& operator=(const ZomiException&) = delete;
  ~ZomiException() override;

  std::uint32_t code() const { return impl_->code(); }

  // "MESSAGE [code=CODE]\n", the stack's lines each with a line end, and one more line end.
  const char* what() const noexcept override { return impl_->what(); }

 private:
  std::unique_ptr<ZomiExceptionImpl> impl_;
};

}  // namespace nodelink

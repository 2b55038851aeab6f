#include "core/zomi_exception.h"

#include "core/error_code.h"

namespace nodelink {
namespace {

constexpr std::size_t kBacktraceDepth = 16;

}  // namespace

ZomiExceptionImpl::ZomiExceptionImpl(std::uint32_t code, const std::string& message)
    : std::runtime_error(message + " [code=" + std::to_string(static_cast<std::int32_t>(code)) +
                         "]"),
      code_(code),
      backtrace_(kBacktraceDepth),
      full_text_(std::string(std::runtime_error::what()) + "\n") {
  for (const std::string& line : backtrace_.lines()) {
    full_text_ += line + "\n";
  }
  full_text_ += "\n";
}

ZomiException::ZomiException(std::uint32_t code, const std::string& message)
    : impl_(std::make_unique<ZomiExceptionImpl>(code, message)) {}

ZomiException::ZomiException(const std::string& message) : ZomiException(kGenericError, message) {}

ZomiException::ZomiException(std::uint32_t code) : ZomiException(code, ErrorCodeToText(code)) {}

ZomiException::ZomiException(const ZomiException& other)
    : std::exception(other),
      impl_(std::make_unique<ZomiExceptionImpl>(other.code(), other.what())) {}

ZomiException::~ZomiException() = default;

}  // namespace nodelink

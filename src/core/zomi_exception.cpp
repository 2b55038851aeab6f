#include "core/zomi_exception.h"

#include <string_view>
#include <utility>
#include <vector>

#include "core/error_code.h"

namespace nodelink {
namespace {

constexpr std::size_t kBacktraceDepth = 16;

// A message may quote a whole answer: no copy more than there must be.
std::string FullText(std::string_view message, const std::vector<std::string>& lines) {
  std::size_t size = message.size() + 2;
  for (const std::string& line : lines) size += line.size() + 1;
  std::string text;
  text.reserve(size);
  text.append(message).append("\n");
  for (const std::string& line : lines) text.append(line).append("\n");
  return text.append("\n");
}

}  // namespace

ZomiExceptionImpl::ZomiExceptionImpl(std::uint32_t code, std::string message)
    : std::runtime_error(std::move(message) +
                         " [code=" + std::to_string(static_cast<std::int32_t>(code)) + "]"),
      code_(code),
      backtrace_(kBacktraceDepth),
      full_text_(FullText(std::runtime_error::what(), backtrace_.lines())) {}

ZomiException::ZomiException(std::uint32_t code, std::string message)
    : impl_(std::make_unique<ZomiExceptionImpl>(code, std::move(message))) {}

ZomiException::ZomiException(std::string message)
    : ZomiException(kGenericError, std::move(message)) {}

ZomiException::ZomiException(std::uint32_t code) : ZomiException(code, ErrorCodeToText(code)) {}

ZomiException::ZomiException(const ZomiException& other)
    : std::exception(other),
      impl_(std::make_unique<ZomiExceptionImpl>(other.code(), other.what())) {}

ZomiException::~ZomiException() = default;

}  // namespace nodelink

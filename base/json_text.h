// A JSON value as text.
#pragma once

#include <json/value.h>
#include <json/writer.h>

#include <ios>
#include <memory>
#include <sstream>
#include <string>

namespace base {

// In one line, or with `indentation` for each level; without a line break at the end. Throws
// std::bad_alloc when there is no memory for it: by itself a stream would swallow that, and what it
// holds, cut off anywhere, would pass for the whole text.
inline std::string JsonText(const Json::Value& value, const char* indentation = "") {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = indentation;
  builder["commentStyle"] = "None";
  builder["emitUTF8"] = true;
  std::ostringstream text;
  text.exceptions(std::ios::badbit);
  const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
  writer->write(value, &text);
  return text.str();
}

}  // namespace base

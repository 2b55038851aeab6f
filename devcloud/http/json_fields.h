// Reads the members of a JSON object that somebody sent, strictly: wrong types and members that
// nobody knows are errors, not silence.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace devcloud {

// Input that cannot be accepted; what() tells the sender why.
class BadInput : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Every reader leaves its target alone when the member is absent, and throws BadInput when it has
// another type.
class JsonFields {
 public:
  // Throws BadInput unless the text is a JSON object.
  explicit JsonFields(const std::string& text);

  void Text(const std::string& name, std::string& target);
  void OptionalText(const std::string& name, std::optional<std::string>& target);  // null: none
  void Flag(const std::string& name, bool& target);
  void Number(const std::string& name, std::int64_t lowest, std::int64_t highest,
              std::int64_t& target);
  void Flags(const std::string& name, std::map<std::string, bool>& target);
  void Texts(const std::string& name, std::vector<std::string>& target);
  // The member as it is, null when absent.
  [[nodiscard]] const Json::Value& Raw(const std::string& name);

  // Throws BadInput when the object holds a member that no reader asked for.
  void Finish() const;

 private:
  [[nodiscard]] const Json::Value* Find(const std::string& name);

  Json::Value object_;
  std::set<std::string> known_;
};

}  // namespace devcloud

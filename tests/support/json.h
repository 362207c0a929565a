// Reading JSON (RFC 8259) strictly, as flat pairs: {"a": [{"b": 1}]} is a.0.b=1.
#pragma once

#include <cstdlib>
#include <map>
#include <regex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "runtime/text.h"

namespace qixx::testing {

using JsonValues = std::map<std::string, std::string>;

/// The values by their paths, texts without quotes and escapes, and the length of each array as
/// "a.count". Throws for what is no JSON, or not of the forms that the program writes.
class JsonReader {
 public:
  static JsonValues Read(std::string_view text) {
    JsonReader reader(text);
    reader.Value("", reader.Token());
    reader.Need(reader.rest_ == "\n");
    return reader.values_;
  }

 private:
  explicit JsonReader(std::string_view text) : rest_(text) {}

  void Value(const std::string& path, std::string token) {
    const std::string end = token == "{" ? "}" : token == "[" ? "]" : "";
    if (end.empty())
      return Need(token.find_first_of("}],:") != 0 && values_.emplace(path, Plain(token)).second);
    std::size_t count = 0;
    for (token = Token(); token != end; token = Token(), ++count) {
      if (count != 0) Need(std::exchange(token, Token()) == ",");
      std::string name = std::to_string(count);
      if (end == "}") {
        Need(token.starts_with('"') && Token() == ":");
        name = Plain(std::exchange(token, Token()));
      }
      Value(path.empty() ? name : path + "." + name, token);
    }
    if (end == "]") values_[path + ".count"] = std::to_string(count);
  }
  /// A bracket, a separator, or a value with its quotes and escapes.
  std::string Token() {
    static const std::regex kToken(
        R"([ \n]*([{}\[\],:]|[0-9]+|true|false|null|"([^"\\\x00-\x1f]|\\["\\]|\\u[0-9a-f]{4})*"))");
    std::cmatch match;
    Need(std::regex_search(rest_.begin(), rest_.end(), match, kToken,
                           std::regex_constants::match_continuous));
    rest_.remove_prefix(static_cast<std::size_t>(match.length()));
    return match[1];
  }
  std::string Plain(std::string_view token) const {
    if (!token.starts_with('"')) return std::string(token);
    std::string text;
    for (token = token.substr(1, token.size() - 2); !token.empty();) {
      if (token.starts_with("\\u")) {
        const std::string digits(token.substr(2, 4));
        runtime::AppendUtf8(text, static_cast<char32_t>(std::strtoul(digits.c_str(), nullptr, 16)));
        token.remove_prefix(6);
        continue;
      }
      if (token.starts_with('\\')) token.remove_prefix(1);
      const std::optional<char32_t> character = runtime::TakeUtf8(token);
      Need(character.has_value());
      runtime::AppendUtf8(text, character.value_or(0));
    }
    return text;
  }
  void Need(bool holds) const {
    if (!holds) throw std::runtime_error("no JSON at: " + std::string(rest_.substr(0, 40)));
  }

  std::string_view rest_;
  JsonValues values_;
};

}  // namespace qixx::testing

// Reading JSON (RFC 8259) strictly, as flat pairs: {"a": [{"b": 1}]} is a.0.b=1.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

#include "runtime/text.h"

namespace qixx::testing {

using JsonValues = std::map<std::string, std::string>;

/// The values by their paths, texts without quotes and escapes, and the length of each array as
/// "a.count". What is no JSON, or not of the forms that the program writes, fails the test.
class JsonReader {
 public:
  static JsonValues Read(std::string_view text) {
    JsonReader reader(text);
    reader.Value("");
    reader.Skip();
    EXPECT_TRUE(reader.rest_.empty()) << "left over: " << reader.rest_.substr(0, 40);
    while (!text.empty()) {
      if (!runtime::TakeUtf8(text)) ADD_FAILURE() << "no UTF-8: " << text.substr(0, 40);
    }
    return reader.values_;
  }

 private:
  explicit JsonReader(std::string_view text) : rest_(text) {}

  void Value(const std::string& path) {
    Skip();
    if (Take('{')) return Inside('}', path);
    if (Take('[')) return Inside(']', path);
    if (rest_.starts_with('"')) {
      values_[path] = Text();
      return;
    }
    const std::string word(rest_.substr(0, rest_.find_first_of(",]} \n")));
    const bool isNumber = !word.empty() && word.find_first_not_of("0123456789") == word.npos;
    EXPECT_TRUE(isNumber || word == "true" || word == "false" || word == "null") << word;
    rest_.remove_prefix(word.size());
    values_[path] = word;
  }
  void Inside(char end, const std::string& path) {
    std::size_t index = 0;
    for (; !Take(end); ++index) {
      ASSERT_TRUE(!rest_.empty() && (index == 0 || Take(','))) << path;
      Skip();
      const std::string name = end == '}' ? Text() : std::to_string(index);
      EXPECT_TRUE(end == ']' || Take(':')) << name;
      const std::string inner = path.empty() ? name : path + "." + name;
      EXPECT_FALSE(values_.contains(inner)) << "twice: " << inner;
      Value(inner);
    }
    if (end == ']') values_[path + ".count"] = std::to_string(index);
  }
  std::string Text() {
    std::string text;
    EXPECT_TRUE(Take('"'));
    while (!rest_.empty() && rest_.front() != '"') {
      char next = rest_.front();
      EXPECT_GE(static_cast<unsigned char>(next), 0x20) << "in a text";
      rest_.remove_prefix(1);
      if (next == '\\' && Take('u')) {
        const std::string digits(rest_.substr(0, 4));
        EXPECT_EQ(digits.find_first_not_of("0123456789abcdef"), digits.npos) << digits;
        runtime::AppendUtf8(text, static_cast<char32_t>(std::strtoul(digits.c_str(), nullptr, 16)));
        rest_.remove_prefix(digits.size());
        continue;
      }
      if (next == '\\' && !rest_.empty()) {
        next = rest_.front();
        EXPECT_TRUE(next == '"' || next == '\\') << next;
        rest_.remove_prefix(1);
      }
      text += next;
    }
    EXPECT_TRUE(Take('"')) << text;
    return text;
  }
  void Skip() {
    while (rest_.starts_with(' ') || rest_.starts_with('\n')) rest_.remove_prefix(1);
  }
  bool Take(char wanted) {
    if (wanted != '"' && wanted != 'u') Skip();
    if (!rest_.starts_with(wanted)) return false;
    rest_.remove_prefix(1);
    return true;
  }

  std::string_view rest_;
  JsonValues values_;
};

}  // namespace qixx::testing

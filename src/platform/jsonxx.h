// JSON values for plugin files: a thin adapter over nlohmann::json offering a value
// tree of objects, arrays, strings, numbers, booleans and null. Values are copies;
// looking up a missing key or reading the wrong type yields an empty result, never
// an exception.
#pragma once

#include <istream>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace jsonxx {

class value {
 public:
  // `none` covers null and values that are absent.
  enum class kind { none, string, number, object, array, boolean };

  value() = default;
  explicit value(nlohmann::json json) : json_(std::move(json)) {}

  kind type() const;
  bool is(kind expected) const { return type() == expected; }

  // Object members: whether `key` is present, and its value (none when absent or
  // when this is not an object).
  bool has(const std::string& key) const;
  value get(const std::string& key) const;
  // Array elements in order; empty when this is not an array.
  std::vector<value> elements() const;
  // The text of a string, the number (as a double), the boolean; empty, 0 or false
  // for a value of another type.
  std::string text() const;
  double number() const;
  bool boolean() const;

 private:
  nlohmann::json json_;
};

// How deeply arrays and objects may nest in a parsed document.
constexpr int kMaxDepth = 512;

// Reads the whole stream into `result`; false (and `result` none) when the text is
// not one JSON value or nests deeper than kMaxDepth.
bool parse(std::istream& input, value& result);
// The same for a text already read.
bool parse(std::string_view text, value& result);

}  // namespace jsonxx

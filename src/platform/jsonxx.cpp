#include "platform/jsonxx.h"

#include <iterator>
#include <string>

namespace jsonxx {

value::kind value::type() const {
  switch (json_.type()) {
    case nlohmann::json::value_t::string: return kind::string;
    case nlohmann::json::value_t::number_integer:
    case nlohmann::json::value_t::number_unsigned:
    case nlohmann::json::value_t::number_float: return kind::number;
    case nlohmann::json::value_t::object: return kind::object;
    case nlohmann::json::value_t::array: return kind::array;
    case nlohmann::json::value_t::boolean: return kind::boolean;
    default: return kind::none;
  }
}

bool value::has(const std::string& key) const { return json_.is_object() && json_.contains(key); }

value value::get(const std::string& key) const {
  if (!has(key)) return value();
  return value(json_.at(key));
}

std::vector<value> value::elements() const {
  std::vector<value> result;
  if (!json_.is_array()) return result;
  result.reserve(json_.size());
  for (const nlohmann::json& element : json_) result.emplace_back(element);
  return result;
}

std::string value::text() const { return json_.is_string() ? json_.get<std::string>() : std::string(); }

double value::number() const { return json_.is_number() ? json_.get<double>() : 0.0; }

bool value::boolean() const { return json_.is_boolean() && json_.get<bool>(); }

namespace {

// Copying and comparing values recurse once per level, so a document nested
// thousands deep would exhaust the stack later on. The nesting is measured before
// parsing (brackets outside strings), which lets the parser run without a callback.
bool NestsTooDeep(std::string_view text) {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxDepth) return true;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return false;
}

}  // namespace

bool parse(std::string_view text, value& result) {
  nlohmann::json parsed;
  bool tooDeep = NestsTooDeep(text);
  if (!tooDeep) parsed = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (tooDeep || parsed.is_discarded()) {
    result = value();
    return false;
  }
  result = value(std::move(parsed));
  return true;
}

bool parse(std::istream& input, value& result) {
  std::string text((std::istreambuf_iterator<char>(input)), std::istreambuf_iterator<char>());
  return parse(text, result);
}

}  // namespace jsonxx

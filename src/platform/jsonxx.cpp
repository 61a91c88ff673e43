#include "platform/jsonxx.h"

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

bool parse(std::istream& input, value& result) {
  // Copying and comparing values recurse once per level, so a document nested
  // thousands deep would exhaust the stack later on. Nothing nested deeper than
  // kMaxDepth is kept, and such a document counts as not parsed.
  bool tooDeep = false;
  auto limitDepth = [&tooDeep](int depth, nlohmann::json::parse_event_t event, nlohmann::json&) {
    if (depth < kMaxDepth) return true;
    if (event == nlohmann::json::parse_event_t::object_start || event == nlohmann::json::parse_event_t::array_start) {
      tooDeep = true;
    }
    return false;
  };
  nlohmann::json parsed = nlohmann::json::parse(input, limitDepth, /*allow_exceptions=*/false);
  if (parsed.is_discarded() || tooDeep) {
    result = value();
    return false;
  }
  result = value(std::move(parsed));
  return true;
}

}  // namespace jsonxx

#include "platform/kitbag/option_parser.h"

#include <cstddef>

namespace Kitbag::AutoCli {

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

bool IsOption(const std::string& word) { return word.starts_with("--"); }

}  // namespace

bool OptionParser::ParseString(const std::string& text) {
  errors_.clear();
  commandPath_.clear();
  parameters_.clear();
  std::vector<std::string> words;
  if (!SplitWords(text, words)) return false;
  if (words.empty()) return true;
  ReadWords(words);
  return false;
}

bool OptionParser::SplitWords(const std::string& text, std::vector<std::string>& words) {
  std::size_t i = 0;
  const std::size_t size = text.size();
  while (true) {
    while (i < size && IsBlank(text[i])) ++i;
    // Only a word that starts with # opens a comment, so "a#b" stays one word.
    if (i == size || text[i] == '#') return true;
    std::string word;
    while (i < size && !IsBlank(text[i])) {
      const char c = text[i];
      if (c == '\'') {
        const std::size_t close = text.find('\'', i + 1);
        if (close == std::string::npos) {
          errors_.push_back("Unbalanced single quote");
          return false;
        }
        word.append(text, i + 1, close - i - 1);
        i = close + 1;
      } else if (c == '"') {
        ++i;
        while (i < size && text[i] != '"') {
          if (text[i] == '\\' && i + 1 < size && (text[i + 1] == '"' || text[i + 1] == '\\')) ++i;
          word += text[i++];
        }
        if (i == size) {
          errors_.push_back("Unbalanced double quote");
          return false;
        }
        ++i;
      } else if (c == '\\') {
        if (i + 1 == size) {
          errors_.push_back("Backslash at the end of the command string");
          return false;
        }
        word += text[i + 1];
        i += 2;
      } else {
        word += c;
        ++i;
      }
    }
    words.push_back(std::move(word));
  }
}

void OptionParser::ReadWords(const std::vector<std::string>& words) {
  std::size_t i = 0;
  for (; i < words.size() && !IsOption(words[i]); ++i) {
    const std::string& word = words[i];
    // Path words name files below the command directories; these would escape them
    // or name a directory instead of a command.
    if (word.empty() || word == "." || word == ".." || word.find('/') != std::string::npos) {
      errors_.push_back("Invalid command word '" + word + "'");
    }
    commandPath_.push_back(word);
  }
  if (i < words.size() && i == 0) errors_.push_back("Missing command path before option '" + words[0] + "'");
  while (i < words.size()) {
    const std::string& word = words[i++];
    if (!IsOption(word)) {
      errors_.push_back("Unexpected word '" + word + "' after the options");
      continue;
    }
    std::string name;
    std::string value = "true";
    const std::size_t equals = word.find('=');
    if (equals != std::string::npos) {
      name = word.substr(2, equals - 2);
      value = word.substr(equals + 1);
    } else {
      name = word.substr(2);
      if (i < words.size() && !IsOption(words[i])) value = words[i++];
    }
    if (name.empty()) {
      errors_.push_back("Empty option name in '" + word + "'");
      continue;
    }
    parameters_.emplace_back(std::move(name), std::move(value));
  }
}

}  // namespace Kitbag::AutoCli

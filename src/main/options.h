// The command-line vocabulary: the option table, the help printer and the
// comma-list splitter. These stand outside the program's namespace, beside main.
#pragma once

#include <array>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

class Option {
 public:
  Option(const std::vector<std::string>& names, std::string arg, std::string help)
      : names(names.begin(), names.end()), arg(std::move(arg)), help(std::move(help)) {}

  std::set<std::string> names;
  // Empty: no value; starting with '[': optional value; otherwise required value.
  std::string arg;
  std::string help;
};

// An argument that names no option, or a number option whose value is not a number.
class InvalidArg : public std::exception {};
// A required value missing at the end of the arguments.
class MissingArg : public std::exception {};

// The thirteen options, in lookup and help order.
extern const std::array<Option, 13> options;

// Writes the help text to standard error and ends the process with `status`.
[[noreturn]] void usage(int status);
// Writes the help text without ending the process.
void write_usage(std::ostream& stream);

// The pieces of `value` between commas, in order, empty pieces left out.
std::vector<std::string> split_list(const std::string& value);

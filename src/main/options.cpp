#include "main/options.h"

#include <cstdlib>
#include <iostream>
#include <sstream>

const std::array<Option, 13> options = {
    Option({"-h", "--help"}, "", "show this help message\n"),
    Option({"--interactive"}, "[tag,...]",
           "prompts before activating a plugin, allowing\nplugins to be skipped, executed, or to fall to a\n"
           "troubleshooting shell. Tags specify the requirements\nfor interactive mode to function (e.g. 'usb')\n"),
    Option({"--dry"}, "", "dry run; do not execute anything, but show the operations\nthat would be performed\n"),
    Option({"--disable-preemptive-plugins"}, "", "disable preemptive plugins during activation\n"),
    Option({"--disable"}, "<plugin|tag>[,<plugin|tag>]",
           "a comma separated list of plugins or provide tags to be\ndisabled during execution\n"),
    Option({"--requires"}, "[tag]", "list plugins that require given tag\n"),
    Option({"--provides"}, "[tag]", "list plugins that provide given tag\n"),
    Option({"--quiet"}, "", "do not log any ondrik messages\n"),
    Option({"--time-ops"}, "", "for JSON plugins, record times for each cormcli\n"),
    Option({"--max-workers"}, "n", "limit the number of spawned workers\n"),
    Option({"--plugin"}, "<plugin>[,...]", "list of plugins to execute, must be full name (or path)\nof plugin file\n"),
    Option({"--tags"}, "", "list all barrier tags\n"),
    Option({"--randomize"}, "[seed]",
           "randomize the activation order of plugins, or specify a\nfixed seed for reproducibility (only useful for "
           "testing)\n"),
};

void write_usage(std::ostream& stream) {
  for (const Option& option : options) {
    std::string separator;
    int count = 0;
    for (const std::string& name : option.names) {
      count += static_cast<int>(separator.size() + name.size());
      stream << separator << name;
      separator = ",";
    }
    if (!option.arg.empty()) {
      stream << ' ' << option.arg;
      count += static_cast<int>(option.arg.size()) + 1;
    }
    // Short option columns keep the help on the same line; long ones move it below.
    std::string leadIn = count <= 7 ? "\t\t" : count <= 15 ? "\t" : "\n\t\t";
    std::istringstream lines(option.help);
    for (std::string line; std::getline(lines, line);) {
      stream << leadIn << line << '\n';
      leadIn = "\t\t";
    }
  }
  stream.flush();
}

void usage(int status) {
  write_usage(std::cerr);
  std::exit(status);
}

std::vector<std::string> split_list(const std::string& value) {
  std::vector<std::string> pieces;
  std::istringstream stream(value);
  for (std::string piece; std::getline(stream, piece, ',');) {
    if (!piece.empty()) pieces.push_back(piece);
  }
  return pieces;
}

#include "main/startup.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <ostream>

#include "log/channels.h"
#include "log/process_logging.h"
#include "platform/host_log.h"
#include "platform/log_identity.h"
#include "platform/main_memory.h"
#include "platform/stop_signals.h"
#include "plugin/plugin.h"
#include "plugin/recorded_run.h"
#include "worker/worker.h"

namespace bootstrand {

namespace {

enum class ValueKind { None, Optional, Required };

ValueKind KindOf(const Option& option) {
  if (option.arg.empty()) return ValueKind::None;
  return option.arg.front() == '[' ? ValueKind::Optional : ValueKind::Required;
}

const Option* FindOption(const std::string& name) {
  for (const Option& option : options) {
    if (option.names.count(name) != 0) return &option;
  }
  return nullptr;
}

void ApplyOption(const std::string& name, const std::string& value, StartupState& state) {
  if (name == "-h" || name == "--help") {
    usage(0);
  } else if (name == "--interactive") {
    state.flags |= Plugin::Interactive(split_list(value));
  } else if (name == "--dry") {
    state.flags |= ActivateFlag::DryRun;
  } else if (name == "--disable-preemptive-plugins") {
    state.flags |= ActivateFlag::PreemptivePluginsDisabled;
  } else if (name == "--disable") {
    Plugin::DisablePlugins(split_list(value));
  } else if (name == "--requires") {
    state.requiresQuery = true;
    state.requiresTag = value;
  } else if (name == "--provides") {
    state.providesQuery = true;
    state.providesTag = value;
  } else if (name == "--quiet") {
    DeactivateKernelLog();
  } else if (name == "--time-ops") {
    state.flags |= ActivateFlag::TimeOps;
  } else if (name == "--max-workers") {
    Worker::LimitWorkers(ConvertNumber(name, value));
  } else if (name == "--plugin") {
    for (std::string& plugin : split_list(value)) state.pluginNames.insert(std::move(plugin));
  } else if (name == "--tags") {
    state.listTags = true;
  } else if (name == "--randomize") {
    state.seed = value.empty() ? static_cast<std::uint32_t>(std::time(nullptr))
                               : static_cast<std::uint32_t>(ConvertNumber(name, value));
  }
}

void ActivationMode(StartupState& state, std::ostream& alert) {
  if (Plugin::IsStatelessAutodeploy()) {
    Worker::LimitWorkers(1);
    state.flags |= ActivateFlag::HostProfileBarrier;
  }
  std::uint64_t size = 0;
  std::uint64_t unused = 0;
  if (get_main_memory_size(&size, &unused) != 0) {
    alert << "Retrieving system main memory size failed." << std::endl;
  } else {
    // Single precision on purpose: the boundary of exactly 5 GiB counts as small.
    float gibibytes = static_cast<float>(size) * 9.313226e-10f;
    if (5.0f >= gibibytes) {
      alert << "There is not enough memory for parallel bootstrand. Activating bootstrand plugins serially."
            << std::endl;
      Worker::LimitWorkers(1);
    }
  }
  RecordedRun::Begin(state.flags);
  Plugin::ActivatePlugins(state.flags);
  RecordedRun::Completed();
}

}  // namespace

std::int32_t ConvertNumber(const std::string& option, const std::string& value) {
  const char* text = value.c_str();
  while (std::isspace(static_cast<unsigned char>(*text))) ++text;
  const char* digits = text + (*text == '+' || *text == '-' ? 1 : 0);
  if (!std::isdigit(static_cast<unsigned char>(*digits))) throw InvalidNumber(option, value);
  errno = 0;
  long long number = std::strtoll(text, nullptr, 10);
  if (errno == ERANGE || number < INT32_MIN || number > INT32_MAX) throw InvalidNumber(option, value);
  return static_cast<std::int32_t>(number);
}

void ParseArguments(std::list<std::string>& arguments, StartupState& state) {
  while (!arguments.empty()) {
    std::string argument = arguments.front();
    if (argument.empty()) {
      arguments.pop_front();
      continue;
    }
    std::size_t equals = argument.find('=');
    std::string name = argument.substr(0, equals);
    const Option* option = FindOption(name);
    if (option == nullptr) throw InvalidArg();
    ValueKind kind = KindOf(*option);
    arguments.pop_front();

    std::string value;
    if (equals != std::string::npos) {
      value = argument.substr(equals + 1);
    } else if (kind == ValueKind::None) {
    } else if (arguments.empty()) {
      if (kind == ValueKind::Required) {
        arguments.push_back(name);
        throw MissingArg();
      }
    } else if (kind == ValueKind::Optional) {
      // An empty next argument does not begin with "-", so it is the (empty) value.
      if (!arguments.front().starts_with('-')) {
        value = arguments.front();
        arguments.pop_front();
      }
    } else {
      value = arguments.front();
      arguments.pop_front();
    }
    ApplyOption(name, value, state);
  }
}

int BootstrandMain(int argc, char* argv[]) {
  // Before anything is started: a boot outlives the console it was started from.
  IgnoreHangUp();
  std::ostream& alert = AlertLog();
  std::list<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
  StartupState state;
  try {
    ParseArguments(arguments, state);
  } catch (const InvalidNumber& error) {
    alert << "Invalid number for " << error.option << ": " << error.value << std::endl;
    std::cerr << "Invalid number for " << error.option << ": " << error.value << std::endl;
    usage(1);
  } catch (const InvalidArg&) {
    alert << "Invalid arg " << arguments.front() << std::endl;
    usage(1);
  } catch (const MissingArg&) {
    alert << "Missing arg for " << arguments.front() << std::endl;
    usage(1);
  }

  Plugin::LoadPlugins(state.pluginNames, state.seed);

  if (state.requiresQuery || state.providesQuery || state.listTags) {
    if (state.requiresQuery) Plugin::DumpPluginsRequiring(state.requiresTag);
    if (state.providesQuery) Plugin::DumpPluginsProviding(state.providesTag);
    if (state.listTags) Plugin::ListTags();
    return 0;
  }

  try {
    init_logging(kLogIdentity);
  } catch (const std::exception& error) {
    Log_Level(3, "Failed to initialize bootstrand: %s\n", error.what());
    return 1;
  } catch (...) {
    Log_Level(3, "Failed to initialize bootstrand\n");
    return 1;
  }
  ActivationMode(state, alert);
  return 0;
}

}  // namespace bootstrand

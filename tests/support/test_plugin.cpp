#include "support/test_plugin.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <set>

#include "support/read_until.h"

namespace bootstrand::testing {

std::string Describe(const Plugin& plugin) {
  auto list = [](const TagSet& tags) { return Joined(std::set<std::string>(tags.begin(), tags.end())); };
  std::string text = plugin.name + " v" + std::to_string(plugin.apiVersion) + " provides=" + list(plugin.provides) +
                     " requires=" + list(plugin.requires_);
  if (!plugin.pluginVersion.empty()) text += " version=" + plugin.pluginVersion;
  if (plugin.runOnce) text += " run_once";
  if (!plugin.requiredFlags.empty()) text += " required=" + list(plugin.requiredFlags);
  if (!plugin.disablingFlags.empty()) text += " disabling=" + list(plugin.disablingFlags);
  if (plugin.preemptive) text += " preemptive";
  if (plugin.hostProfileOperations) text += " host_profile";
  if (plugin.noOperations) text += " no_operations";
  if (plugin.skip) text += " skip";
  return text;
}

int RunInChild(const std::function<int()>& body, std::vector<std::string>* writes) {
  int output[2];
  if (pipe2(output, O_CLOEXEC | O_DIRECT) != 0) return -1;
  std::cout.flush();
  std::fflush(nullptr);  // or the child writes the buffered output again
  pid_t child = fork();
  if (child == 0) {
    dup2(output[1], STDOUT_FILENO);
    setvbuf(stdout, nullptr, _IONBF, 0);
    int result = body();
    std::cout.flush();
    std::fflush(nullptr);
    _exit(100 + result);
  }
  close(output[1]);
  std::vector<std::string> ignored;
  if (!ReadWrites(output[0], writes ? *writes : ignored, Clock::now() + std::chrono::seconds(20))) kill(child, SIGKILL);
  close(output[0]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) && WEXITSTATUS(status) >= 100 ? WEXITSTATUS(status) - 100 : -1;
}

}  // namespace bootstrand::testing

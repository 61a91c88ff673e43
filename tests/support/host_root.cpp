#include "support/host_root.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "support/read_until.h"

extern char** environ;

namespace bootstrand::testing {

HostRoot::HostRoot() {
  char pattern[] = "/tmp/bootstrand-root-XXXXXX";
  if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
  root_ = pattern;
  for (const char* directory : {"/var/log", "/usr/libexec/bootstrand/plugins", "/usr/lib/tessary/cormcli"}) {
    std::filesystem::create_directories(Path(directory));
  }
  WriteCommand("mark", "echo \"$*\" >> \"$BOOTSTRAND_ROOT/order.log\"");
  WriteFile("/proc/sys/kernel/random/boot_id", std::string(kBootId) + "\n");
}

HostRoot::~HostRoot() {
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

void HostRoot::WriteFile(const std::string& hostPath, const std::string& contents, mode_t mode) const {
  std::filesystem::create_directories(std::filesystem::path(Path(hostPath)).parent_path());
  std::ofstream(Path(hostPath), std::ios::trunc) << contents;
  chmod(Path(hostPath).c_str(), mode);
}

std::string HostRoot::ReadFile(const std::string& hostPath) const {
  std::ostringstream contents;
  contents << std::ifstream(Path(hostPath)).rdbuf();
  return contents.str();
}

bool HostRoot::Exists(const std::string& hostPath) const { return access(Path(hostPath).c_str(), F_OK) == 0; }

Lines HostRoot::ReadLines(const std::string& hostPath) const {
  Lines lines;
  std::ifstream file(Path(hostPath));
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

void HostRoot::CopyExampleTree() const {
  std::filesystem::copy(BOOTSTRAND_EXAMPLES_DIR "/tree", root_,
                        std::filesystem::copy_options::recursive | std::filesystem::copy_options::overwrite_existing);
}

void HostRoot::CopyTestPlugin(const std::string& file) const {
  std::filesystem::copy_file(BOOTSTRAND_TEST_PLUGIN_DIR "/" + file, Path("/usr/libexec/bootstrand/plugins/" + file));
}

void HostRoot::WritePlugin(const std::string& fileName, const nlohmann::json& plugin, int directory) const {
  WriteFile(std::string("/usr/libexec/bootstrand/plugins") + (directory == 1 ? "/" : "2/") + fileName, plugin.dump(2));
}

void HostRoot::WritePlugins(const std::vector<PluginFile>& plugins, int directory) const {
  for (const PluginFile& plugin : plugins) {
    WritePlugin(plugin.name + ".json", JsonPlugin(plugin.provides, plugin.requires_, plugin.start, plugin.metadata),
                directory);
  }
}

void HostRoot::WriteCommand(const std::string& commandPath, const std::string& script) const {
  std::string relative = commandPath;
  std::replace(relative.begin(), relative.end(), ' ', '/');
  WriteFile("/usr/lib/tessary/cormcli/" + relative, "#!/bin/sh\n" + script + "\n", 0755);
}

// A sink record is one line: a backslash and "n" stand for a newline, a backslash and
// any other character for that character.
Lines HostRoot::Channel(const std::string& channel) const {
  static const std::map<std::string, std::string> nodes = {
      {"status", "system.progressTerm.statusText"}, {"alert", "system.sysAlert"},
      {"progress", "system.progressTerm.progressText"}, {"kernel", "system.log"}};
  Lines messages;
  std::ifstream sink(root_ + "/var/run/trove/" + nodes.at(channel) + ".log");
  for (std::string record; std::getline(sink, record);) {
    std::string& text = messages.emplace_back();
    for (std::size_t i = 0; i < record.size(); ++i) {
      bool escaped = record[i] == '\\' && i + 1 < record.size();
      char c = record[escaped ? ++i : i];
      text += escaped && c == 'n' ? '\n' : c;
    }
  }
  return messages;
}

nlohmann::json JsonPlugin(const Lines& provides, const Lines& requires_, const Lines& start,
                          const nlohmann::json& extraMetadata) {
  nlohmann::json metadata = {{"provides", provides}, {"requires", requires_}, {"version", 1}};
  if (extraMetadata.is_object()) metadata.update(extraMetadata);
  return {{"metadata", metadata}, {"operations", {{"start", start}}}};
}

RunResult RunBootstrand(const HostRoot& root, const std::vector<std::string>& arguments,
                        const std::map<std::string, std::string>& environment, int timeoutSeconds) {
  return RunProgram(BOOTSTRAND_BINARY, root, arguments, environment, timeoutSeconds);
}

RunResult RunProgram(const std::string& program, const HostRoot& root, const std::vector<std::string>& arguments,
                     const std::map<std::string, std::string>& environment, int timeoutSeconds) {
  // Never the machine's own console: the prompt switches virtual terminals on it.
  std::map<std::string, std::string> variables = {{"BOOTSTRAND_MAIN_MEMORY", "17179869184"},
                                                   {"BOOTSTRAND_CONSOLE", "/dev/null"}};
  for (char** each = environ; *each != nullptr; ++each) {
    std::string entry(*each);
    if (!entry.starts_with("BOOTSTRAND_") && entry.find('=') != std::string::npos) {
      variables[entry.substr(0, entry.find('='))] = entry.substr(entry.find('=') + 1);
    }
  }
  variables["BOOTSTRAND_ROOT"] = root.Root();
  for (const auto& [name, value] : environment) variables[name] = value;
  std::vector<std::string> entries;
  for (const auto& [name, value] : variables) entries.push_back(name + "=" + value);
  std::vector<char*> argv = {const_cast<char*>(program.c_str())}, envp;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  for (std::string& entry : entries) envp.push_back(entry.data());
  argv.push_back(nullptr);
  envp.push_back(nullptr);

  // Standard output is a packet pipe, so that each write arrives as one read;
  // standard error a memory file, read once the program has ended.
  int out[2];
  int err = memfd_create("stderr", MFD_CLOEXEC);
  if (pipe2(out, O_CLOEXEC | O_DIRECT) != 0 || err < 0) throw std::runtime_error("pipe failed");
  pid_t child = fork();
  if (child == 0) {
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    close_range(3, ~0U, 0);  // a boot starts with nothing open beyond the standard streams
    setpgid(0, 0);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(out[1]);
  RunResult result;
  result.timedOut = !ReadWrites(out[0], result.outWrites, Clock::now() + std::chrono::seconds(timeoutSeconds));
  if (result.timedOut) kill(-child, SIGKILL);
  close(out[0]);
  for (const std::string& write : result.outWrites) result.out += write;
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status) && !result.timedOut) result.exitStatus = WEXITSTATUS(status);
  lseek(err, 0, SEEK_SET);
  ReadToEnd(err, result.err, Clock::now() + std::chrono::seconds(5));
  close(err);
  return result;
}

Lines ProcessesOf(const HostRoot& root) {
  const std::string mark = "BOOTSTRAND_ROOT=" + root.Root();
  Lines found;
  for (int tries = 0; tries < 20 && (tries == 0 || !found.empty()); ++tries) {
    if (tries > 0) usleep(50000);
    found.clear();
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      std::ifstream environ(entry.path() / "environ");
      for (std::string variable; std::getline(environ, variable, '\0');) {
        if (variable != mark) continue;
        std::string commandLine;
        std::getline(std::ifstream(entry.path() / "cmdline"), commandLine);
        found.push_back(entry.path().filename().string() + " " + commandLine);
      }
    }
  }
  return found;
}

std::map<std::string, std::uintmax_t> Snapshot(const std::string& directory) {
  std::map<std::string, std::uintmax_t> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    files[entry.path().string()] = entry.is_regular_file() ? entry.file_size() : 0;
  }
  return files;
}

}  // namespace bootstrand::testing

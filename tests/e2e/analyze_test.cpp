// bootstrand-analyze on real boots: two boots of the example tree by the real
// activator, the second with one command slowed, analysed and compared; its exit
// statuses; damaged inputs reported and skipped; a boot's metrics served by a real
// node_exporter, and the fleet's alerting rules through promtool.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/unique_fd.h"
#include "support/host_root.h"
#include "support/read_until.h"

#ifdef BOOTSTRAND_ANALYZE_BINARY

namespace bootstrand::testing {
namespace {

using nlohmann::json;

const std::string kPlugins = "/usr/libexec/bootstrand/plugins";

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t found = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++found;
  return found;
}

class Analyzer : public ::testing::Test {
 protected:
  RunResult Analyze(const std::vector<std::string>& arguments) {
    return RunProgram(BOOTSTRAND_ANALYZE_BINARY, root, arguments);
  }
  HostRoot root;
  HostRoot scratch;
};

// The second boot alone, then against the first. Neither writes to the root. The
// orders of the lists and of the timeline's bars are the analyzer's unit tests.
TEST_F(Analyzer, ReportsAndComparesBootsOfTheExampleTree) {
  HostRoot older;
  for (const HostRoot* host : {&older, &root}) host->CopyExampleTree();
  root.WriteCommand("system time sync", "sleep 0.3");
  for (const HostRoot* host : {&older, &root}) ASSERT_EQ(RunBootstrand(*host, {}).exitStatus, 0);
  // Damage that is reported and skipped: a line of the timing log, a sink record, a
  // plugin file that does not load (left out of the chain).
  std::ofstream(root.Path("/var/log/sysboot.log"), std::ios::app) << "garbage\n";
  std::ofstream(root.Path("/var/run/trove/system.log.log"), std::ios::app) << "Bootstrand plugin \\x\n";
  root.WritePlugin("broken.json", JsonPlugin({}, {}, {"x"}, {{"version", "1"}}));
  auto before = Snapshot(root.Root());
  RunResult run = Analyze({"--json", "--top", "0", "--plugins", kPlugins});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  Lines timing = root.ReadLines("/var/log/sysboot.log"), kernel = root.ReadLines("/var/run/trove/system.log.log");
  const std::string prefix = "bootstrand-analyze: ",
                    timingLine = prefix + root.Path("/var/log/sysboot.log") + ":" + std::to_string(timing.size()) +
                                 ": unrecognised line, skipped\n",
                    sinkLine = prefix + root.Path("/var/run/trove/system.log.log") + ":" +
                               std::to_string(kernel.size()) + ": broken escape in channel message, skipped\n",
                    pluginLine = prefix + kPlugins + "/broken.json: not loaded, left out of the chain: "
                                 "'meta[\"version\"]' is not a 'JsonNumber'\n";
  EXPECT_EQ(run.err, timingLine + sinkLine + pluginLine);
  json report = json::parse(run.out);
  ASSERT_EQ(timing.size(), 18u);
  EXPECT_EQ("Ondrik Initialization Time: " + report["kernel_to_activation_us"].dump(), timing.front());
  EXPECT_EQ(timing[timing.size() - 3], " Start: " + report["activation_start"].get<std::string>());
  EXPECT_GT(report["activation_us"].get<long long>(), 300000);
  // Each plugin's outcome, the failure from the alert sink; the chain runs through
  // the slowed command.
  ASSERT_EQ(report["plugins"].size(), 13u);
  for (const json& plugin : report["plugins"]) {
    EXPECT_EQ(plugin["outcome"], plugin["name"] == "40-syslog-forward" ? "failed" : "activated") << plugin;
  }
  EXPECT_EQ(report["untimed"], json::parse(R"([{"name": "30-static-ip", "outcome": "skipped"}])"));
  EXPECT_EQ(report["blame"][0]["name"], "40-time");
  Lines chain;
  for (const json& link : report["critical_chain"]) chain.push_back(link["name"]);
  EXPECT_EQ(chain, (Lines{"10-devices", "20-network-drivers", "30-dhcp", "40-time", "80-management-agent",
                          "end-autoconf"}));

  run = Analyze({"--plugins", kPlugins, "--svg", scratch.Path("/timeline.svg")});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(Count(scratch.ReadFile("/timeline.svg"), "<rect class=\"bar "), 13u);
  for (const char* part : {"Plugins timed: 13 (12 activated, 1 failed)\n",
                           "  end-autoconf (activated)\n  The chain ran for ",
                           "\n\nReported on the channels but not timed: 30-static-ip (skipped)\n"}) {
    EXPECT_NE(run.out.find(part), std::string::npos) << part << run.out;
  }

  // Against the first boot: 40-time first among the slower plugins; one row per
  // plugin holding its bar of each boot, 40-time's later bar a slower one.
  run = Analyze({"--compare", older.Path("/var/log/sysboot.log"), "--svg", scratch.Path("/compare.svg"),
                 "--plugins", kPlugins});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.err, timingLine + pluginLine);  // a comparison reads no channel sinks
  std::string slower = "\nSlower plugins:\n       before        after       change  plugin\n";
  std::size_t at = run.out.find(slower);
  ASSERT_NE(at, std::string::npos) << run.out;
  EXPECT_EQ(run.out.substr(at + slower.size() + 41, 8), "40-time\n") << run.out;
  EXPECT_NE(run.out.find("\nAdded plugins: none\nRemoved plugins: none\n\nCritical chain "), std::string::npos);
  std::string svg = scratch.ReadFile("/compare.svg");
  EXPECT_EQ(Count(svg, "<rect class=\"bar before\""), 13u);
  EXPECT_EQ(Count(svg, "<rect class=\"bar after "), 13u);
  std::size_t row = svg.find(">40-time</text><rect class=\"bar before\"");
  ASSERT_NE(row, std::string::npos);
  EXPECT_EQ(svg.find("<rect class=\"bar after slower\"", row), svg.find("<rect class=\"bar after ", row));
  EXPECT_EQ(Snapshot(root.Root()), before);
}

// One usage error per check of the command line, then one input per way to fail.
TEST_F(Analyzer, ExitStatusesForUsageAndUnreadableInputs) {
  RunResult run = Analyze({});
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_EQ(run.err, "bootstrand-analyze: cannot read " + root.Path("/var/log/sysboot.log") +
                         ": No such file or directory\n");
  run = Analyze({"--help"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.out.rfind("Usage: bootstrand-analyze [options] [TIMING-LOG]\n", 0), 0u);
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {"--bogus"}, {"--top", "many"}, {"--svg"}, {"--json=yes"}, {"one.log", "two.log"},
           {"--threshold", "5ms"}, {"--compare", "old.log", "--threshold", "5"},
           {"--compare", "old.log", "--kernel-log", "k.log"}, {"--openmetrics", "--top", "3"}}) {
    run = Analyze(arguments);
    EXPECT_EQ(run.exitStatus, 2) << arguments.front();
    EXPECT_NE(run.err.find("\n\nUsage: bootstrand-analyze"), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
  }
  root.WriteFile("/var/log/sysboot.log", "Ondrik Initialization Time: 3000000\n");
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {"--kernel-log", root.Path("/missing.log")}, {"--alert-log", root.Path("/var/log")},
           {"--plugins", "/missing"}, {"--compare", root.Path("/missing.log")},
           {"--svg", root.Path("/no/such/directory/timeline.svg")}}) {
    run = Analyze(arguments);
    EXPECT_EQ(run.exitStatus, 1) << arguments.front() << run.err;
    EXPECT_NE(run.err.find(arguments.back()), std::string::npos) << run.err;
  }
}

constexpr const char* kPromtool = "/usr/bin/promtool";
constexpr const char* kNodeExporter = "/usr/bin/prometheus-node-exporter";

// A program running in the background for the length of a test, ended and reaped when
// the test leaves its scope, pass or fail.
class Daemon {
 public:
  explicit Daemon(std::vector<std::string> arguments) {
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      int null = open("/dev/null", O_RDWR);
      for (int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(null, stream);
      close_range(3, ~0U, 0);
      execv(argv[0], argv.data());
      _exit(127);
    }
  }
  ~Daemon() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

 private:
  pid_t pid_;
};

// A loopback port that nothing listens on, as the kernel picks one.
int FreeLoopbackPort() {
  UniqueFd probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(probe.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      getsockname(probe.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return -1;
  }
  return ntohs(address.sin_port);
}

// The response to GET /metrics on 127.0.0.1:`port`, trying until the server listens;
// empty when it does not answer within ten seconds.
std::string Scrape(int port) {
  auto deadline = Clock::now() + std::chrono::seconds(10);
  for (; Clock::now() < deadline; std::this_thread::sleep_for(std::chrono::milliseconds(50))) {
    UniqueFd connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(connection.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) continue;
    const std::string request = "GET /metrics HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
    std::string response;
    if (WriteAll(connection.Get(), request.data(), request.size())) ReadToEnd(connection.Get(), response, deadline);
    return response;
  }
  return "";
}

// The samples named bootstrand_... of an exposition, by series as written.
std::map<std::string, double> BootSeries(const std::string& exposition) {
  std::map<std::string, double> series;
  std::istringstream lines(exposition);
  for (std::string line; std::getline(lines, line);) {
    std::size_t space = line.rfind(' ');
    if (line.starts_with("bootstrand_")) series[line.substr(0, space)] = std::stod(line.substr(space));
  }
  return series;
}

// What the fleet's monitoring gets from a boot of the example tree: the boot step's
// script writes the metrics into node_exporter's textfile folder in one rename,
// promtool finds nothing to say about them, and a real node_exporter serves each
// series with the analyzer's figures. One plugin's name needs escaping and holds a
// byte that is not UTF-8.
TEST_F(Analyzer, BootMetricsReachANodeExporterScrape) {
  for (const char* tool : {kPromtool, kNodeExporter}) {
    if (access(tool, X_OK) != 0) GTEST_SKIP() << tool << " is missing (tools/install-deps installs it)";
  }
  const std::string folder = "/var/lib/prometheus/node-exporter", file = folder + "/bootstrand.prom";
  std::filesystem::create_directories(root.Path(folder));
  auto publish = [&] {
    std::string path = std::filesystem::path(BOOTSTRAND_ANALYZE_BINARY).parent_path().string() + ":" + getenv("PATH");
    return RunProgram(BOOTSTRAND_PACKAGING_DIR "/boot-metrics", root, {}, {{"PATH", path}});
  };
  RunResult run = publish();  // no boot yet: nothing to publish, and nothing left behind
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_NE(run.err.find("\nboot-metrics: the boot's metrics were not written to " + root.Path(file) + "\n"),
            std::string::npos) << run.err;
  EXPECT_TRUE(std::filesystem::is_empty(root.Path(folder)));

  root.CopyExampleTree();
  root.WritePlugin("say \"hi\\\" caf\xe9.json", JsonPlugin({}, {}, {"mark --name odd"}));
  double bootStart = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  ASSERT_EQ(RunBootstrand(root, {}).exitStatus, 0);
  run = publish();
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.err, "");
  struct stat status {};
  ASSERT_EQ(stat(root.Path(file).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root.Path(folder)), {}), 1);
  run = RunProgram("/bin/sh", root, {"-c", "\"$0\" check metrics <\"$1\"", kPromtool, root.Path(file)});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.out + run.err, "");

  int port = FreeLoopbackPort();
  ASSERT_GT(port, 0);
  Daemon exporter({kNodeExporter, "--web.listen-address=127.0.0.1:" + std::to_string(port),
                   "--collector.disable-defaults", "--collector.textfile", "--web.disable-exporter-metrics",
                   "--collector.textfile.directory=" + root.Path(folder)});
  std::string scrape = Scrape(port);
  ASSERT_NE(scrape.find("\nnode_textfile_scrape_error 0\n"), std::string::npos) << scrape;
  std::map<std::string, double> served = BootSeries(scrape);
  EXPECT_EQ(served, BootSeries(root.ReadFile(file)));
  ASSERT_EQ(served.size(), 4u + 6u + 14u + 15u) << scrape;  // the boot's, by outcome, by plugin (timed, all)
  json report = json::parse(Analyze({"--json"}).out);
  EXPECT_EQ(served["bootstrand_activation_duration_seconds"], report["activation_us"].get<double>() / 1e6);
  EXPECT_EQ(served["bootstrand_kernel_to_activation_seconds"], report["kernel_to_activation_us"].get<double>() / 1e6);
  EXPECT_EQ(served["bootstrand_activation_completed"], 1);
  EXPECT_GE(served["bootstrand_activation_start_timestamp_seconds"], bootStart);
  EXPECT_LT(served["bootstrand_activation_start_timestamp_seconds"], bootStart + 60);
  EXPECT_EQ(served["bootstrand_plugins{outcome=\"activated\"}"], 13);
  EXPECT_EQ(served["bootstrand_plugins{outcome=\"failed\"}"], 1);
  EXPECT_EQ(served["bootstrand_plugins{outcome=\"skipped\"}"], 1);
  EXPECT_EQ(served["bootstrand_plugin_failed{plugin=\"30-static-ip\"}"], 0);
  for (const json& plugin : report["plugins"]) {
    std::string name = plugin["name"];
    std::string label =
        name.starts_with("say ") ? "{plugin=\"say \\\"hi\\\\\\\" caf\xef\xbf\xbd\"}" : "{plugin=\"" + name + "\"}";
    EXPECT_EQ(served["bootstrand_plugin_duration_seconds" + label], plugin["duration_us"].get<double>() / 1e6) << name;
    EXPECT_EQ(served["bootstrand_plugin_failed" + label], name == "40-syslog-forward" ? 1 : 0) << name;
  }
  EXPECT_EQ(served.size(), 39u) << "a series looked up above was not served";
}

// The fleet's recording and alerting rules load, and pass their own tests.
TEST_F(Analyzer, PrometheusRulesPassTheirTests) {
  if (access(kPromtool, X_OK) != 0) GTEST_SKIP() << kPromtool << " is missing (tools/install-deps installs it)";
  const std::string rules = BOOTSTRAND_PACKAGING_DIR "/prometheus/bootstrand.rules";
  for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
           {"check", "rules", rules + ".yml"}, {"test", "rules", rules + ".test.yml"}}) {
    RunResult run = RunProgram(kPromtool, root, arguments);
    EXPECT_EQ(run.exitStatus, 0) << arguments.front() << run.out << run.err;
  }
}

}  // namespace
}  // namespace bootstrand::testing

#endif  // BOOTSTRAND_ANALYZE_BINARY

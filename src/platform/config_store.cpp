#include "platform/config_store.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "platform/forced_failure.h"
#include "platform/host_path.h"
#include "platform/unique_fd.h"

namespace {

void RecordCall(const std::string& operation, const std::string& record) {
  if (bootstrand::ForcedFailure("BOOTSTRAND_CONFIGSTORE_FAIL", operation)) {
    throw std::runtime_error(operation + " refused by the configuration store");
  }
  std::string path = bootstrand::HostPath("/var/lib/configstore/calls.log");
  bootstrand::MakeDirectories(path.substr(0, path.rfind('/')));
  bootstrand::UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  std::string line = record + "\n";
  if (!fd.Valid() || !bootstrand::WriteAll(fd.Get(), line.data(), line.size())) {
    throw std::runtime_error("cannot record " + operation + " in " + path + ": " + std::strerror(errno));
  }
}

}  // namespace

void CormConfigStore::EndAutoConf() { RecordCall("EndAutoConf", "EndAutoConf"); }

void CormConfigStore::CleanupBootState() { RecordCall("CleanupBootState", "CleanupBootState"); }

void CormConfigStore::EnablePalladNotification(bool enable) {
  RecordCall("EnablePalladNotification", enable ? "EnablePalladNotification(true)" : "EnablePalladNotification(false)");
}

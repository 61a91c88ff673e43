#include "kinds/cormcli.h"

namespace bootstrand {

// Placeholder until the command dispatcher lands.
const std::vector<std::string> Cormcli::commandDirectories = {
    "/usr/lib/tessary/cormcli", "/usr/lib/tessary/cormcli/int", "/usr/lib/tessary/cormcli/int/ext",
    "/usr/lib/tessary/cormcli/ext"};
Kitbag::AutoCli::Dispatcher* Cormcli::dispatcher = nullptr;

CormcliException::CormcliException(const std::string& command, const std::string& stage,
                                   const std::vector<std::string>& errors)
    : command(command), stage(stage), errors(errors), message(stage + " " + command + " failed") {}

Cormcli::Cormcli() {}

void Cormcli::Execute(const std::string&, bool, bool) {}

std::vector<CormcliException> Cormcli::Execute(const std::vector<std::string>&, bool, bool) { return {}; }

}  // namespace bootstrand

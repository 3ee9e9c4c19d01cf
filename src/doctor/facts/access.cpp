// SPDX-License-Identifier: MIT
#include "dorve/facts/access.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace dorve {
namespace {

/// Settings of ssh that cannot prevent a login, and those that the doctor's login sets.
constexpr std::array<std::string_view, 46> kHarmless = {"addkeystoagent",
                                                        "checkhostip",
                                                        "clearallforwardings",
                                                        "compression",
                                                        "connectionattempts",
                                                        "connecttimeout",
                                                        "controlmaster",
                                                        "controlpath",
                                                        "controlpersist",
                                                        "dynamicforward",
                                                        "enableescapecommandline",
                                                        "escapechar",
                                                        "exitonforwardfailure",
                                                        "fingerprinthash",
                                                        "forwardagent",
                                                        "forwardx11",
                                                        "forwardx11timeout",
                                                        "forwardx11trusted",
                                                        "gatewayports",
                                                        "gssapiauthentication",
                                                        "gssapidelegatecredentials",
                                                        "hashknownhosts",
                                                        "host",
                                                        "identityfile",
                                                        "ipqos",
                                                        "localforward",
                                                        "loglevel",
                                                        "logverbose",
                                                        "nohostauthenticationforlocalhost",
                                                        "numberofpasswordprompts",
                                                        "obscurekeystroketiming",
                                                        "permitlocalcommand",
                                                        "remoteforward",
                                                        "sendenv",
                                                        "serveralivecountmax",
                                                        "serveraliveinterval",
                                                        "setenv",
                                                        "streamlocalbindmask",
                                                        "streamlocalbindunlink",
                                                        "syslogfacility",
                                                        "tcpkeepalive",
                                                        "tunnel",
                                                        "updatehostkeys",
                                                        "user",
                                                        "visualhostkey",
                                                        "xauthlocation"};

bool isOff(const std::string& value) {
  return value == "no" || value == "false" || value == "off";
}

}  // namespace

FaultyLine findFault(const std::string& message) {
  constexpr std::string_view kLine = " line ";
  const std::size_t place = message.find(kLine);
  if (place == std::string::npos) return {};
  const std::size_t start = place + kLine.size();
  const std::size_t end = message.find_first_not_of("0123456789", start);
  FaultyLine fault;
  if (end == start || end == std::string::npos || message[end] != ':' || end - start > 8) return fault;
  fault.file = message.substr(0, place);
  if (fault.file.ends_with(':')) fault.file.pop_back();
  fault.number = std::stoi(message.substr(start, end - start));
  return fault;
}

bool isReplaced(const std::string& program, const std::string& found) {
  return !found.empty() && found != "/usr/bin/" + program && found != "/bin/" + program;
}

std::vector<ChangedSetting> changedSettings(const Pairing& pairing) {
  std::vector<ChangedSetting> changed;
  std::vector<std::string> names = pairing.settings.names();
  for (const std::string& name : pairing.defaults.names()) {
    if (std::ranges::find(names, name) == names.end()) names.push_back(name);
  }
  for (const std::string& name : names) {
    if (std::ranges::find(kHarmless, name) != kHarmless.end()) continue;
    const std::string value = pairing.settings.first(name);
    std::string wanted = pairing.defaults.first(name);
    if (name == "identitiesonly") wanted = "yes";
    if (name == "userknownhostsfile") wanted = "/dev/null";
    if (name == "stricthostkeychecking") wanted = isOff(value) ? value : "no";
    if (value != wanted)
      changed.push_back({name, value.empty() ? "none" : value, wanted.empty() ? "none" : wanted});
  }
  return changed;
}

}  // namespace dorve

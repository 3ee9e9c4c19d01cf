// SPDX-License-Identifier: MIT
#ifndef DORVE_FACTS_FIREWALL_H_
#define DORVE_FACTS_FIREWALL_H_

#include <string>
#include <vector>

/// The rules of this device's packet filter, nf_tables.
namespace dorve {

/// A packet matches if the field has one of the values: a text, "FIRST-LAST" or "ADDRESS/BITS".
struct Condition {
  std::string field;  ///< as nft(8) writes it: "iifname", "ip saddr", "tcp dport", "ct state"
  bool negated = false;
  std::vector<std::string> values;
};

struct Rule {
  std::vector<Condition> conditions;
  bool understood = true;  ///< else there are conditions that the doctor can't judge
  std::string verdict;     ///< accept, drop, reject, redirect, jump, goto, return, or empty
  std::string target;      ///< of jump and goto
};

struct Chain {
  std::string family;
  std::string table;
  std::string name;
  std::string hook;    ///< empty for a chain that others jump to
  std::string policy;  ///< accept or drop
  std::vector<Rule> rules;
};

using Firewall = std::vector<Chain>;

}  // namespace dorve

#endif  // DORVE_FACTS_FIREWALL_H_

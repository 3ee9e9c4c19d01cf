// SPDX-License-Identifier: MIT
// The rules of nf_tables, as nft(8) prints them in JSON; libnftables-json(5) describes them.
#include <map>
#include <nlohmann/json.hpp>

#include "dorve/gather/subjects.h"

namespace dorve {
namespace {

using Json = nlohmann::json;
using Sets = std::map<std::string, Json>;  // by family, table and name

constexpr int kNftMs = 1500;

std::string textOf(const Json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_number()) return std::to_string(value.get<long>());
  if (value.contains("range")) return textOf(value.at("range")[0]) + "-" + textOf(value.at("range")[1]);
  if (value.contains("prefix"))
    return textOf(value.at("prefix")["addr"]) + "/" + textOf(value.at("prefix")["len"]);
  if (value.contains("elem")) return textOf(value.at("elem")["val"]);
  return value.dump();
}

/// The field that the left side of a match names; empty for one that the doctor does not know.
std::string fieldOf(const Json& left) {
  if (left.contains("meta")) return textOf(left.at("meta")["key"]);
  if (left.contains("ct") && !left.at("ct").contains("dir")) return "ct " + textOf(left.at("ct")["key"]);
  if (!left.contains("payload") || !left.at("payload").contains("field")) return "";
  return textOf(left.at("payload")["protocol"]) + " " + textOf(left.at("payload")["field"]);
}

/// The sets of one table are `table` and a name in `sets`.
Condition conditionOf(const Json& match, const std::string& table, const Sets& sets) {
  Condition condition = {fieldOf(match.at("left")), textOf(match.at("op")) == "!=", {}};
  const std::string op = textOf(match.at("op"));
  Json right = match.at("right");
  if (right.is_string() && right.get<std::string>().starts_with('@')) {
    const auto known = sets.find(table + right.get<std::string>().substr(1));
    right = known == sets.end() ? Json() : known->second;
  }
  if (right.is_null() || (op != "==" && op != "!=" && op != "in")) condition.field.clear();
  if (right.is_object() && right.contains("set")) right = Json(right.at("set"));
  if (!right.is_array()) right = Json::array({right});
  for (const Json& value : right) condition.values.push_back(textOf(value));
  return condition;
}

Rule ruleOf(const Json& expressions, const std::string& table, const Sets& sets) {
  Rule rule;
  for (const Json& expression : expressions) {
    const std::string kind = expression.empty() ? "" : expression.begin().key();
    if (kind == "match") {
      rule.conditions.push_back(conditionOf(expression.at("match"), table, sets));
      rule.understood = rule.understood && !rule.conditions.back().field.empty();
    } else if (kind == "jump" || kind == "goto") {
      rule.verdict = kind;
      rule.target = textOf(expression[kind]["target"]);
    } else if (kind == "accept" || kind == "drop" || kind == "reject" || kind == "return") {
      rule.verdict = kind;
    } else if (kind == "redirect" || kind == "dnat") {
      rule.verdict = "redirect";
    } else if (kind == "xt" && expression.at("xt").value("type", "") == "target") {
      // An extension of iptables(8). Other targets, such as LOG, decide nothing.
      const std::string target = expression.at("xt").value("name", "");
      if (target == "REJECT") rule.verdict = "reject";
      if (target == "REDIRECT" || target == "DNAT") rule.verdict = "redirect";
    } else if (kind != "counter" && kind != "log") {
      rule.understood = false;
    }
  }
  return rule;
}

/// The table of a set or a rule, as the front of a key of `Sets`.
std::string tableOf(const Json& entry) {
  return textOf(entry.at("family")) + " " + textOf(entry.at("table")) + " ";
}

Firewall parse(const std::string& text) {
  const Json listing = Json::parse(text)["nftables"];
  Firewall firewall;
  Sets sets;
  for (const Json& entry : listing) {
    if (entry.contains("set")) {
      const Json& set = entry.at("set");
      sets[tableOf(set) + textOf(set.at("name"))] = set.value("elem", Json::array());
    }
    if (entry.contains("chain")) {
      const Json& chain = entry.at("chain");
      firewall.push_back({chain.at("family"),
                          chain.at("table"),
                          chain.at("name"),
                          chain.value("hook", ""),
                          chain.value("policy", "accept"),
                          {}});
    }
    if (!entry.contains("rule")) continue;
    const Json& rule = entry.at("rule");
    for (Chain& chain : firewall) {
      if (chain.family != textOf(rule.at("family")) || chain.table != textOf(rule.at("table")) ||
          chain.name != textOf(rule.at("chain")))
        continue;
      chain.rules.push_back(ruleOf(rule.at("expr"), tableOf(rule), sets));
    }
  }
  return firewall;
}

}  // namespace

Fact<Firewall> gatherFirewall(const Deadline& deadline) {
  const Outcome listing = runCommand({"/usr/sbin/nft", "-j", "list", "ruleset"}, deadline.leftMs(kNftMs));
  if (!listing.succeeded()) return Fact<Firewall>::unknown("nft: " + listing.message());
  try {
    return parse(listing.out);
  } catch (const Json::exception& error) {
    return Fact<Firewall>::unknown(error.what());
  }
}

}  // namespace dorve

// SPDX-License-Identifier: MIT
#ifndef DORVE_FACTS_FACT_H_
#define DORVE_FACTS_FACT_H_

#include <optional>
#include <string>
#include <utility>

/// What dorve-doctor knows about this device: plain structs, one for each subject.
/// The room `gather` fills them, and the room `checks` judges them.
namespace dorve {

/// A value that the system was asked for, or the reason why it is not known.
template <typename T>
struct Fact {
  std::optional<T> value;
  std::string whyNot = "not finished in time";

  Fact() = default;
  Fact(T known) : value(std::move(known)) {}  // NOLINT(google-explicit-constructor): a known value is a fact

  static Fact unknown(const std::string& reason) {
    Fact fact;
    fact.whyNot = reason;
    return fact;
  }

  explicit operator bool() const { return value.has_value(); }
  // Only for a known value, as of std::optional.
  const T& operator*() const { return *value; }               // NOLINT(bugprone-unchecked-optional-access)
  const T* operator->() const { return value.operator->(); }  // NOLINT(bugprone-unchecked-optional-access)
};

}  // namespace dorve

#endif  // DORVE_FACTS_FACT_H_

// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_LOGIN_H_
#define DORVE_DOCTOR_LOGIN_H_

#include <string>

#include "dorve/doctor/command.h"
#include "dorve/doctor/report.h"
#include "dorve/doctor/settings.h"
#include "dorve/doctor/situation.h"

namespace dorve {

/// One login to the other device that leaves no trace here: no host key is stored, nothing is forwarded and
/// no connection is shared. Where the configuration checks host keys, so does this login. `settings` are
/// those of `ssh -G`; without a `user` ssh takes theirs.
CommandResult tryLogin(const Situation& situation, const Settings& settings, const std::string& user);

/// Whether the other device has refused the key.
bool isRefusal(const CommandResult& login);

/// What a failed login means. After a refusal this tries one more user name.
Check explainFailure(const CommandResult& login, const Situation& situation, const Settings& settings);

}  // namespace dorve

#endif  // DORVE_DOCTOR_LOGIN_H_

// SPDX-License-Identifier: MIT
#ifndef DORVE_DOCTOR_LOGIN_H_
#define DORVE_DOCTOR_LOGIN_H_

#include <string>

#include "dorve/doctor/command.h"
#include "dorve/doctor/report.h"
#include "dorve/doctor/settings.h"
#include "dorve/doctor/situation.h"

namespace dorve {

/// Logs in to the other device with ssh and runs `true` there. The login stores no host key,
/// forwards nothing and shares no connection. It checks the host key if `settings`, from `ssh -G`, say so.
/// With an empty `user`, ssh uses the user of its configuration.
CommandResult tryLogin(const Situation& situation, const Settings& settings, const std::string& user);

/// Returns whether the other device rejected the key.
bool isRefusal(const CommandResult& login);

/// The check for a failed login, with the cause. If the key was rejected, first tries one other user name.
Check explainFailure(const CommandResult& login, const Situation& situation, const Settings& settings);

}  // namespace dorve

#endif  // DORVE_DOCTOR_LOGIN_H_

// SPDX-License-Identifier: MIT
// dorve-unpair: reads its arguments, finds the SSH directory, removes what a pairing left there, prints it
// and returns the exit status.
#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "dorve/client/ssh_directory.h"
#include "dorve/keys/key_material.h"
#include "dorve/keys/unpair.h"
#include "dorve/net/endpoints.h"
#include "dorve/programs/arguments.h"
#include "dorve/programs/printable.h"

namespace {

constexpr dorve::Program kProgram = {
    "dorve-unpair", "[--dry-run | --help | --version]",
    "Removes what a pairing left in the SSH directory of the user who runs it: the key files, the other\n"
    "device's key in authorized_keys, and the block for the other device in config. See dorve-unpair(1).\n\n"
    "  --dry-run  only print what would be removed\n"
    "  --help     print this text\n"
    "  --version  print the version\n\n"
    "Exit status: 0 if nothing of a pairing is left, 1 if something is, 2 for bad usage.\n"};

std::string describe(const dorve::Remnant& remnant) {
  std::string path = dorve::printable(remnant.path);
  const std::string first = std::to_string(remnant.firstLine);
  if (remnant.firstLine == 0) return path;
  if (remnant.firstLine == remnant.lastLine) return "line " + first + " of " + path;
  return "lines " + first + " to " + std::to_string(remnant.lastLine) + " of " + path;
}

/// Prints everything that was found, and returns the exit status.
int report(const std::string& sshDir, const std::vector<dorve::Remnant>& remnants, bool dryRun) {
  const auto stays = [](const dorve::Remnant& remnant) { return !remnant.obstacle.empty(); };
  for (const dorve::Remnant& remnant : remnants) {
    if (!stays(remnant)) std::cout << (dryRun ? "Would remove " : "Removed ") << describe(remnant) << '\n';
  }
  if (remnants.empty()) {
    std::cout << "Nothing of a pairing is left in " << dorve::printable(sshDir) << ".\n";
  } else if (!std::ranges::all_of(remnants, stays)) {
    std::cout
        << "The other device still has its half of the pairing. Run dorve-unpair there too, as the user who "
           "paired it.\n";
  }
  std::cout.flush();
  for (const dorve::Remnant& remnant : remnants) {
    if (stays(remnant))
      std::cerr << "dorve-unpair: kept " << describe(remnant) << ": " << remnant.obstacle << '\n';
  }
  const bool isClean = dryRun ? remnants.empty() : std::ranges::none_of(remnants, stays);
  return dorve::endOutput(kProgram, isClean ? 0 : 1);
}

}  // namespace

int main(int count, char** arguments) {
  bool dryRun = false;
  const auto take = [&dryRun](int letter, const char*) { return dryRun = letter == 'n'; };
  if (const auto status =
          dorve::readArguments(kProgram, count, arguments, {{"dry-run", no_argument, nullptr, 'n'}}, take))
    return *status;

  const std::vector<std::string> candidates = dorve::sshDirectoryCandidates();
  const auto sshDir = std::ranges::find_if(candidates, dorve::isDirectory);
  if (sshDir == candidates.end()) {
    std::cout << "Nothing of a pairing is left: this user has no SSH directory.\n";
    return dorve::endOutput(kProgram, 0);
  }
  // Nothing is printed before the work is done, so a broken pipe interrupts nothing.
  const auto findOrRemove = dryRun ? dorve::findRemnants : dorve::removeRemnants;
  return report(*sshDir,
                findOrRemove(*sshDir, dorve::kPairingKeyName, {dorve::kServerAddress, dorve::kClientAddress}),
                dryRun);
}

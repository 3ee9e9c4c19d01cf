// SPDX-License-Identifier: MIT
#ifndef DORVE_LAB_LAB_H_
#define DORVE_LAB_LAB_H_

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "dorve/net/nq_socket.h"

namespace dorve {

/// What a program left behind: its status as a shell would give it (128 + N for signal N) and what it
/// printed.
struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

/// A program under way; killed, with all that it started on its host, when the object goes.
class Process {
 public:
  explicit Process(const std::vector<std::string>& command);
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();

  void kill();
  Outcome wait();

  /// What it has printed so far.
  std::string out() const;
  std::string err() const;

 private:
  pid_t pid;
  int outFd;
  int errFd;
};

/// The two hosts of lab/up, for as long as the object lives.
class Lab {
 public:
  explicit Lab(const std::string& option = "");
  Lab(const Lab&) = delete;
  Lab& operator=(const Lab&) = delete;
  ~Lab();

  struct Host {
    std::string pid;

    /// A path as seen on the host.
    std::string path(const std::string& name) const { return "/proc/" + pid + "/root" + name; }

    /// The command line that runs a shell command there. What is to be killed with it must be exec'ed.
    std::vector<std::string> command(const std::string& shellCommand) const;
    Outcome run(const std::string& shellCommand) const { return Process(command(shellCommand)).wait(); }

    /// Runs `make` on the host's network, for the sockets that a scripted peer needs.
    NqSocket socket(const std::function<void(NqSocket&)>& make) const;
  };

  Host server;
  Host client;
  std::string unavailable;  ///< why there is no lab, or empty

 private:
  pid_t pid = -1;
  int leash = -1;  ///< the lab's standard input: its end is the end of the lab
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);

/// Waits, at most ten seconds, until `holds`.
bool eventually(const std::function<bool()>& holds);

/// One lab for all cases of a suite.
class LabTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!lab.unavailable.empty()) GTEST_SKIP() << lab.unavailable;
  }

  Lab lab;
};

}  // namespace dorve

#endif  // DORVE_LAB_LAB_H_

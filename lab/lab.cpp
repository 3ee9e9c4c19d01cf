// SPDX-License-Identifier: MIT
#include "lab.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

namespace dorve {
namespace {

/// Starts `command` with the three streams given; it is killed when this process dies.
pid_t launch(const std::vector<std::string>& command, int in, int out, int err) {
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  const pid_t child = fork();
  if (child != 0) return child;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  setpgid(0, 0);  // a signal to a whole group on a host stays there
  if (in >= 0) dup2(in, STDIN_FILENO);
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  execv(arguments[0], arguments.data());
  _exit(127);
}

std::string contents(int fd) {
  struct stat status = {};
  fstat(fd, &status);
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  text.resize(static_cast<std::size_t>(pread(fd, text.data(), text.size(), 0)));
  return text;
}

}  // namespace

Process::Process(const std::vector<std::string>& command)
    : outFd(memfd_create("out", MFD_CLOEXEC)), errFd(memfd_create("err", MFD_CLOEXEC)) {
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  pid = launch(command, nothing, outFd, errFd);
  ::close(nothing);
}

Process::~Process() {
  kill();
  if (pid > 0) waitpid(pid, nullptr, 0);
  ::close(outFd);
  ::close(errFd);
}

void Process::kill() {
  if (pid > 0) ::kill(pid, SIGKILL);
}

std::string Process::out() const {
  return contents(outFd);
}

std::string Process::err() const {
  return contents(errFd);
}

Outcome Process::wait() {
  int status = 0;
  waitpid(pid, &status, 0);
  pid = -1;
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), contents(outFd), contents(errFd)};
}

std::vector<std::string> Lab::Host::command(const std::string& shellCommand) const {
  return {DORVE_LAB "/on", pid, "/bin/sh", "-c", shellCommand};
}

NqSocket Lab::Host::socket(const std::function<void(NqSocket&)>& make) const {
  NqSocket result;
  std::thread([&] {  // a thread of its own, because it never comes back from the host's network
    const int network = open(("/proc/" + pid + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
    if (setns(network, CLONE_NEWNET) == 0) {
      result = NqSocket(true);
      result.setTimeout(15000);
      make(result);
    }
    ::close(network);
  })
      .join();
  return result;
}

Lab::Lab(const std::string& option) {
  int in[2];
  int out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
  const int errors = memfd_create("err", MFD_CLOEXEC);
  std::vector<std::string> command{DORVE_LAB "/up"};
  if (!option.empty()) command.push_back(option);
  pid = launch(command, in[0], out[1], errors);
  ::close(in[0]);
  ::close(out[1]);
  leash = in[1];

  std::string said;
  char chunk[256];
  ssize_t size;
  while (std::count(said.begin(), said.end(), '\n') < 2 && (size = read(out[0], chunk, sizeof chunk)) > 0) {
    said.append(chunk, static_cast<std::size_t>(size));
  }
  ::close(out[0]);
  std::istringstream lines(said);
  std::string name;
  if (!(lines >> name >> server.pid >> name >> client.pid)) unavailable = "no lab: " + contents(errors);
  ::close(errors);
}

Lab::~Lab() {
  ::close(leash);
  if (pid > 0) waitpid(pid, nullptr, 0);
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

bool eventually(const std::function<bool()>& holds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  bool held = holds();
  while (!held && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    held = holds();
  }
  return held;
}

}  // namespace dorve

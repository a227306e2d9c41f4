// Kel::SignalFd: SIGINT and SIGTERM, blocked and delivered through a signalfd for as long
// as it lives: what a program that runs until it is told to stop (an agent, a watching
// tool) puts on its event loop beside its work.
#pragma once

#include <fmt/format.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Kel/Exception.h"

namespace Kel {

class SignalFd {
 public:
  SignalFd() {
    sigemptyset(&set_);
    sigaddset(&set_, SIGINT);
    sigaddset(&set_, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &set_, &old_) != 0) {
      throw Exception(fmt::format("cannot block SIGINT and SIGTERM: {}", std::strerror(errno)));
    }
    fd_ = signalfd(-1, &set_, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd_ < 0) {
      const int error = errno;
      sigprocmask(SIG_SETMASK, &old_, nullptr);
      throw Exception(fmt::format("signalfd failed: {}", std::strerror(error)));
    }
  }
  ~SignalFd() {
    close(fd_);
    sigprocmask(SIG_SETMASK, &old_, nullptr);
  }
  SignalFd(const SignalFd&) = delete;
  SignalFd& operator=(const SignalFd&) = delete;
  int fd() const noexcept { return fd_; }
  // Drains the signals that came; true when any did.
  bool drain() const noexcept {
    signalfd_siginfo info;
    bool any = false;
    while (read(fd_, &info, sizeof info) == sizeof info) {
      any = true;
    }
    return any;
  }

 private:
  sigset_t set_;
  sigset_t old_;
  int fd_ = -1;
};

}  // namespace Kel

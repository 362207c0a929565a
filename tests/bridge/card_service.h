// A PC/SC service (pcscd) with two virtual readers, in a world of its own: a mount and a network
// namespace hold its socket and the readers' ports, so that it meets neither the machine's own
// service nor that of another test.
#pragma once

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <string>

namespace qixx::testing {

class CardService {
 public:
  /// It ends with the test at the latest, also with one that is killed.
  CardService() {
    if (process_ != 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    // One that knows the option asks polkit about every client, and there is none in this world.
    ::execl("/bin/sh", "sh", "-c",
            "exec /usr/sbin/pcscd $(/usr/sbin/pcscd --help | grep -o -e --disable-polkit) "
            "--foreground </dev/null >/dev/null 2>&1",
            nullptr);
    ::_exit(127);
  }
  /// Kills it.
  ~CardService() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }

  /// Moves this process, and what it starts, into a world of its own. Returns why there can be no
  /// service here, an empty text when there can.
  [[nodiscard]] static std::string EnterWorld() {
    for (const char* file :
         {"/usr/sbin/pcscd", "/etc/reader.conf.d/vpcd", "/usr/bin/opensc-tool"}) {
      if (::access(file, F_OK) != 0) return "no package pcscd, vsmartcard-vpcd or opensc";
    }
    return EnterNamespaces() ? "" : "namespaces of one's own are not allowed";
  }

 private:
  static bool WriteText(const char* file, const std::string& text) {
    return static_cast<bool>(std::ofstream(file) << text << std::flush);
  }

  static bool RaiseLoopback() {
    const int made = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    const bool raised = ::ioctl(made, SIOCSIFFLAGS, &request) == 0;
    ::close(made);
    return raised;
  }

  static bool EnterNamespaces() {
    const uid_t user = ::geteuid();
    const gid_t group = ::getegid();
    if (::unshare(CLONE_NEWNS | CLONE_NEWNET | (user == 0 ? 0 : CLONE_NEWUSER)) != 0) return false;
    if (user != 0 && !(WriteText("/proc/self/setgroups", "deny") &&
                       WriteText("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") &&
                       WriteText("/proc/self/gid_map", "0 " + std::to_string(group) + " 1"))) {
      return false;
    }
    return ::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("none", "/run", "tmpfs", 0, nullptr) == 0 && ::mkdir("/run/pcscd", 0755) == 0 &&
           RaiseLoopback();
  }

  const pid_t process_ = ::fork();
};

}  // namespace qixx::testing

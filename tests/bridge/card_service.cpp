#include "tests/bridge/card_service.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

namespace qixx::testing {
namespace {

constexpr const char* kProgram = "/usr/sbin/pcscd";
constexpr const char* kReaders = "/etc/reader.conf.d/vpcd";

bool WriteText(const char* file, const std::string& text) {
  return static_cast<bool>(std::ofstream(file) << text << std::flush);
}

bool RaiseLoopback() {
  const int made = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request = {};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  const bool raised = ::ioctl(made, SIOCSIFFLAGS, &request) == 0;
  ::close(made);
  return raised;
}

bool EnterNamespaces() {
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

std::string Prepare() {
  if (::access(kProgram, X_OK) != 0) return "no pcscd (package pcscd)";
  if (::access(kReaders, R_OK) != 0) return "no virtual readers (package vsmartcard-vpcd)";
  return EnterNamespaces() ? "" : "namespaces of one's own are not allowed";
}

}  // namespace

std::string CardService::EnterWorld() {
  static const std::string fault = Prepare();
  return fault;
}

CardService::~CardService() {
  if (process_ != 0) Stop();
}

std::string CardService::Readers() {
  return TemporaryFolder::ReadFile(kReaders);
}

void CardService::Start(const std::string& readers) {
  std::filesystem::create_directories(folder_.Path("readers"));
  if (!readers.empty()) folder_.Write("readers/vpcd", readers);
  process_ = ::fork();
  if (process_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that is killed leaves none behind
    const int quiet = ::open("/dev/null", O_RDWR);
    for (const int descriptor : {0, 1, 2}) ::dup2(quiet, descriptor);
    ::execl(kProgram, kProgram, "--foreground", "-c", folder_.Path("readers").c_str(), nullptr);
    ::_exit(127);
  }
}

void CardService::Stop(int signal) {
  ::kill(process_, signal);
  ::waitpid(process_, nullptr, 0);
  process_ = 0;
}

}  // namespace qixx::testing

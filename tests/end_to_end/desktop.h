// A home, card readers, configuration files and the built service, whose trace and exit are read.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>
#include <utility>
#include <vector>

#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {

class Desktop {
 public:
  Desktop() {
    for (const char* sanitizer : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
      if (const char* value = ::getenv(sanitizer); value != nullptr) variables_[sanitizer] = value;
    }
    AddReader(1);
  }
  /// Kills what still runs.
  ~Desktop() {
    if (process_ != 0) Stop(SIGKILL);
  }

  [[nodiscard]] const TemporaryFolder& Home() const { return home_; }
  [[nodiscard]] std::string Path(const std::string& name) const { return home_.Path(name); }
  /// Writes an executable shell script into the home and returns its path.
  std::string WriteProgram(const std::string& script, const std::string& name = "program") const {
    // Made under another name: a script that is still open for writing cannot be started.
    const std::string made = home_.Write(name + ".new", "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(made, std::filesystem::perms::owner_all);
    std::filesystem::rename(made, home_.Path(name));
    return home_.Path(name);
  }

  /// Another folder of the library than the soft card's, before `Configure`.
  void Use(const std::string& libraries) { libraries_ = libraries; }
  /// Writes the system's file: trace and library settings, then `text`.
  void Configure(const std::string& text) const {
    home_.Write("system.conf", "[Trace]\nwatch=" + Path("trace.log") +
                                   "\n[Install]\nDirectory=" + libraries_ + "\n" + text);
  }
  /// Sets an environment variable of the service.
  void SetVariable(const std::string& name, const std::string& value) { variables_[name] = value; }

  void AddReader(int slot) const { std::filesystem::create_directories(Reader(slot)); }
  /// A line of the file that makes the module's functions fail.
  void SetModuleFaults(const std::string& lines) const {
    std::filesystem::rename(home_.Write("readers/module.new", lines), Path("readers/module"));
  }
  /// Certificates are files; without any, the card holds one text that is no certificate.
  void InsertCard(int slot, const std::vector<std::string>& certificates = {}) const {
    const std::filesystem::path reader = Reader(slot);
    std::filesystem::create_directories(reader / "card.new");
    for (const std::string& certificate : certificates) {
      std::filesystem::copy(certificate, reader / "card.new");
    }
    std::filesystem::rename(reader / "card.new", reader / "card");
  }
  void RemoveCard(int slot) const {
    const std::filesystem::path reader = Reader(slot);
    std::filesystem::rename(reader / "card", reader / "card.old");
    std::filesystem::remove_all(reader / "card.old");
  }

  /// Starts the service; `program` is another path of it. What the one before printed is gone.
  void Start(std::vector<std::string> words = {}, const std::string& program = QIXX_PROGRAM) {
    words.insert(words.begin(), program);
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    process_ = ::fork();
    if (process_ != 0) return;
    // The test's own caller may ignore signals; the service starts with none ignored.
    for (int signal = 1; signal < NSIG; ++signal) ::signal(signal, SIG_DFL);
    const bool isHome = ::chdir(home_.Path().c_str()) == 0;
    constexpr int kFresh = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC;
    ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
    ::dup2(::open("stdout.txt", kFresh, 0600), 1);
    ::dup2(::open("stderr.txt", kFresh, 0600), 2);
    ::clearenv();
    for (const auto& [name, value] : variables_) ::setenv(name.c_str(), value.c_str(), 1);
    if (isHome) ::execv(arguments.front(), arguments.data());
    ::_exit(127);
  }
  /// Sends `signal` (0: none) and waits for the end. The exit code, or minus the ending signal.
  int Stop(int signal) {
    const pid_t process = std::exchange(process_, 0);
    int status = 0;
    ::kill(process, signal);
    if (!Eventually([&] { return ::waitpid(process, &status, WNOHANG) == process; })) {
      ::kill(process, SIGKILL);
      ::waitpid(process, &status, 0);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  [[nodiscard]] pid_t Process() const { return process_; }

  [[nodiscard]] std::size_t TraceCount(const std::string& text) const {
    return static_cast<std::size_t>(std::ranges::count(TraceAfter(""), text));
  }
  /// Polls until the trace holds `text` as a whole line, `count` times.
  [[nodiscard]] bool Traced(const std::string& text, std::size_t count = 1) const {
    return Eventually([&] { return TraceCount(text) >= count; });
  }
  /// The trace's texts, without their headers, that begin with `head`, without it.
  [[nodiscard]] std::vector<std::string> TraceAfter(const std::string& head) const {
    std::vector<std::string> texts;
    std::istringstream file(home_.Read("trace.log"));
    for (std::string line; std::getline(file, line);) {
      line.erase(0, std::min(line.find(']'), line.size()) + std::strlen("] hh.mm.ss.mmm "));
      if (line.starts_with(head)) texts.push_back(line.substr(head.size()));
    }
    return texts;
  }
  /// Polls until the file of the home holds exactly `content`.
  [[nodiscard]] bool Holds(const std::string& file, const std::string& content) const {
    return Eventually([&] { return home_.Read(file) == content; });
  }

 private:
  [[nodiscard]] std::string Reader(int slot) const {
    return Path("readers/" + std::to_string(slot));
  }

  TemporaryFolder home_;
  std::string libraries_ = QIXX_SOFTCARD_FOLDER;
  std::map<std::string, std::string> variables_ = {{"HOME", home_.Path()},
                                                   {"PATH", "/usr/bin:/bin"},
                                                   {"qixconfigglobal", Path("system.conf")},
                                                   {"QIXX_SOFTCARD", Path("readers")}};
  pid_t process_ = 0;
};

}  // namespace qixx::testing

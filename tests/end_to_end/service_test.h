// A desktop for each case, with configuration files, and the built service, whose trace is read and
// which has to end in order when the case does.
#pragma once

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <iostream>
#include <map>
#include <sstream>
#include <utility>
#include <vector>

#include "tests/end_to_end/desktop.h"

namespace qixx::testing {

class ServiceTest : public ::testing::Test, protected Desktop {
 protected:
  using Lines = std::vector<std::string>;
  using Lists = std::vector<std::pair<std::string, Lines>>;

  /// A file of the home, empty when there is none.
  [[nodiscard]] std::string Read(const std::string& file) const { return Home().Read(file); }
  [[nodiscard]] std::string Errors() const { return Read("stderr.txt"); }
  [[nodiscard]] bool Exists(const std::string& file) const {
    return std::filesystem::exists(Path(file));
  }
  /// Polls until the file of the home holds exactly `content`.
  [[nodiscard]] bool Holds(const std::string& file, const std::string& content) const {
    return Eventually([&] { return Read(file) == content; });
  }
  /// Writes an executable shell script into the home and returns its path.
  std::string WriteProgram(const std::string& script, const std::string& name = "program") const {
    const std::string program = Home().Write(name, "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    return program;
  }
  /// A command that writes `word` into a file of the home, which is named like it by itself.
  [[nodiscard]] std::string Echo(const std::string& word, const std::string& file = {}) const {
    return "/bin/echo " + word + " > " + Path(file.empty() ? word : file);
  }
  /// Polls until it has run.
  [[nodiscard]] bool Ran(const std::string& word) const { return Holds(word, word + "\n"); }

  /// Writes the system's file: trace and library settings, then `text`.
  void Configure(const std::string& text) const {
    Home().Write("system.conf", "[Trace]\nwatch=" + Path("trace.log") +
                                    "\n[Install]\nDirectory=" + libraries_ + "\n" + text);
  }
  /// Watchers as they stand behind "Watch=", and the commands of sections like "One Insert".
  void ConfigureWatchers(const std::string& watchers, const Lists& lists) const {
    std::string text = "[Command]\nWatch=" + watchers + "\n";
    for (const auto& [section, commands] : lists) {
      text.append("[Watch ").append(section).append("]\n");
      for (std::size_t n = 1; const std::string& command : commands) {
        text.append(std::to_string(n++)).append("=").append(command).append("\n");
      }
    }
    Configure(text);
  }
  /// One watcher with `options`.
  void ConfigureWatch(const std::string& options, const Lines& insert, const Lines& remove = {}) {
    ConfigureWatchers(options + " config Watch", {{"Insert", insert}, {"Remove", remove}});
  }
  /// Starts it as well, and waits for the end of the first round.
  void Watch(const std::string& options, const Lines& insert, const Lines& remove = {}) {
    ConfigureWatch(options, insert, remove);
    Start();
    Await("Watch - Event");
  }

  /// Moves a card into reader 1, or out of it, and waits until the service has dealt with it.
  void Insert(const std::string& files = {}) const {
    const std::size_t before = TraceCount("Watch - Connected slot 1");
    InsertCard(1, files);
    Await("Watch - Connected slot 1", before + 1);
  }
  void Remove() const {
    const std::size_t before = TraceCount("Watch - Disconnected slot 1");
    RemoveCard(1);
    Await("Watch - Disconnected slot 1", before + 1);
  }

  /// Sets an environment variable of the service.
  void SetVariable(const std::string& name, const std::string& value) { variables_[name] = value; }
  /// Starts the service; `program` is another path of it. What the one before printed is gone.
  void Start(const Lines& words = {}, const std::string& program = QIXX_PROGRAM) {
    // The test's own caller may ignore signals; the service starts with none ignored.
    std::string line = "cd " + Home().Path() + " && exec env --default-signal";
    for (const auto& [name, value] : variables_) line += " " + name + "='" + value + "'";
    line += " " + program;
    for (const std::string& word : words) line += " '" + word + "'";
    line += " </dev/null >stdout.txt 2>stderr.txt";
    const pid_t forked = ::fork();
    if (forked < 0) throw std::runtime_error("no process");
    if (forked == 0) ::_exit(::execl("/bin/sh", "sh", "-c", line.c_str(), nullptr));
    process_ = forked;
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
  void Stop() { EXPECT_EQ(Stop(SIGTERM), 0); }
  /// Runs the service up to its own end; the exit code.
  int RunToItsEnd(const Lines& words = {}) {
    Start(words);
    return Stop(0);
  }
  void TearDown() override {
    if (process_ != 0) Stop();
    if (HasFailure()) std::cout << "trace:\n" << Read("trace.log") << "errors:\n" << Errors();
  }

  /// The trace's texts, without their headers, that begin with `head`, without it.
  [[nodiscard]] Lines TraceAfter(const std::string& head) const {
    Lines texts;
    std::istringstream file(Read("trace.log"));
    for (std::string line; std::getline(file, line);) {
      line.erase(0, std::min(line.find(']'), line.size()) + std::strlen("] hh.mm.ss.mmm "));
      if (line.starts_with(head)) texts.push_back(line.substr(head.size()));
    }
    return texts;
  }
  [[nodiscard]] std::size_t TraceCount(const std::string& text) const {
    return static_cast<std::size_t>(std::ranges::count(TraceAfter(""), text));
  }
  /// Polls until the trace holds `text` as a whole line, `count` times.
  [[nodiscard]] bool Traced(const std::string& text, std::size_t count = 1) const {
    return Eventually([&] { return TraceCount(text) >= count; });
  }
  /// Ends the case when it does not.
  void Await(const std::string& text, std::size_t count = 1) const {
    if (!Traced(text, count)) throw std::runtime_error("not traced: " + text);
  }

  std::string libraries_ = QIXX_SOFTCARD_FOLDER;
  std::map<std::string, std::string> variables_ = {{"HOME", Home().Path()},
                                                   {"qixconfigglobal", Path("system.conf")},
                                                   {"QIXX_SOFTCARD", Path("readers")}};
  pid_t process_ = 0;
};

}  // namespace qixx::testing

// A desktop for each case, whose service has to end in order when the case does.
#pragma once

#include <gmock/gmock.h>

#include <iostream>

#include "tests/end_to_end/desktop.h"

namespace qixx::testing {

class ServiceTest : public ::testing::Test, protected Desktop {
 protected:
  using Lines = std::vector<std::string>;
  using Lists = std::vector<std::pair<std::string, Lines>>;

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
  /// Runs the service with a fresh trace up to its own end; the exit code.
  int RunToItsEnd(const Lines& words = {}) {
    std::filesystem::remove(Path("trace.log"));
    Start(words);
    return Stop(0);
  }
  void Stop() { EXPECT_EQ(Stop(SIGTERM), 0); }
  using Desktop::Stop;

  /// Ends the case when the trace does not come to hold `text` as a whole line, `count` times.
  void Await(const std::string& text, std::size_t count = 1) const {
    if (!Traced(text, count)) throw std::runtime_error("not traced: " + text);
  }
  /// Moves a card into reader 1, or out of it, and waits until the service has dealt with it.
  void Insert(const Lines& certificates = {}) const {
    const std::size_t before = TraceCount("Watch - Connected slot 1");
    InsertCard(1, certificates);
    Await("Watch - Connected slot 1", before + 1);
  }
  void Remove() const {
    const std::size_t before = TraceCount("Watch - Disconnected slot 1");
    RemoveCard(1);
    Await("Watch - Disconnected slot 1", before + 1);
  }

  /// A command that writes `word` into a file of the home, which is named like it by itself.
  [[nodiscard]] std::string Echo(const std::string& word, const std::string& file = {}) const {
    return "/bin/echo " + word + " > " + Path(file.empty() ? word : file);
  }
  /// Polls until it has run.
  [[nodiscard]] bool Ran(const std::string& word) const { return Holds(word, word + "\n"); }
  [[nodiscard]] bool Exists(const std::string& file) const {
    return std::filesystem::exists(Path(file));
  }
  /// A file of the home, empty when there is none.
  [[nodiscard]] std::string Read(const std::string& file) const { return Home().Read(file); }
  [[nodiscard]] std::string Errors() const { return Read("stderr.txt"); }

  void TearDown() override {
    if (Process() != 0) Stop();
    if (HasFailure()) std::cout << "trace:\n" << Read("trace.log") << "errors:\n" << Errors();
  }
};

}  // namespace qixx::testing

// A desktop for each case, whose service has to end in order when the case does.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "tests/end_to_end/desktop.h"

namespace qixx::testing {

class ServiceTest : public ::testing::Test {
 protected:
  using Lines = std::vector<std::string>;

  /// A configuration that watches with `options` and has these command lists.
  void Configure(const std::string& options, const Lines& insert, const Lines& remove = {}) {
    desktop.Configure("[Command]\nWatch=" + options + " config Watch\n" +
                      Section("Watch Insert", insert) + Section("Watch Remove", remove));
  }
  /// Configures, starts, and waits for the end of the first round.
  void Watch(const std::string& options, const Lines& insert, const Lines& remove = {}) {
    Configure(options, insert, remove);
    desktop.Start();
    ASSERT_TRUE(desktop.Traced("Watch - Event"));
  }
  /// A command line that writes `word` into a file of the home.
  [[nodiscard]] std::string Echo(const std::string& word, const std::string& file) const {
    return "/bin/echo " + word + " > " + desktop.Path(file);
  }
  [[nodiscard]] bool Exists(const std::string& file) const {
    return std::filesystem::exists(desktop.Path(file));
  }
  /// A file of the home, empty when there is none.
  [[nodiscard]] std::string Read(const std::string& file) const {
    return desktop.Home().Read(file);
  }
  [[nodiscard]] std::string Errors() const { return Read("stderr.txt"); }
  /// Moves a card into reader 1, or out of it, and waits until the service has dealt with it.
  void InsertCard(const Lines& certificates = {}) {
    const std::size_t before = desktop.TraceCount("Watch - Connected slot 1");
    desktop.InsertCard(1, certificates);
    ASSERT_TRUE(desktop.Traced("Watch - Connected slot 1", before + 1));
  }
  void RemoveCard() {
    const std::size_t before = desktop.TraceCount("Watch - Disconnected slot 1");
    desktop.RemoveCard(1);
    ASSERT_TRUE(desktop.Traced("Watch - Disconnected slot 1", before + 1));
  }
  /// Runs the service with a fresh trace up to its own end; the exit code.
  int RunToItsEnd(const Lines& words) {
    std::filesystem::remove(desktop.Path("trace.log"));
    desktop.Start(words);
    return desktop.Stop(0);
  }
  void Stop() { EXPECT_EQ(desktop.Stop(), 0); }

  void TearDown() override {
    if (desktop.Process() != 0) Stop();
    if (HasFailure()) std::cout << "trace:\n" << Read("trace.log") << "errors:\n" << Errors();
  }

  static std::string Section(const std::string& name, const Lines& commands) {
    std::string text = "[" + name + "]\n";
    for (std::size_t n = 0; n < commands.size(); ++n) {
      text += std::to_string(n + 1) + "=" + commands[n] + "\n";
    }
    return text;
  }

  Desktop desktop;
};

}  // namespace qixx::testing

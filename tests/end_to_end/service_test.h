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
    desktop.Configure("[Command]\nWatch=" + options + " config Watch\n[Watch Insert]\n" +
                      Entries(insert) + "[Watch Remove]\n" + Entries(remove));
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
  void Stop() { EXPECT_EQ(desktop.Stop(), 0); }

  void TearDown() override {
    if (desktop.Process() != 0) Stop();
    if (HasFailure()) std::cout << desktop.Report();
  }

  static std::string Entries(const Lines& commands) {
    std::string text;
    for (std::size_t n = 0; n < commands.size(); ++n) {
      text += std::to_string(n + 1) + "=" + commands[n] + "\n";
    }
    return text;
  }

  Desktop desktop;
};

}  // namespace qixx::testing

// A desktop of its own for one test: a home, card readers, configuration files and the built
// service, whose trace and exit the test reads.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "tests/support/temporary_folder.h"

namespace qixx::testing {

/// What the service finds in place of the soft card: a standard module, or nothing.
enum class Module { kPlain, kNone };

class Desktop {
 public:
  Desktop();
  /// Kills what still runs.
  ~Desktop();
  Desktop(const Desktop&) = delete;
  Desktop& operator=(const Desktop&) = delete;

  [[nodiscard]] const TemporaryFolder& Home() const { return home_; }
  [[nodiscard]] std::string Path(const std::string& name) const { return home_.Path(name); }
  /// A command line that writes `word` into a file of the home.
  [[nodiscard]] std::string Echo(const std::string& word, const std::string& file) const;

  /// Writes an executable shell script into the home and returns its path.
  std::string WriteProgram(const std::string& script, const std::string& name = "program") const;

  /// Another library than the soft card, before `Configure`.
  void Use(Module module);
  /// Writes the system's file: trace and library settings, then `text`.
  void Configure(const std::string& text) const;
  /// Sets an environment variable of the service.
  void SetVariable(const std::string& name, const std::string& value) { variables_[name] = value; }

  void AddReader(int slot) const;
  /// A line of the file that makes the module's functions fail.
  void SetModuleFaults(const std::string& lines) const;
  /// Certificates are files; without any, the card holds one text that is no certificate.
  void InsertCard(int slot, const std::vector<std::string>& certificates = {}) const;
  void RemoveCard(int slot) const;

  /// Starts the service; `program` is another path of it.
  void Start(const std::vector<std::string>& arguments = {}, const std::string& program = {});
  /// Sends `signal` (0: none) and waits for the end. The exit code, or minus the ending signal.
  int Stop(int signal = SIGTERM);
  [[nodiscard]] pid_t Process() const { return process_; }

  /// The trace's texts without headers.
  [[nodiscard]] std::vector<std::string> Trace() const;
  [[nodiscard]] std::size_t TraceCount(const std::string& text) const;
  /// Polls until the trace holds `text` as a whole line, `count` times.
  [[nodiscard]] bool Traced(const std::string& text, std::size_t count = 1) const;
  /// The trace's lines that begin with `head`, without it.
  [[nodiscard]] std::vector<std::string> TraceAfter(const std::string& head) const;
  /// Polls until the file of the home holds exactly `content`.
  [[nodiscard]] bool Holds(const std::string& file, const std::string& content) const;
  /// Everything that a test wants to see when it failed.
  [[nodiscard]] std::string Report() const;

 private:
  TemporaryFolder home_;
  std::string libraries_ = QIXX_SOFTCARD_FOLDER;
  std::map<std::string, std::string> variables_;
  pid_t process_ = 0;
};

}  // namespace qixx::testing

#include "tests/end_to_end/desktop.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "tests/support/eventually.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kStampLength = 14;  // " hh.mm.ss.mmm "

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

Desktop::Desktop() {
  variables_ = {{"HOME", home_.Path()},
                {"PATH", "/usr/bin:/bin"},
                {"qixconfigglobal", home_.Path("system.conf")},
                {"QIXX_SOFTCARD", home_.Path("readers")}};
  for (const char* sanitizer : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
    if (const char* value = ::getenv(sanitizer); value != nullptr) variables_[sanitizer] = value;
  }
  fs::create_directories(home_.Path("readers"));
  AddReader(1);
}

Desktop::~Desktop() {
  if (process_ != 0) Stop(SIGKILL);
}

void Desktop::Use(Module module) {
  libraries_ = module == Module::kPlain ? QIXX_SOFTCARD_PLAIN_FOLDER : Path("no-library");
}

std::string Desktop::Echo(const std::string& word, const std::string& file) const {
  return "/bin/echo " + word + " > " + Path(file);
}

std::string Desktop::WriteProgram(const std::string& script, const std::string& name) const {
  // Made under another name: a script that is still open for writing cannot be started.
  const std::string made = home_.Write(name + ".new", "#!/bin/sh\n" + script + "\n");
  fs::permissions(made, fs::perms::owner_all);
  fs::rename(made, home_.Path(name));
  return home_.Path(name);
}

void Desktop::Configure(const std::string& text) const {
  home_.Write("system.conf", "[Trace]\nwatch=" + Path("trace.log") +
                                 "\n[Install]\nDirectory=" + libraries_ + "\n" + text);
}

void Desktop::AddReader(int slot) const {
  fs::create_directories(home_.Path("readers/" + std::to_string(slot)));
}

void Desktop::SetModuleFaults(const std::string& lines) const {
  home_.Write("readers/module.new", lines);
  fs::rename(home_.Path("readers/module.new"), home_.Path("readers/module"));
}

void Desktop::InsertCard(int slot, const std::vector<std::string>& certificates) const {
  AddReader(slot);
  const fs::path reader = home_.Path("readers/" + std::to_string(slot));
  fs::create_directories(reader / "card.new");
  for (const std::string& certificate : certificates) {
    fs::copy_file(certificate, reader / "card.new" / fs::path(certificate).filename());
  }
  fs::rename(reader / "card.new", reader / "card");
}

void Desktop::RemoveCard(int slot) const {
  const fs::path reader = home_.Path("readers/" + std::to_string(slot));
  fs::rename(reader / "card", reader / "card.old");
  fs::remove_all(reader / "card.old");
}

void Desktop::Start(const std::vector<std::string>& arguments, const std::string& program) {
  std::vector<std::string> words = {program.empty() ? std::string(QIXX_PROGRAM) : program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<std::string> settings;
  settings.reserve(variables_.size());
  for (const auto& [name, value] : variables_)
    settings.emplace_back(name).append("=").append(value);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addchdir_np(&actions, home_.Path().c_str());
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "stdout.txt", O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, "stderr.txt", O_WRONLY | O_CREAT | O_APPEND, 0600);
  // The test's own caller may ignore signals; the service starts with none ignored.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  sigset_t all;
  sigfillset(&all);
  posix_spawnattr_setsigdefault(&attributes, &all);
  const int failure = ::posix_spawn(&process_, words.front().c_str(), &actions, &attributes,
                                    Pointers(words).data(), Pointers(settings).data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) throw std::runtime_error("cannot start " + words.front());
}

int Desktop::Stop(int signal) {
  if (signal != 0) ::kill(process_, signal);
  int status = 0;
  const pid_t process = process_;
  const bool ended = Eventually([&] { return ::waitpid(process, &status, WNOHANG) == process; });
  if (!ended) {
    ::kill(process, SIGKILL);
    ::waitpid(process, &status, 0);
  }
  process_ = 0;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::vector<std::string> Desktop::Trace() const {
  std::vector<std::string> texts;
  std::istringstream file(home_.Read("trace.log"));
  for (std::string line; std::getline(file, line);) {
    const std::size_t header = line.find(']');
    if (header == std::string::npos || line.size() < header + 1 + kStampLength) continue;
    texts.push_back(line.substr(header + 1 + kStampLength));
  }
  return texts;
}

std::size_t Desktop::TraceCount(const std::string& text) const {
  const std::vector<std::string> lines = Trace();
  return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), text));
}

bool Desktop::Traced(const std::string& text, std::size_t count) const {
  return Eventually([&] { return TraceCount(text) >= count; });
}

std::vector<std::string> Desktop::TraceAfter(const std::string& head) const {
  std::vector<std::string> rest;
  for (const std::string& line : Trace()) {
    if (line.starts_with(head)) rest.push_back(line.substr(head.size()));
  }
  return rest;
}

bool Desktop::Holds(const std::string& file, const std::string& content) const {
  return Eventually([&] { return home_.Read(file) == content; });
}

std::string Desktop::Report() const {
  return "trace:\n" + home_.Read("trace.log") + "errors:\n" + home_.Read("stderr.txt");
}

}  // namespace qixx::testing

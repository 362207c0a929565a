// A home with card readers, of which reader 1 is there.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {

class Desktop {
 public:
  Desktop() { AddReader(1); }

  [[nodiscard]] const TemporaryFolder& Home() const { return home_; }
  [[nodiscard]] std::string Path(const std::string& name) const { return home_.Path(name); }

  void AddReader(int slot) const {
    std::filesystem::create_directories(Path("readers/" + std::to_string(slot)));
  }
  /// A line of the file that makes the module's functions fail.
  void SetModuleFaults(const std::string& lines) const {
    std::filesystem::rename(home_.Write("readers/module.new", lines), Path("readers/module"));
  }
  /// `files` are paths of certificates with blanks between them.
  void InsertCard(int slot, const std::string& files = {}) const { Card("insert", slot, files); }
  void RemoveCard(int slot) const { Card("remove", slot); }

 private:
  void Card(const std::string& word, int slot, const std::string& files = {}) const {
    const std::string line = "QIXX_SOFTCARD=" + Path("readers") + " " QIXX_CARD " " + word + " " +
                             std::to_string(slot) + " " + files;
    if (std::system(line.c_str()) != 0) throw std::runtime_error("failed: " + line);
  }

  const TemporaryFolder home_;
};

}  // namespace qixx::testing

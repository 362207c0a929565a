// A folder of its own for one test, removed with everything in it.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace qixx::testing {

class TemporaryFolder {
 public:
  TemporaryFolder() {
    if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary folder");
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;

  [[nodiscard]] const std::string& Path() const { return path_; }
  /// The path of a file or folder below; nothing is made.
  [[nodiscard]] std::string Path(const std::string& name) const { return path_ + "/" + name; }
  /// Writes a file, making the folders above it, and returns its path.
  std::string Write(const std::string& name, const std::string& content) const {
    const std::filesystem::path file = Path(name);
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
    return file.string();
  }
  /// The content of a file below, empty when it cannot be read.
  [[nodiscard]] std::string Read(const std::string& name) const { return ReadFile(Path(name)); }
  static std::string ReadFile(const std::string& file) {
    std::ostringstream content;
    // Unlike an iterator this throws nothing when a read fails, as of a process that ends
    // meanwhile.
    content << std::ifstream(file, std::ios::binary).rdbuf();
    return content.str();
  }

 private:
  std::string path_ = (std::filesystem::temp_directory_path() / "qixxwatch-XXXXXX").string();
};

}  // namespace qixx::testing

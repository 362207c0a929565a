// Memory that runs out: whatever was being done, what is in the file stays whole.
#include <gtest/gtest.h>

#include <string>

#include "config/file.h"
#include "tests/support/failing_memory.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {
namespace {

TEST(ConfigMemory, HalfReadOrHalfChangedTextIsNeverWritten) {
  // Opening migrates the text, so it is changed already when memory runs out on the way.
  const std::string old = "[Soft Tokens]\r\n1=a\r\n[Packages]\n";
  const std::string migrated = "[SoftToken]\n1=a\n[Install Packages]\n";
  const std::string section = "A name that is too long for a string without an allocation";
  const TemporaryFolder folder;
  bool set = false;
  for (int count = 0; !set; ++count) {
    SCOPED_TRACE(count);
    const std::string path = folder.Write("a.conf", old);
    bool opened = false;
    {
      config::CConfigFile file;
      allocationsLeft = count;
      try {
        file.Open(true, path, true);
        opened = true;
        file.SetValue(section, "E", "v");
        set = true;
      } catch (const std::bad_alloc&) {
      }
      allocationsLeft = -1;
    }
    std::string expected = migrated;
    if (set) expected.append("\n[").append(section).append("]\nE=v\n");
    ASSERT_EQ(folder.Read("a.conf"), opened ? expected : old);
  }
}

}  // namespace
}  // namespace qixx::testing

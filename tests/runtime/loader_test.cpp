#include "runtime/loader.h"

#include <gmock/gmock.h>

#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx {
namespace {

const std::string kFixture = QIXX_LOADER_FIXTURE;

TEST(Library, IsSearchedForOnceUntilUnloaded) {
  const testing::TemporaryFolder folder;
  SetLibraryDirectory(folder.Path().c_str());
  const testing::TraceCapture trace;
  CLibrary library;
  EXPECT_FALSE(library.Load("libqixlate.so"));
  const std::string file =
      folder.Write("libqixlate.so", testing::TemporaryFolder::ReadFile(kFixture));
  EXPECT_FALSE(library.Load("libqixlate.so"));
  EXPECT_TRUE(library.IsLoaded()) << "also when it failed, as intended";
  library.Unload();
  EXPECT_TRUE(library.Load("libqixlate.so"));
  EXPECT_NE(library.GetProc("RunCommand"), nullptr);
  library.Unload();
  SetLibraryDirectory(nullptr);
  EXPECT_THAT(trace.Lines(), ::testing::ElementsAre("Helper - Failed to load 'libqixlate.so'",
                                                    "Helper - Loaded '" + file + "'",
                                                    "Helper - Unloaded '" + file + "'"));
}

TEST(EntryPoints, AreCalledWithACopy) {
  const std::pair<const char*, bool> rows[] = {{",RunCommand one, two", true},
                                               {" RunCommand x", false},
                                               {",RunCommand", false},
                                               {",Missing x", false},
                                               {",Throw x", false}};
  for (const auto& [behind, called] : rows) {
    const std::string text = kFixture + behind;
    std::string copy = text;
    EXPECT_EQ(CallExternal(copy.data()), called) << text;
    EXPECT_EQ(copy, text);
  }
}

}  // namespace
}  // namespace qixx

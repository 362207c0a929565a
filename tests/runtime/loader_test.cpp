#include "runtime/loader.h"

#include <gmock/gmock.h>

#include "runtime/files.h"
#include "tests/runtime/fixed_settings.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx {
namespace {

using testing::TemporaryFolder;

const std::string kFixture = QIXX_LOADER_FIXTURE;

TEST(Loader, SearchesInOrder) {
  const TemporaryFolder folder;
  InitProductIdentity();
  testing::FixedSettings settings;
  settings.texts["Install:Directory"] = folder.Path("second");
  SetLibraryDirectory(folder.Path("third").c_str());
  const std::string name = "libqixsearched.so";
  for (const char* const place : {"third/", "second/"}) {
    // A copy of its own is a library of its own to the platform's loader.
    const std::string file = folder.Write(place + name, TemporaryFolder::ReadFile(kFixture));
    char path[kTextSize] = "";
    CloseLibrary(LoadLibrarySearch(name.c_str(), path));
    EXPECT_EQ(path, file);
  }
  SetLibraryDirectory(nullptr);
  EXPECT_EQ(OpenLibrary(""), nullptr) << "the program itself is not meant";
  EXPECT_EQ(FindSymbol(nullptr, "malloc"), nullptr);
}

TEST(Library, TriesOnceUntilUnloaded) {
  const TemporaryFolder folder;
  const std::string file = folder.Path("liblate.so");
  const testing::TraceCapture trace;
  CLibrary library;
  EXPECT_FALSE(library.Load(file.c_str()));
  folder.Write("liblate.so", TemporaryFolder::ReadFile(kFixture));
  EXPECT_FALSE(library.Load(file.c_str()));
  EXPECT_TRUE(library.IsLoaded()) << "also when it failed, as intended";
  library.Unload();
  EXPECT_TRUE(library.Load(file.c_str()));
  EXPECT_NE(library.GetProc("EntryAdmin"), nullptr);
  library.Unload();
  EXPECT_THAT(trace.Lines(), ::testing::ElementsAre("Helper - Failed to load '" + file + "'",
                                                    "Helper - Loaded '" + file + "'",
                                                    "Helper - Unloaded '" + file + "'"));
}

TEST(EntryPoints, AreCalledWithACopy) {
  const std::pair<std::string, bool> kRows[] = {
      {kFixture + ",RunCommand one, two", true}, {kFixture + ",RunCommand ", true},
      {kFixture + " RunCommand x", false},       {kFixture + ",RunCommand", false},
      {kFixture + ",Missing x", false},          {",RunCommand x", false}};
  for (const auto& [text, called] : kRows) {
    std::string copy = text;
    EXPECT_EQ(CallExternal(copy.data()), called) << text;
    EXPECT_EQ(copy, text);
  }
  InitProductIdentity();
  EXPECT_EQ(CallAdminEntry("early"), -1);
  const LibraryHandle loaded = OpenLibrary(kFixture.c_str());
  EXPECT_EQ(CallAdminEntry("-show card"), 10);
  CloseLibrary(loaded);
}

}  // namespace
}  // namespace qixx

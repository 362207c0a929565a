#include "runtime/loader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/runtime/installation.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx {
namespace {

using ::testing::ElementsAre;
using testing::Installation;
using testing::TemporaryFolder;
using testing::TraceCapture;

constexpr const char* kFixture = QIXX_LOADER_FIXTURE;

/// Puts the library under the name and returns its path. A copy of its own is a library of its own
/// to the platform's loader.
std::string Place(const TemporaryFolder& folder, const std::string& name) {
  std::filesystem::create_directories(std::filesystem::path(folder.Path(name)).parent_path());
  std::filesystem::copy_file(kFixture, folder.Path(name),
                             std::filesystem::copy_options::overwrite_existing);
  return folder.Path(name);
}

/// Keeps the fixture loaded, so that its record outlives the calls.
class Fixture {
 public:
  ~Fixture() { CloseLibrary(library_); }
  [[nodiscard]] std::string Arguments() const {
    return static_cast<const char*>(FindSymbol(library_, "lastArguments"));
  }
  [[nodiscard]] int Calls() const { return *static_cast<int*>(FindSymbol(library_, "callCount")); }

 private:
  LibraryHandle library_ = OpenLibrary(kFixture);
};

TEST(Loader, RefusesWhatMeansTheProgramItself) {
  char path[kTextSize] = "before";
  EXPECT_EQ(OpenLibrary(nullptr), nullptr);
  EXPECT_EQ(OpenLibrary(""), nullptr);
  EXPECT_EQ(LoadLibrarySearch("", path), nullptr);
  EXPECT_EQ(FindSymbol(nullptr, "malloc"), nullptr);
  EXPECT_STREQ(path, "before");
}

TEST(Loader, SearchesInOrder) {
  const TemporaryFolder& root = Installation();
  const TemporaryFolder libraries;
  EXPECT_STREQ(LibraryDirectory(), "/usr/lib/");
  SetLibraryDirectory(libraries.Path().c_str());
  EXPECT_EQ(LibraryDirectory(), libraries.Path() + "/");
  EXPECT_EQ(InstallDirectory(), root.Path("lib/"));

  char path[kTextSize] = "";
  const std::string third = Place(libraries, "libsearched.so");
  LibraryHandle library = LoadLibrarySearch("libsearched.so", path);
  EXPECT_NE(library, nullptr);
  EXPECT_EQ(path, third);
  CloseLibrary(library);
  const std::string second = Place(root, "lib/libsearched.so");
  library = LoadLibrarySearch("libsearched.so", path);
  EXPECT_EQ(path, second);
  CloseLibrary(library);
  library = LoadLibrarySearch(third.c_str(), std::span(path).first(6));
  EXPECT_EQ(path, third.substr(0, 5)) << "the name as given comes first, and is cut";
  CloseLibrary(library);
  SetLibraryDirectory(nullptr);
  EXPECT_STREQ(LibraryDirectory(), "/usr/lib/");
}

TEST(Library, TriesOnceUntilUnloaded) {
  const TemporaryFolder folder;
  const std::string file = folder.Path("liblate.so");
  const TraceCapture trace;
  CLibrary library;
  EXPECT_FALSE(library.IsLoaded());
  EXPECT_FALSE(library.Load(file.c_str()));
  EXPECT_TRUE(library.IsLoaded());
  EXPECT_EQ(library.GetProc("EntryAdmin"), nullptr);
  Place(folder, "liblate.so");
  EXPECT_FALSE(library.Load(file.c_str()));
  library.Unload();
  EXPECT_FALSE(library.IsLoaded());
  EXPECT_TRUE(library.Load(file.c_str()));
  EXPECT_NE(library.GetProc("EntryAdmin"), nullptr);
  EXPECT_EQ(library.GetProc("Missing"), nullptr);
  library.Unload();
  EXPECT_THAT(trace.Lines(),
              ElementsAre("Helper - Failed to load '" + file + "'",
                          "Helper - Loaded '" + file + "'", "Helper - Unloaded '" + file + "'"));
}

TEST(Library, LoadsComponents) {
  const std::string file = Place(Installation(), "lib/qixxadm.so");
  const TraceCapture trace;
  {
    CLibrary library;
    EXPECT_TRUE(library.LoadComponent("adm"));
    EXPECT_FALSE(CLibrary().LoadComponent("none"));
  }
  EXPECT_THAT(trace.Lines(), ElementsAre("Helper - Loaded '" + file + "'",
                                         "Helper - Component 'none' not available",
                                         "Helper - Unloaded '" + file + "'"));
}

TEST(CallExternal, Texts) {
  const std::string fixture = kFixture;
  const struct {
    const char* name;
    std::string text;
    std::string arguments;
    bool called;
    bool loadFails;
  } kRows[] = {
      {"arguments", fixture + ",RunCommand one, two", "one, two", true, false},
      {"no arguments", fixture + ",RunCommand ", "", true, false},
      {"no comma", fixture + " RunCommand x", "", false, false},
      {"no blank behind the comma", fixture + ",RunCommand", "", false, false},
      {"empty library", ",RunCommand x", "", false, true},
      {"missing library", "/missing.so,Run x", "", false, true},
      {"missing function", fixture + ",Missing x", "", false, false},
      {"empty function", fixture + ", x", "", false, false},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    const Fixture loaded;
    const TraceCapture trace;
    std::string text = row.text;
    EXPECT_EQ(CallExternal(text.data()), row.called);
    EXPECT_EQ(text, row.text);
    EXPECT_EQ(loaded.Calls(), row.called ? 1 : 0);
    EXPECT_EQ(loaded.Arguments(), row.arguments);
    const auto lines = trace.Lines();
    ASSERT_EQ(lines.size(), row.loadFails ? 3U : 2U);
    EXPECT_EQ(lines.back(),
              row.called ? "Helper - Call external ... OK" : "Helper - Call external ... FAILED");
  }
}

TEST(CallAdminEntry, AsksTheMainLibrary) {
  Installation();
  EXPECT_EQ(CallAdminEntry("early"), -1);
  const Fixture loaded;
  EXPECT_EQ(CallAdminEntry("-show card"), 42);
  EXPECT_EQ(loaded.Arguments(), "-show card");
}

}  // namespace
}  // namespace qixx

// Lookup trees and the cache that shares them.
#include "config/tree.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "config/file.h"
#include "tests/config/loaded_file.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

TEST(TreeCache, SharesEqualTexts) {
  CConfigTree cache;
  const LookupTree* const a = cache.Attach("/a", "[A]\n");
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(cache.Attach("/a", "[A]\n"), a);
  // In use by two: the new text gets no tree until both have let go.
  EXPECT_EQ(cache.Attach("/a", "[B]\n"), nullptr);
  cache.Release(a);
  EXPECT_EQ(cache.Attach("/a", "[B]\n"), nullptr);
  cache.Release(a);
  EXPECT_EQ(cache.Attach("/a", "[A]\n"), a);  // still kept
  cache.Release(a);
  cache.Release(a);  // one too many
  const LookupTree* const b = cache.Attach("/a", "[B]\n");
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->Text(), "[B]\n");
  cache.Release(b);
}

TEST(TreeCache, TakesTheOldestPlace) {
  TraceCapture trace;
  std::unique_ptr<const LookupTree> kept;
  {
    CConfigTree cache;
    kept.reset(cache.Attach("/a", "[A]\n"));
    const LookupTree* const b = cache.Attach("/b", "[B]\n");
    const LookupTree* const c = cache.Attach("/c", "[C]\n");
    cache.Release(b);
    cache.Release(c);
    // The oldest is the first; it is in use, so there is no place although two are free.
    EXPECT_EQ(cache.Attach("/d", "[D]\n"), nullptr);
    // The same bytes under another path are shared in the place that was chosen.
    EXPECT_EQ(cache.Attach("/d", "[A]\n"), kept.get());
    EXPECT_EQ(cache.Attach("/b", "[B]\n"), b);
    cache.Release(b);
  }
  EXPECT_EQ(trace.Lines(), std::vector<std::string>{"Config - WARNING Tree cache in use"});
  EXPECT_EQ(kept->Text(), "[A]\n");
}

TEST(TreeCache, FilesLetGoOfTheirTree) {
  const TemporaryFolder folder;
  const std::string path = folder.Write("a.conf", "[A]\nE=1\n");
  CConfigFile first;
  first.Open(false, path.c_str(), true);
  first.Close(false);
  EXPECT_EQ(ValueIn(first, "A", "missing"), "(6)");  // the tree is kept
  folder.Write("a.conf", "[A]\nE=2\n");
  CConfigFile second;
  second.Open(false, path.c_str(), true);
  EXPECT_EQ(ValueIn(second, "A", "missing"), "(no entry)");  // no tree: the first one is in use
  EXPECT_EQ(ValueIn(second, "A", "E"), "2");
  first.Close(true);
  second.Open(false, path.c_str(), true);
  EXPECT_EQ(ValueIn(second, "A", "missing"), "(6)");
}

}  // namespace
}  // namespace qixx::testing

#include "config/conditions.h"

#include <gtest/gtest.h>

#include <string_view>
#include <utility>

namespace qixx::testing {
namespace {

TEST(Conditions, ChooseTheFirstThatHolds) {
  const ConditionContext context{"/opt/bin/Viewer",
                                 [](std::string_view name) { return name == "{On}"; },
                                 [](std::string_view mode) { return mode == "test"; }};
  const std::pair<const char*, const char*> cases[] = {{"plain", "plain"},
                                                       {"a|other", "a|other"},
                                                       {"a|other||b", "b"},
                                                       {"a|other||b|*", "b"},
                                                       {"a|other||b|none", "a|other||b|none"},
                                                       {"a|other||", ""},
                                                       {"a||b|*", "a"},
                                                       {"a|b|*||c", "a|b"},
                                                       {"a|||b|x", "a"},
                                                       {"a|viewer||b", "a"},
                                                       {"a|x;;VIEWER||b", "a"},
                                                       {"a| viewer||b", "b"},
                                                       {"a|;||b", "b"},
                                                       {"a|/OPT/bin/viewer||b", "a"},
                                                       {"a|bin/viewer||b", "b"},
                                                       {"a|viewer,other||b", "b"},
                                                       {"a|viewer,,*,{On}||b", "a"},
                                                       {"a|{on}||b", "b"},
                                                       {"a|7viewer||b", "b"},
                                                       {"a|MODE:test||b", "a"},
                                                       {"a|mode:other||b", "b"}};
  for (const auto& [value, result] : cases) {
    EXPECT_EQ(ResolveConditional(value, context), result) << value;
  }

  const ConditionContext unknown{{}, context.isNamedConditionActive, context.isModeActive};
  EXPECT_EQ(ResolveConditional("a|;||b", unknown), "b");
}

}  // namespace
}  // namespace qixx::testing

#include "watch/options.h"

#include <gtest/gtest.h>

#include <string>

namespace qixx::testing {
namespace {

std::string Shown(const char* name, std::string_view text) {
  return text.empty() ? "" : std::string(name) + "=" + std::string(text) + ";";
}
std::string Shown(const char* name, std::uint64_t number, std::uint64_t usual = 0) {
  return number == usual ? "" : Shown(name, std::to_string(number));
}

/// What a record holds, but for empty fields, zeros and the usual round limit.
std::string Describe(const CWatchOptions& record) {
  return Shown("r", record.registry) + Shown("p", record.program) + Shown("c", record.configFile) +
         Shown("a", record.arguments) + Shown("m", record.message) + Shown("m2", record.message2) +
         Shown("match", record.match) + Shown("simulate", record.simulate) +
         Shown("rest", record.rest) + Shown("section", record.section) +
         Shown("background", record.background) + Shown("in", record.insertWait) +
         Shown("out", record.removeWait) + Shown("term", record.terminate) +
         Shown("recognized", record.recognized) + Shown("hidein", record.hideInsert) +
         Shown("hideout", record.hideRemove) + Shown("sync", record.sync) +
         Shown("w", record.waitFlag) + Shown("n", record.roundLimit, kEndlessRounds);
}

TEST(Options, OneTextFillsTheRecord) {
  const struct {
    const char* name;
    const char* text;
    const char* expected;  // without the usual section
  } rows[] = {
      {"keyword form does not read -c beside -r",
       "-p prog -r reg -c file -a \"a b\" -n 3 -w 5 -hide -sync -t -recognized ",
       "r=reg;p=prog;a=a b;in=5;term=1;recognized=1;hidein=1;sync=1;n=3;"},
      {"empty -r is keyword form and stops -c", "-p prog -r -c file x", "p=prog;"},
      {"names in capitals", "-P prog -C file ", "p=prog;c=file;"},
      {"no digits give no rounds", "-p a -c b -n x ", "p=a;c=b;n=0;"},
      {"-t not inside -tx", "-p a -c b -tx ", "p=a;c=b;"},
      {"value behind a longer name", "-p a -c b -ab -a x", "p=a;c=b;a=x;"},
      {"quoted value without end", "-p a -c b -a  \"x y", "p=a;c=b;a=x y;"},
      {"-m wants a second blank", "-p a -c b -m no ", "p=a;c=b;"},
      {"-m with a second blank", "-p a -c b -m  yes ", "p=a;c=b;m=yes;"},
      {"-p alone is kept beside the rest", "-p prog x ", "p=prog;rest=-p prog x ;"},
      {"positional form",
       "-w -match \"cn=x\" -wait \"5|7\" -message \"a|b|c\" -hide remove -sync -term -recognized x",
       "m=a;m2=b|c;match=cn=x;rest=x;in=5;out=7;term=1;recognized=1;hideout=1;sync=1;w=1;"},
      {"order is fixed", "-sync -match \"x\" ", "rest=-match \"x\" ;sync=1;"},
      {"blanks between options are not skipped", "-w  -sync ", "rest= -sync ;w=1;"},
      {"-hide with another word", "-hide now ", "rest=now ;hidein=1;hideout=1;"},
      {"-hide insert at the very end", "-hide insert", "rest=insert;hidein=1;hideout=1;"},
      {"value without closing quote", "-match \"cn=x", "match=cn=x;"},
      {"closing quote at the end", "-match \"cn=x\"", "match=cn=x;"},
      {"numbers", "-wait \"-1| 99999999999999999999\" ", "out=18446744073709551615;"},
      {"no rest in a simulation", "-simulate \"insert\" config ", "simulate=insert;"},
      {"one verb is skipped", "-start -i c ", "rest=-i c ;"},
      {"one word in quotes names no section", "-s \"Extra\" c", "rest=c;"},
      {"empty text", "", "n=0;"},
  };
  for (const auto& row : rows) {
    CWatchOptions record{};
    const bool textLeft = ParseWatchOptions(row.text, record);
    EXPECT_STREQ(record.section, "Watch") << row.name;
    record.section[0] = '\0';
    EXPECT_EQ(Describe(record), row.expected) << row.name;
    EXPECT_EQ(textLeft, record.rest[0] != '\0' || record.simulate[0] != '\0') << row.name;
  }
}

TEST(Options, LaterTextsOverlayAndHardlyEverClear) {
  CWatchOptions record{};
  ParseWatchOptions("-match \"old\" -sync config", record);
  ParseWatchOptions("-w -hide x", record);
  EXPECT_EQ(Describe(record), "match=old;rest=x;section=Watch;hidein=1;hideout=1;sync=1;w=1;");
  ParseWatchOptions("-p x -c y -n 3 ", record);
  ParseWatchOptions("", record);
  EXPECT_EQ(Describe(record), "p=x;c=y;rest=x;section=Watch;hidein=1;hideout=1;sync=1;w=1;n=3;");
  ParseWatchOptions("-b \"w Extra\" ", record);
  EXPECT_EQ(Describe(record), "p=x;c=y;rest=x;section=Extra;hidein=1;hideout=1;sync=1;w=1;");
}

}  // namespace
}  // namespace qixx::testing

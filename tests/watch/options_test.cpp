#include "watch/options.h"

#include <gtest/gtest.h>

#include "runtime/files.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"

namespace qixx::testing {
namespace {

/// What a record holds, but for empty fields, zeros and the usual section and round limit.
std::string Describe(const CWatchOptions& record) {
  std::string out;
  const std::pair<const char*, const char*> texts[] = {{"registry", record.registry},
                                                       {"program", record.program},
                                                       {"configFile", record.configFile},
                                                       {"arguments", record.arguments},
                                                       {"message", record.message},
                                                       {"message2", record.message2},
                                                       {"match", record.match},
                                                       {"simulate", record.simulate},
                                                       {"rest", record.rest},
                                                       {"background", record.background}};
  for (const auto& [name, value] : texts) {
    if (*value != '\0') out += std::string(name) + "=" + value + ";";
  }
  if (std::string_view(record.section) != "Watch") out += std::string(record.section) + ";";
  const std::pair<const char*, std::uint64_t> numbers[] = {{"insertWait", record.insertWait},
                                                           {"removeWait", record.removeWait},
                                                           {"terminate", record.terminate},
                                                           {"recognized", record.recognized},
                                                           {"hideInsert", record.hideInsert},
                                                           {"hideRemove", record.hideRemove},
                                                           {"sync", record.sync},
                                                           {"waitFlag", record.waitFlag}};
  for (const auto& [name, value] : numbers) {
    if (value != 0) out += name + (value == 1 ? "" : "=" + std::to_string(value)) + ";";
  }
  if (record.roundLimit != kEndlessRounds) out += "n=" + std::to_string(record.roundLimit);
  return out;
}

class Options : public ::testing::Test {
 protected:
  Options() { InitProductIdentity(); }
  TemporaryFolder folder;
  ScopedVariable path{"qixconfigglobal", folder.Path("system.conf").c_str()};
  CWatchOptions record{};
};

TEST_F(Options, OneTextFillsTheRecord) {
  const struct {
    const char* name;
    const char* text;
    const char* expected;
  } rows[] = {
      {"keyword form does not read -c beside -r",
       "-p prog -r reg -c file -a \"a b\" -n 3 -w 5 -hide -sync -t -recognized ",
       "registry=reg;program=prog;arguments=a b;insertWait=5;terminate;recognized;hideInsert;sync;"
       "n=3"},
      {"empty -r is keyword form and stops -c", "-p prog -r -c file x", "program=prog;"},
      {"names in capitals", "-P prog -C file ", "program=prog;configFile=file;"},
      {"no digits give no rounds", "-p a -c b -n x ", "program=a;configFile=b;n=0"},
      {"-t not inside -tx", "-p a -c b -tx ", "program=a;configFile=b;"},
      {"-m wants a second blank", "-p a -c b -m no ", "program=a;configFile=b;"},
      {"-m with a second blank", "-p a -c b -m  yes ", "program=a;configFile=b;message=yes;"},
      {"-p alone is kept beside the rest", "-p prog x ", "program=prog;rest=-p prog x ;"},
      {"positional form",
       "-w -match \"cn=x\" -wait \"5|7\" -message \"a|b|c\" -hide remove -sync -term -recognized "
       "c ",
       "message=a;message2=b|c;match=cn=x;rest=c ;insertWait=5;removeWait=7;terminate;recognized;"
       "hideRemove;sync;waitFlag;"},
      {"order is fixed", "-sync -match \"x\" ", "rest=-match \"x\" ;sync;"},
      {"blanks between options are not skipped", "-w  -sync ", "rest= -sync ;waitFlag;"},
      {"-hide with another word", "-hide now ", "rest=now ;hideInsert;hideRemove;"},
      {"-hide insert at the very end", "-hide insert", "rest=insert;hideInsert;hideRemove;"},
      {"value without closing quote", "-match \"cn=x", "match=cn=x;"},
      {"closing quote at the end", "-match \"cn=x\"", "match=cn=x;"},
      {"opening quote at the end", "-wait \"", ""},
      {"numbers", "-wait \"-1| 99999999999999999999\" ", "removeWait=18446744073709551615;"},
      {"no rest in a simulation", "-simulate \"insert\" config ", "simulate=insert;"},
      {"one verb is skipped", "-start -i c ", "rest=-i c ;"},
      {"last word in quotes names the section", "-b \"the Extra\"  c ", "rest=c ;Extra;"},
      {"one word in quotes names none", "-s \"Extra\" c", "rest=c;"},
      {"empty text", "", "n=0"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    record = {};
    const bool textLeft = ParseWatchOptions(row.text, record);
    EXPECT_EQ(Describe(record), row.expected);
    EXPECT_EQ(textLeft, record.rest[0] != '\0' || record.simulate[0] != '\0');
  }
}

TEST_F(Options, LaterTextsOverlayAndHardlyEverClear) {
  folder.Write("system.conf", "[Watch]\nBackground=show\n[Extra]\n");
  ParseWatchOptions("-match \"old\" -sync config", record);
  EXPECT_EQ(Describe(record), "match=old;rest=config;background=show;sync;");
  ParseWatchOptions("-p x -c y -n 3 ", record);
  EXPECT_EQ(Describe(record), "program=x;configFile=y;rest=config;background=show;sync;n=3");
  ParseWatchOptions("", record);
  EXPECT_EQ(record.roundLimit, 3U);
  const ScopedVariable notRead("qix:Extra:Background", "environment");
  ParseWatchOptions("-s \"w Extra\" ", record);
  EXPECT_EQ(Describe(record), "program=x;configFile=y;rest=config;Extra;sync;");
}

TEST_F(Options, ValueOfAnOptionAnywhereInATextIsFound) {
  const struct {
    const char* name;
    const char* text;
    const char* option;
    const char* value;  // null when the option is not there
  } rows[] = {
      {"behind a longer name", "-term -t x y", "-t", "x"},
      {"in quotes", "-a  \"x y\" z", "-a", "x y"},
      {"without closing quote", "-a \"x y", "-a", "x y"},
      {"cut", "-a 1234567890", "-a", "1234567"},
      {"another option follows", "-a -b", "-a", ""},
      {"at the end", "x -A", "-a", ""},
      {"only inside a word", "-ab x-ac", "-a", nullptr},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    char value[8] = "kept";
    EXPECT_EQ(GetOptionValue(row.text, row.option, value), row.value != nullptr);
    EXPECT_STREQ(value, row.value != nullptr ? row.value : "kept");
  }
}

}  // namespace
}  // namespace qixx::testing

// Every change as a text before and a text after it.
#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "config/file.h"
#include "tests/config/loaded_file.h"
#include "tests/support/trace_capture.h"

namespace qixx::testing {
namespace {

void Check(const std::function<ConfigResult(CConfigFile&)>& change,
           std::initializer_list<TextCase> cases) {
  for (const TextCase& c : cases) {
    SCOPED_TRACE(c.name);
    LoadedFile file(c.before);
    EXPECT_EQ(change(file), kConfigOk);
    EXPECT_EQ(TextIn(file), c.after);
  }
}

TEST(ConfigChange, SetsAndAddsValues) {
  Check([](CConfigFile& file) { return file.SetValue("S", "E", "v", true); },
        {{"missing section", "[A]\nx=1\n", "[A]\nx=1\n\n[S]\nE=v\n"},
         {"section in a block", "<B = \n[S]\nE=1\n/>\n", "<B = \n[S]\nE=1\n/>\n\n[S]\nE=v\n"},
         {"no line end", "[S]", "[S]\nE=v\n"},
         {"behind a whole CR LF", "[S]\r\nx=1\r\n\r\n[A]", "[S]\r\nx=1\r\nE=v\n\r\n[A]"},
         {"before a block", "[S]\n  <B = \n/>\n", "[S]\nE=v\n  <B = \n/>\n"},
         {"whole line with its end", "[S]\r\n  e=old\r\nb=2", "[S]\r\nE=v\nb=2"},
         {"first of two", "[S]\na=1\nE=1\nE=2\n[S]\nE=3", "[S]\na=1\nE=v\nE=2\n[S]\nE=3"}});
  Check([](CConfigFile& file) { return file.AddValue("S", "E", "v"); },
        {{"missing section goes first", "[A]\n", "\n[S]\nE=v\n[A]\n"},
         {"behind the last line", "[S]\nE=1", "[S]\nE=1\n\nE=v\n"}});
}

TEST(ConfigChange, WritesNoSecondLine) {
  LoadedFile file("");
  EXPECT_EQ(file.SetValue("S\n", "E\r", nullptr, false), kConfigOk);
  EXPECT_EQ(file.SetValue("S\n", "F", "a\r\n[X]", false), kConfigOk);
  EXPECT_EQ(TextIn(file), "\n[S ]\nE =\nF=a  [X]\n");
  const std::string longer(kGrowthStep, 'x');
  EXPECT_EQ(file.AddValue("L", "E", longer.c_str()), kConfigOk);
  EXPECT_EQ(TextIn(file), "\n[L]\nE=" + longer.substr(8) + "\n\n[S ]\nE =\nF=a  [X]\n");
  EXPECT_EQ(file.SetValue("L", longer.c_str(), "v", false), kConfigFailed);
}

TEST(ConfigChange, DeletesEntriesAndSections) {
  Check([](CConfigFile& file) { return file.Delete("S", "e"); },
        {{"whole line with its end", "[S]\r\n  E=1\r\nb=2\n", "[S]\r\nb=2\n"},
         {"no line end", "[S]\nE=1", "[S]\n"},
         {"not there", "[S]\n;E=1\n[A]\nE=1\n", "[S]\n;E=1\n[A]\nE=1\n"}});
  Check([](CConfigFile& file) { return file.Delete("S", nullptr); },
        {{"with the line feed in front", "[A]\n[s] x\nE=1\n\n[B]\n", "[A]\n[B]\n"},
         {"one behind a line feed first", "[S]\nE=1\n[S]\nE=2\n", "[S]\nE=1"},
         {"at the start", "[S]\nE=1\n<B = \nQQ==/>", "\n<B = \nQQ==/>"},
         {"not in a block", "<B = \n[S]\n/>\n", "<B = \n[S]\n/>\n"},
         {"not in a value", "[A]\nx=[S]\n", "[A]\nx=[S]\n"},
         {"CR only", "[A]\r[S]\rE=1\r[B]\r", "[A]\n[B]\n"},
         {"not the indented one behind it", "[S]\nE=1\n  [B]\n", "\n  [B]\n"}});
}

TEST(ConfigChange, RenamesSections) {
  Check([](CConfigFile& file) { return file.RenameSection("Old", "New"); },
        {{"not there", "[New]\nx=1\n", "[New]\nx=1\n"},
         {"every header", "[Old] x\n[Old]\na=1\n  [Old]\n", "[New] x\n[New]\na=1\n  [New]\n"},
         {"letter case of the old name", "[old]\n[New]\nx=1\n", "[old]\n[New]\nx=1\n"},
         {"only headers", "[Old]\na=[Old]\n<B = \n[Old]\n/>", "[New]\na=[Old]\n<B = \n[Old]\n/>"},
         {"values of the target win",
          "[Old]\nb=old\nB=older\n\n[New]\nB=new\n;c\nb=newer\nc=3\nd\nf\nF=6\n[X]\n",
          "[New]\nB=new\nB=older\nc=3\nd=\nf=6\n\n[X]\n"},
         {"target in front", "[New]\nc=3\n[X]\n[Old]", "\n[X]\n[New]\nc=3\n"},
         {"nothing to merge", "[New]\n;c\n[Old]\n", "[New]\n;c\n[New]\n"}});
  Check([](CConfigFile& file) { return file.RenameSection("Old", "OLD"); },
        {{"letters only", "[Old]\na=1\n[Old]\na=2\n", "[OLD]\na=1\n[OLD]\na=2\n"}});
}

TEST(ConfigChange, Migrates) {
  const std::string images = "[Dialog Presentation]\nImage4\nbmp1=SAME\nImage2=other\n";
  Check([](CConfigFile& file) { return file.Migrate(true), kConfigOk; },
        {{"in the order of the table", "[Credential Provider]\nBMP=x\n[Smart Card]\n",
          "[CredentialProvider]\n[SmartCard]\n\n[Dialog Presentation]\nBMP=x\n"},
         {"profiles", "[InitProfiles]\n1=One\n2=Two\n4=Four\n[One]\n[Two]\n[Four]\n",
          "[SmartCardProfile]\n1=One\n2=Two\n4=Four\n[SmartCardProfile One]\n"
          "[SmartCardProfile Two]\n[Four]\n"},
         {"images",
          "[CredentialProvider]\nBMP1=same\nimage2=mine\n  IMAGE4=moved\nE=1\n" + images + "[Z]",
          "[CredentialProvider]\nimage2=mine\nE=1\n" + images + "IMAGE4=moved\n[Z]"}});
}

TEST(ConfigChange, SortsAndStrips) {
  Check([](CConfigFile& file) { return file.Sort(), kConfigOk; },
        {{"by name", "lost=1\n[b] x\n\n  e=1\n;c\n[A]\nf=2", "[A]\nf=2\n\n[b]\ne=1\n;c\n\n"},
         {"equal names", "[a]\n1=1\n[A]\n2=2\n[a]\n3=3\n[B]\n",
          "[A]\n2=2\n\n[a]\n3=3\n\n[a]\n1=1\n\n[B]\n\n"},
         {"blocks move along", "[B]\n<k = \n[QQ=\n/>\n[A]\n", "[A]\n\n[B]\n<k = \n[QQ=\n/>\n\n"},
         {"no bracket", "[b\nx=1\n[a]\n", "[a]\n\n[b\nx=1\n\n"}});
  Check([](CConfigFile& file) { return file.StripComments(), kConfigOk; },
        {{"comments", "//c\n\n[A]\r\n\r\n;c\r\n\r\n#h\n ;d\n/x\n<k = \n//8=\n/>\n//",
          "[A]\r\n#h\n ;d\n/x\n<k = \n//8=\n/>\n"}});
}

TEST(ConfigChange, GrowsInStepsAndSaysSo) {
  // A loaded text has room for 1024 bytes more; a line that is replaced does not count as room.
  LoadedFile file("[S]\n");
  TraceCapture trace;
  EXPECT_EQ(file.SetValue("S", "E", std::string(1021, 'v').c_str(), false), kConfigOk);
  EXPECT_EQ(file.SetValue("S", "E", "v", false), kConfigOk);
  EXPECT_EQ(file.AddValue("S", "F", std::string(kGrowthStep - 4, 'v').c_str()), kConfigOk);
  EXPECT_EQ(file.AddValue("S", "F", std::string(1021, 'v').c_str()), kConfigOk);
  EXPECT_EQ(file.RenameSection("S", std::string(kGrowthStep, 'n').c_str()), kConfigOk);
  EXPECT_EQ(trace.Lines(), (std::vector<std::string>{"Config - Increase for set (4)",
                                                     "Config - Increase for add (1025)",
                                                     "Config - Increase for rename (164095)"}));
  EXPECT_EQ(file.Grow(kMaximumConfigSize), kConfigFailed);
}

}  // namespace
}  // namespace qixx::testing

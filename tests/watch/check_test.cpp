// The check of a configuration: each kind of mistake, and a file without any.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"
#include "watch/check.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

class Check : public ::testing::Test {
 protected:
  /// Checks a file of these lines, in which "@" stands for the test's folder.
  watch::CheckResult Run(std::string text, mode_t mode = 0644) {
    for (std::size_t at = text.find('@'); at != std::string::npos; at = text.find('@', at)) {
      text.replace(at, 1, folder.Path());
    }
    const std::string file = folder.Write("x.conf", text);
    ::chmod(file.c_str(), mode);
    const std::string files[] = {file};
    return watch::CheckConfiguration(files, folder.Path("devices"));
  }
  /// The lines of the mistakes, with "@" for the test's folder and without the file's name.
  std::vector<std::string> Told(const watch::CheckResult& result) const {
    const std::string file = folder.Path("x.conf");
    std::vector<std::string> told;
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);) {
      if (line == file + ": checked as the system's file") break;
      if (line.starts_with(file + ":")) line.erase(0, file.size() + 1);
      for (std::size_t at = line.find(folder.Path()); at != std::string::npos;
           at = line.find(folder.Path())) {
        line.replace(at, folder.Path().size(), "@");
      }
      told.push_back(line);
    }
    return told;
  }

  void SetUp() override {
    folder.Write("lib/libqixp11.so", "");
    folder.Write("mail.conf", "");
    folder.Write("plain", "");
    folder.Write("devices/1/bInterfaceClass", "0b\n");
    fs::create_symlink("/bin/true", folder.Path("program"));
  }
  TemporaryFolder folder;
  const ScopedVariable home{"HOME", folder.Path().c_str()};
  const ScopedVariable path{"PATH", folder.Path().c_str()};
};

const std::string kWatch = "[Command]\nWatch=config Watch\n";
const std::string kInsert = kWatch + "[Watch Insert]\n";
const std::string kRemove = kWatch + "[Watch Remove]\n";

TEST_F(Check, SaysWhatIsWrongAndWhatIsMeant) {
  const std::tuple<std::string, std::string> rows[] = {
      // --- lines
      {"x=1\n" + kInsert + "1=@/program",
       "1: 'x' stands in front of the first section and is not read; it belongs behind a line "
       "[NAME]"},
      {kInsert + "1=@/program\n  2=x",
       "5: '2' begins with a blank and is not read; it has to begin at the start of the line"},
      {kInsert + "1=@/program\nhello",
       "5: 'hello' is no entry; NAME=VALUE is meant, or a comment behind ';'"},
      {kInsert + "1=@/program\n[]", "5: '[]' is no section; [NAME] is meant"},
      {kInsert + "1=@/program\n2 =x",
       "5: entry '2 ' is not found for its blanks; no blank may stand beside the name"},
      {kInsert + "1= @/program",
       "4: the blank at the begin belongs to the value of '1'; no blank may stand there"},
      {kInsert + "1=@/program\n1=@/program",
       "4: entry '1' stands once more; only the last one counts, in line 5"},
      {"[Install]\n" + kInsert + "1=@/program\n[install]",
       "1: section 'install' stands once more; only the last one counts, in line 6"},
      {"[Admin Utility]\n" + kInsert + "1=@/program",
       "1: it has section names of an older version, which change on each load; give the sections "
       "their present "
       "names: the lines below are those after the change"},
      // --- names
      {kInsert + "1=@/program\n[Wacth Remove]\n1=@/program",
       "5: nothing reads section 'Wacth Remove'; 'Watch Remove' is meant"},
      {kInsert + "1=@/program\n[Watch Door Insert]",
       "5: nothing reads section 'Watch Door Insert'; no watcher of that name is started"},
      {kInsert + "1=@/program\n[Shopping]", "5: nothing reads section 'Shopping'"},
      {"[Trace]\nwacth=@/x.log\nsomebody=@/x.log\n" + kInsert + "1=@/program",
       "2: nothing reads entry 'wacth' of section 'Trace'; 'watch' is meant"},
      {kInsert + "1=@/program\n[Watch]\nBackgroud=x",
       "6: nothing reads entry 'Backgroud' of section 'Watch'; 'Background' is meant"},
      // --- lists and lengths
      {kInsert + "1=@/program\n3=@/program",
       "5: entry '3' is never reached; the list ends at the missing '2'"},
      {kInsert + "1=@/program\n02=@/program",
       "5: entry '02' is not read; numbers from 1 are meant"},
      {kInsert + "1=@/program\n[Condition]\n1={x} *\n3={y} *",
       "7: entry '3' is never reached; the list ends at the missing '2'"},
      {kInsert + "1=@/program " + std::string(600, 'x'),
       "4: entry '1' has * characters and is cut; at most 511 are meant"},
      {kRemove + "1=@/program " + std::string(300, 'x'),
       "4: entry '1' has * characters and is cut; at most 255 are meant"},
      {"[Pkcs11]\nModule=" + std::string(256, 'x') + "\n" + kInsert + "1=@/program",
       "2: entry 'Module' has 256 characters and is cut; at most 255 are meant"},
      {"[Command]\nWatch=" + std::string(1024, 'x'),
       "2: entry 'Watch' has 1024 characters and is cut; at most 1023 are meant"},
      // --- conditions
      {kInsert + "1=@/program|7||@/program",
       "4: condition '7' never holds here; '*', the name of a program or a {name} is meant"},
      {kInsert + "1=@/program|mode:x||@/program",
       "4: condition 'mode:x' never holds here; '*', the name of a program or a {name} is meant"},
      {kInsert + "1=@/program|{site}||@/program",
       "4: condition '{site}' is not defined and never holds; section 'Condition' has to name it"},
      {kInsert + "1=@/program || echo",
       "4: what stands behind '@/program ' is never taken; '||' separates alternatives with "
       "conditions and is no "
       "\"or\" of a shell"},
      {kInsert + "1=@/program|watch_test||@/plain|other",
       "4: where no condition holds the whole text counts, with its bars; a last alternative "
       "without a condition is meant"},
      // --- trace, library, readers
      {"[Trace]\nwatch=@/x.trace\n" + kInsert + "1=@/program",
       "2: trace file '@/x.trace' has another ending, so nothing is traced; '.log' or '.txt' is "
       "meant"},
      {"[Trace]\nFile=@/no/x.log\n" + kInsert + "1=@/program",
       "2: there is no folder '@/no/', so nothing is traced; make it, or name another"},
      {"[Install]\nDirectory=@/no\n" + kInsert + "1=@/program",
       "2: there is no folder '@/no/'; the folder of 'libqixp11.so' is meant"},
      {"[Install]\nDirectory=@\n" + kInsert + "1=@/program",
       "2: there is no 'libqixp11.so' in '@/'; the folder of that library is meant"},
      // --- watch commands
      {"[Command]\nWatch=config Door\n[Watch Door Remove]\n2=@/program",
       "2: watcher 'Door' has nothing to run; an entry 1 in section 'Watch Door Insert' or 'Watch "
       "Door Remove' is meant"},
      {"[Command]\nWatch=config " + std::string(51, 'x'),
       "2: watcher '" + std::string(51, 'x') +
           "' has a name that is too long; at most 50 characters are meant"},
      {"[Command]\nWatch=-sync  config Watch\n[Watch Insert]\n1=@/program",
       "2: two blanks stand in front of 'config', so no option behind them is read; one blank is "
       "meant"},
      {"[Command]\nWatch=-sync -match \"cn=x\" config Watch\n[Watch Insert]\n1=@/program",
       "2: option '-match' is not read at this place; the order is -match -wait -message -hide "
       "-sync -term "
       "-recognized -simulate"},
      {"[Command]\nWatch=-match cn=x config Watch\n[Watch Insert]\n1=@/program",
       "2: option '-match' has no value in double quotes behind one blank; -match \"TEXT\" is "
       "meant"},
      {"[Command]\nWatch=-match \"cn=x config Watch",
       "2: the value of '-match' has no closing quote; -match \"TEXT\" is meant"},
      {"[Command]\nWatch=-match \"cn=x\"+config Watch\n[Watch Insert]\n1=@/program",
       "2: behind the value of '-match' a character is lost; one blank is meant behind the closing "
       "quote"},
      {"[Command]\nWatch=-match \"cn=x|12345\" config\n[Watch Insert]\n1=@/program",
       "2: the match 'cn=x|12345' cannot be read, so no card counts; TYPE=VALUE is meant, or "
       "NAME|FF"},
      {"[Command]\nWatch=-wait \"soon\" config\n[Watch Insert]\n1=@/program",
       "2: 'soon' is no number of seconds; \"5\" or \"5|2\" is meant"},
      {"[Command]\nWatch=-snyc config Watch\n[Watch Insert]\n1=@/program",
       "2: unknown option '-snyc'; '-sync' is meant"},
      {"[Command]\nWatch=-sync",
       "2: nothing follows option '-sync', so it is taken for a command; '-sync config Watch' is "
       "meant"},
      {"[Command]\nWatch=-simulate \"insert\"",
       "2: with '-simulate' the commands run once, and nothing is watched; it belongs on a command "
       "line"},
      {"[Command]\nWatch=-p @/program -c @/mail.conf -x 1",
       "2: unknown option '-x'; '-p' is meant"},
      {"[Command]\nWatch=-p @/program -c @/mail.conf -a %UPN%",
       "2: placeholder '%UPN%' is not filled here; only the numbered commands of an insertion get "
       "values"},
      {"[Command]\nWatch=~@/program %UPN%",
       "2: placeholder '%UPN%' is not filled here; only the numbered commands of an insertion get "
       "values"},
      {"[Command]\nWatch=config Watch|Door\nWatch Door=-match \"x\" config Watch\n[Watch "
       "Insert]\n1=@/program",
       "3: double quotes do not reach an extra watcher; options with quotes belong to the first "
       "watcher"},
      // --- programs
      {kInsert + "1=program",
       "4: program 'program' has no path, and none is searched; '@/program' is meant"},
      {kInsert + "1=~/program",
       "4: program '~/program' is taken as it stands, for there is no shell; the whole path is "
       "meant"},
      {kInsert + "1=./program",
       "4: program './program' is looked for in the folder that the service starts in; the whole "
       "path is meant"},
      {kInsert + "1=@/none",
       "4: there is no program '@/none' (No such file or directory); the path of one that is there "
       "is meant"},
      {kInsert + "1=parallel @/plain", "4: program '@/plain' is not executable; chmod +x"},
      {kInsert + "1=parallel @/program " + std::string(260, 'x'),
       "4: the command behind 'parallel' has more than 255 characters and is refused; a shorter "
       "one, or a script, is meant"},
      {kInsert + "1=application \"@/program x",
       "4: a double quote is not closed; one is meant behind the program's path"},
      {kInsert + "1=@/program \"x",
       "4: a double quote is not closed; one more is meant behind '\"x'"},
      {kInsert + "1=@/program --a=\"b\"",
       "4: the double quote inside '--a=\"b\"' holds nothing together; an argument has to begin "
       "with it"},
      {kInsert + "1=@/program 'b'",
       "4: single quotes hold nothing together: ''b''; double quotes are meant"},
      {kInsert + "1=@/program && x",
       "4: '&&' is an argument like any other, for there is no shell; a script is meant, or "
       "/bin/sh -c \"...\""},
      {kInsert + "1=@/program > a b",
       "4: '>' is an argument like any other; only a last '> FILE' takes the output"},
      // --- placeholders
      {kInsert + "1=%UPN% x",
       "4: a placeholder begins the command, so the card decides what is started; a program's path "
       "is meant"},
      {kInsert + "1=@/program -%upn%",
       "4: placeholder in '-%upn%' is not quoted, and a value may hold blanks; the argument is "
       "meant to stand in double quotes"},
      {kInsert + "1=@/program \"%USERNAM%\"",
       "4: there is no placeholder '%USERNAM%'; '%USERNAME%' is meant"},
      {kInsert + "1=@/program \"%OID.cn\"",
       "4: placeholder '%OID.cn\"' has no end; '%OID.cn%' is meant"},
      {kInsert + "1=/bin/sh -c \"echo %UPN%\"",
       "4: a placeholder stands in the script of a shell, which runs what the card says; give it "
       "as an argument behind "
       "the script, as in \"echo $1\" x \"%UPN%\""},
      {kInsert + "1=@/program > \"@/%UPN%\"",
       "4: the output's path holds a placeholder, so the card decides which file is written; a "
       "file's path is meant"},
      {kRemove + "1=@/program \"%UPN%\"",
       "4: placeholder '%UPN%' is not filled here; only the numbered commands of an insertion get "
       "values"},
      // --- other commands
      {kInsert + "1=set -confg @/mail.conf -config @/mail.conf",
       "4: 'set' knows no option '-confg'; '-config' is meant"},
      {kInsert + "1=set -match x", "4: 'set' has no file and fails; -config FILE is meant"},
      {kInsert + "1=set -config @/none.conf",
       "4: there is no file '@/none.conf' (No such file or directory); the path of one that is "
       "there is meant"},
      {kInsert + "1=load @/lib/libqixp11.so,Function",
       "4: 'load' needs a comma behind the library and a blank behind the function; load "
       "LIBRARY,FUNCTION ARGUMENTS is meant"},
      {kInsert + "1=extern @/none.so,x",
       "4: there is no library '@/none.so' (No such file or directory); the path of one that is "
       "there is meant"},
      {kInsert + "1=extern @/lib/libqixp11.so",
       "4: 'extern' needs a comma behind the library; extern LIBRARY,ARGUMENTS is meant"},
      {kInsert + "1=close x\n2=@/program",
       "5: the command is never run, for entry '1' fails and ends the list; it belongs in front of "
       "that"},
      // --- secrets
      {kInsert + "1=@/program -pin 1234",
       "4: entry '1' looks like a secret, and others may read the file; take their permission away "
       "(chmod go=), or "
       "keep the secret elsewhere"},
      // --- what must not reach a terminal
      {kInsert + "1=@/program\n[\x1b[2J\xC2\x9B\xE2\x80\xAE\xFF]",
       "5: nothing reads section '\?[2J\?\?\?'"},
  };
  for (const auto& [text, expected] : rows) {
    const watch::CheckResult result = Run(text);
    EXPECT_EQ(result.exitCode, 1) << text;
    if (const std::size_t star = expected.find('*'); expected.find("has *") != std::string::npos) {
      ASSERT_EQ(Told(result).size(), 1U) << result.output;
      EXPECT_THAT(Told(result)[0], StartsWith(expected.substr(0, star)));
      EXPECT_THAT(Told(result)[0], HasSubstr(expected.substr(star + 1)));
    } else {
      EXPECT_THAT(Told(result), ::testing::Contains(expected)) << text;
    }
  }
}

TEST_F(Check, CleanFileSaysWhatWillRun) {
  const watch::CheckResult result = Run(
      "\xEF\xBB\xBF; a "
      "comment\r\n[Trace]\r\nwatch=journal\r\n[Install]\r\nDirectory=@/lib\r\n[Command]\r\n"
      "Watch=-match \"cn=Ann|FF\" -wait \"5|2\" -sync config Watch|Door\r\nWatch "
      "Door=-recognized config Door\r\n"
      "[Watch Insert]\r\n1=@/program --title \"%USERNAME% of %OID.o%\" > /dev/null\r\n2=\r\n"
      "3=parallel set -config @/mail.conf\r\n4=close x\r\n"
      "[Watch Remove]\r\n1=@/program +%Y%m%d\r\n2=set -restore -config @/mail.conf\r\n3=kill x\r\n"
      "[Watch Door Insert]\r\n1=@/program|{on}||@/plain\r\n[Condition]\r\n1={on} watch_test\r\n"
      "[General]\r\nAnything=x\r\n");
  EXPECT_THAT(Told(result), IsEmpty());
  EXPECT_EQ(result.exitCode, 0);
  for (const std::string part :
       {"Watcher 'Watch' (@/x.conf:7), only cards that match 'cn=Ann|FF', insertions wait 5 s, "
        "removals wait 2 s, no "
        "removal before an insertion\n  On insertion, in this order, up to the first that fails:\n"
        "    1. start @/program --title \"%USERNAME% of %OID.o%\" > /dev/null\n"
        "    3. at the same time: write the logon values into @/mail.conf\n"
        "    4. nothing, without success (close x)\n"
        "  On removal, in this order, all of them:\n    1. start @/program +%Y%m%d\n    2. put "
        "@/mail.conf.org back and clear it\n"
        "    3. nothing, with success (kill x)\n",
        "Watcher 'Door' (@/x.conf:8), only cards that can be read\n  On insertion, in this order, "
        "up to the first "
        "that fails:\n    1. start @/program\n  On removal, in this order, all of them:\n    "
        "nothing\n"}) {
    std::string expected = part;
    for (std::size_t at = expected.find('@'); at != std::string::npos; at = expected.find('@')) {
      expected.replace(at, 1, folder.Path());
    }
    EXPECT_THAT(result.output, HasSubstr(expected));
  }
}

TEST_F(Check, SeveralReadersAreAMistakeOnlyWithoutTheBridge) {
  const std::string text =
      "[Install]\nDirectory=@/lib\n[Command]\nWatch=-sync config\n[Watch Insert]\n1=@/program\n";
  EXPECT_THAT(Told(Run(text)), IsEmpty()) << "one reader";
  folder.Write("devices/2/bInterfaceClass", "0b\n");
  folder.Write("devices/3/bInterfaceClass", "03\n");
  EXPECT_THAT(
      Told(Run(text)),
      ElementsAre(StartsWith("4: with '-sync' and 2 readers an event of an empty one makes")));
  folder.Write("lib/libqixp11.so", "... QixEventDescriptor ...");
  EXPECT_THAT(Told(Run(text)), IsEmpty());
}

TEST_F(Check, SecretsAreForTheOwnerAloneAndNeverShown) {
  const std::string text = kInsert + "1=@/program -pin 1234\n";
  EXPECT_THAT(Told(Run(text, 0600)), IsEmpty());
  EXPECT_THAT(Run(text, 0600).output, HasSubstr("-pin ****"));
  EXPECT_THAT(Run(text).output, Not(HasSubstr("1234")));
}

TEST_F(Check, FilesInUseAreThoseThatTheServiceWouldTake) {
  folder.Write("system.conf", kInsert + "1=" + folder.Path("program") + "\n");
  folder.Write("user.conf",
               "[Trace]\nwatch=" + folder.Path("x.log") + "\n[Command]\nWatch=config\n");
  const ScopedVariable system("qixconfigglobal", folder.Path("system.conf").c_str());
  {
    const watch::CheckResult result = watch::CheckConfiguration({});
    EXPECT_EQ(result.exitCode, 0) << result.output;
    EXPECT_THAT(result.output, StartsWith(folder.Path("system.conf") +
                                          ": the system's file, as qixconfigglobal says\n"));
    EXPECT_FALSE(fs::exists(folder.Path(".qix"))) << "nothing is made";
  }
  const ScopedVariable user("qixconfiglocal", folder.Path("user.conf").c_str());
  const ScopedVariable override("qix:Watch Insert:1", "/no/program");
  const watch::CheckResult result = watch::CheckConfiguration({});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(
      result.output,
      HasSubstr("user.conf:3: section 'Command' is not read from the user's file; it belongs"));
  EXPECT_THAT(result.output, HasSubstr("qix:Watch Insert:1:1: there is no program '/no/program'"));
}

TEST_F(Check, WhatCannotBeReadIsSaidWithItsReason) {
  ::mkfifo(folder.Path("pipe").c_str(), 0600);
  const std::pair<std::string, const char*> rows[] = {
      {folder.Path("none"), "No such file or directory"},
      {folder.Path(), "no regular file"},
      {folder.Path("pipe"), "no regular file"},
      {"/dev/zero", "no regular file"},
      {folder.Write("x.edb", "[Command]\n"), "its text cannot be read"},
      {std::string(300, 'x'), "its path has more than 255 characters"},
  };
  for (const auto& [file, reason] : rows) {
    const std::string files[] = {file};
    const watch::CheckResult result = watch::CheckConfiguration(files);
    EXPECT_EQ(result.exitCode, 2) << file;
    EXPECT_THAT(result.errors, HasSubstr(std::string(" cannot be read: ") + reason));
  }
}

/// The configurations that the texts print: what they name may be missing here, and nothing else.
TEST_F(Check, PrintedConfigurationsHaveNoMistakes) {
  const std::string source = QIXX_SOURCE_DIR "/";
  std::vector<std::string> texts;
  for (const char* file : {"README.md", "docs/real-cards.md", "docs/recipes.md"}) {
    const std::string page = TemporaryFolder::ReadFile(source + file);
    for (std::size_t at = page.find("\n```ini\n"); at != std::string::npos;
         at = page.find("\n```ini\n", at)) {
      at += 8;
      const std::string block = page.substr(at, page.find("```", at) - at);
      if (block.find("\n[Watch ") != std::string::npos) texts.push_back(block);
    }
  }
  EXPECT_FALSE(texts.empty());
  for (const auto& sample : fs::directory_iterator(source + "packaging/samples")) {
    texts.push_back(TemporaryFolder::ReadFile(sample.path().string()));
  }
  for (std::string text : texts) {
    std::erase(text, '@');
    EXPECT_THAT(Told(Run(text)), ::testing::Each(HasSubstr(": there is no "))) << text;
  }
}

TEST_F(Check, HostileFilesEndSoonWithABoundedAnswer) {
  std::string lines = kInsert;
  for (int i = 1; i < 150'000; ++i) lines += std::to_string(i) + "=%UPN% '\n";
  std::string terms = "1=a";
  for (int i = 0; i < 100'000; ++i) terms += "|{x}||b";
  for (const std::string& text :
       {lines, kInsert + terms, std::string(1 << 20, '['), std::string(1 << 20, '\n') + "[x",
        kInsert + "1=" + std::string(1 << 20, '"'), std::string("\0[\0W\0]\0", 8),
        "[Command]\nWatch=config " + std::string(500, '|')}) {
    EXPECT_LT(Run(text).output.size(), 1U << 19);
  }
}

}  // namespace
}  // namespace qixx::testing

// The check of a configuration: each kind of mistake, and a file without any.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "runtime/text.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"
#include "watch/check.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using Lines = std::vector<std::string>;

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  runtime::ReplaceAll(text, from, to, std::string::npos);
  return text;
}

/// In texts "@" stands for the test's folder.
class Check : public ::testing::Test {
 protected:
  Check() {
    for (const char* file : {"lib/libqixp11.so", "mail.conf", "saved.conf", "plain"}) {
      folder_.Write(file, "");
    }
    fs::create_symlink("/bin/true", folder_.Path("program"));
    fs::create_symlink(folder_.Path("plain"), folder_.Path("saved.conf.org"));
  }

  /// Checks a file of that text.
  watch::CheckResult Run(const std::string& text) const {
    folder_.Write("x.conf", Replaced(text, "@", folder_.Path()));
    return watch::CheckConfiguration({&file_, 1}, folder_.Path("no devices"));
  }
  /// The mistakes, without the file's name.
  Lines Told(const watch::CheckResult& result) const {
    const std::size_t end = result.output.find(file_ + ": checked as the system's file\n");
    const std::string told = Replaced(result.output.substr(0, end), file_ + ":", "");
    std::istringstream text(Replaced(told, folder_.Path(), "@"));
    Lines lines;
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
  }
  /// A file of these lines is told what begins as the texts behind " => ", and nothing else.
  void Expect(const std::string& table) const {
    std::istringstream lines(table);
    std::string text;
    std::vector<::testing::Matcher<std::string>> told;
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
      const std::size_t mark = line.find(" => ");
      text += line.substr(0, mark) + "\n";
      ++number;
      if (mark == std::string::npos) continue;
      told.push_back(StartsWith(std::to_string(number) + ": " + line.substr(mark + 4)));
    }
    const watch::CheckResult result = Run(text);
    EXPECT_THAT(Told(result), ElementsAreArray(told)) << text;
    EXPECT_EQ(result.exitCode, 1) << text;
  }
  TemporaryFolder folder_;
  const std::string file_ = folder_.Path("x.conf");
  const ScopedVariable home_{"HOME", folder_.Path().c_str()};
  const ScopedVariable path_{"PATH", folder_.Path().c_str()};
};

const std::string kInsert = "[Command]\nWatch=config Watch\n[Watch Insert]\n";

TEST_F(Check, LinesAndNames) {
  Expect(
      R"(x=1 => 'x' stands in front of the first section and is not read
[COMMAND] => section 'Command' stands once more; only the last one counts, in line 4
WATCH=config Nothing
[Command]
Watch=config Watch
[Watch Insert]
hello => the line is no entry
1=@/none => entry '1' stands once more; only the last one counts, in line 9
1=@/program
2 =x => entry '2 ' is not found for its blanks
3=@/program => entry '3' is never reached; the list ends at the missing '2'
02=@/program => entry '02' is not read
[Wacth Remove] => nothing reads section 'Wacth Remove'; 'Watch Remove' is meant
[Watch Door Insert] => nothing reads section 'Watch Door Insert'; no watcher of that name is started
[Watch]
Backgroud=x => nothing reads entry 'Backgroud' of section 'Watch'; 'Background' is meant
[Trace]
watch=@/x.trace => trace file '@/x.trace' has another ending, so nothing is traced
)"
      // What must not reach a terminal.
      "[\x1b[2J\xC2\x9B\xE2\x80\xAE\xE2\x81\xA0\xFF] => nothing reads section '\?[2J\?\?\?\?'\n");
}

TEST_F(Check, WholeFiles) {
  Expect(kInsert + "1=/bin/true " + std::string(502, 'x') +
         " => entry '1' has 512 characters and is cut; at most 511\n");
  Expect("[Command] => nothing is watched; an entry 'Watch'\n[Watch Remove]\n1=@/program\n");
  Expect(R"([Command]
Watch=config Watch|Door
Watch Door=-match "x" config Watch => double quotes do not reach an extra watcher
[Watch Insert]
1=close x
2=@/program => the command is never run, for entry '1' fails and ends the list
[Watch Remove]
1=close x
2=@/program "%UPN%" => placeholder '%UPN%' is not filled here
)");
}

TEST_F(Check, WatchCommands) {
  for (const std::string row :
       {R"(-match "cn=x config Watch => the value of '-match' has no closing quote)",
        "-sync => nothing follows option '-sync', so it is taken for a command",
        "-p @/program => '-p' without '-c' makes no keyword form",
        "-p @/program -c @/none.conf => there is no file '@/none.conf'",
        "-sync -match \"cn=x\" config Watch => option '-match' is not read at this place",
        "-match \"cn=x|12345\" config => the match 'cn=x|12345' cannot be read, so no card counts",
        "-snyc config Watch => unknown option '-snyc'; '-sync' is meant"}) {
    Expect("[Command]\nWatch=" + row + "\n[Watch Insert]\n1=@/program\n");
  }
}

TEST_F(Check, CommandsOfAList) {
  Expect(kInsert +
         R"(1=@/program -pin 1234 => entry '1' looks like a secret, and others may read the file
2=program => program 'program' has no path, and none is searched; '@/program' is meant
3=@/none => there is no program '@/none'
4=parallel @/plain => program '@/plain' is not executable
5=@/program "x => a double quote is not closed
6=@/program && => '&&' is an argument like any other, for there is no shell
7=@/program > @/none/x => file '@/none/x' may not be written
8=%UPN% x => a placeholder begins the command, so the card decides what is started
9=@/program -%upn% => placeholder in '-%upn%' is not quoted, and a value may hold blanks
10=@/program "%USERNAM%" => there is no placeholder '%USERNAM%'; '%USERNAME%' is meant
11=/bin/sh -c "echo %UPN%" => a placeholder stands behind '-c', where a shell and its like take a script
12=set -config "@/%UPN%.conf" => the file's path holds a placeholder, so the card decides which file
13=set -config @/saved.conf => saved copy '@/saved.conf.org' is a link or no readable file
14=@/program|{site}||@/program => condition '{site}' is not defined and never holds
15=load @/lib/libqixp11.so,Function => 'load' needs a comma behind the library and a blank
)");
}

TEST_F(Check, CleanFileSaysWhatWillRun) {
  const std::string text =
      "\xEF\xBB\xBF; a comment\n"
      R"([Trace]
watch=journal
[Install]
Directory=@/lib
[Command]
Watch=-match "cn=Ann|FF" -wait "5|2" -sync config Watch
[Watch Insert]
1=@/program -c x "%USERNAME% of %OID.o%" > /dev/null
2=
3=parallel set -config @/mail.conf
[Watch Remove]
1=@/program +%Y%m%d|{on}||@/plain
2=set -restore -config @/mail.conf
[Condition]
1={on} watch_test
[General]
)";
  const watch::CheckResult result = Run(Replaced(text, "\n", "\r\n"));
  EXPECT_EQ(result.exitCode, 0);
  const std::string ending = "up to a set, load, extern or close that fails";
  const std::string output = Replaced(result.output, ending, "up to a failure");
  EXPECT_EQ(Replaced(output, folder_.Path(), "@"), R"(@/x.conf: checked as the system's file

Watcher 'Watch' (@/x.conf:7), insertions only of cards that match 'cn=Ann|FF', insertions wait 5 s, removals wait 2 s, no removal before an insertion
  On insertion, in this order, up to a failure:
    1. start @/program -c x "%USERNAME% of %OID.o%" > /dev/null
    3. at the same time: write the logon values into @/mail.conf
  On removal, in this order, all of them:
    1. start @/program +%Y%m%d
    2. put @/mail.conf.org back and clear it
)");
}

/// The word PIN is the secret in each of these, wherever quotes and blanks cut it into words.
TEST_F(Check, NoPartOfASecretIsQuoted) {
  const std::string fronts[] = {kInsert + "1=@/program ", kInsert + "1=set -config @/mail.conf ",
                                kInsert + "1=x \\\n-pin \\\n",
                                "[Command]\nWatch=-match \"x\" -wait \"1\" "};
  const std::string options[] = {R"(-password "PIN"z)", R"(-pin PIN"C D")",        "-pin\tPIN\"x",
                                 "-pin %USERNAMPIN%",   R"(-pin "x|{PIN}||PIN"y)", "-pin -PIN",
                                 R"(-pin "-config PIN)"};
  for (const std::string& front : fronts) {
    for (const std::string& option : options) {
      const std::string text = Replaced(front + option, "PIN", "geheim");
      const watch::CheckResult result = Run(text + "\n");
      EXPECT_THAT(result.output + result.errors, Not(HasSubstr("geheim"))) << text;
    }
  }
}

/// What they name may be missing here, and nothing else.
TEST_F(Check, SamplesHaveNoMistakes) {
  for (const auto& sample : fs::directory_iterator(QIXX_SOURCE_DIR "/packaging/samples")) {
    std::string text = TemporaryFolder::ReadFile(sample.path().string());
    std::erase(text, '@');
    EXPECT_THAT(Told(Run(text)), Each(HasSubstr(": there is no "))) << text;
  }
}

TEST_F(Check, HostileFilesEndSoonWithABoundedAnswer) {
  using namespace std::string_literals;
  const std::string pipe = folder_.Path("pipe");
  ::mkfifo(pipe.c_str(), 0600);
  EXPECT_EQ(watch::CheckConfiguration({&pipe, 1}).errors,
            "qixxwatch: " + pipe + " cannot be read: no regular file\n");
  std::string terms = "1=a", list;
  for (int i = 1; i < 150'000; ++i) {
    terms += "|{x}||b";
    list += std::to_string(i) + "=" + std::string(100, 'x') + "\n";
  }
  for (const std::string& text :
       {kInsert + list, kInsert + terms, std::string(1 << 20, '\n') + "[x",
        kInsert + "1=" + std::string(1 << 20, '"'), "\0[\0W\0]\0"s}) {
    EXPECT_LT(Run(text).output.size(), 1U << 19);
  }
}

}  // namespace
}  // namespace qixx::testing

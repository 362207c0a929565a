// The check of a configuration: each kind of mistake, and a file without any.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "runtime/text.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"
#include "watch/check.h"

namespace qixx::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  runtime::ReplaceAll(text, from, to, std::string::npos);
  return text;
}

/// Entries 1, 2, 3 and so on of that value.
std::string List(const std::string& value, int count) {
  std::string list;
  for (int i = 1; i <= count; ++i) list += std::to_string(i) + "=" + value + "\n";
  return list;
}

/// In texts "@" stands for the test's folder.
class Check : public ::testing::Test {
 protected:
  Check() {
    for (const char* file : {"lib/libqixp11.so", "mail.conf", "plain"}) folder_.Write(file, "");
    folder_.Write("devices/1/bInterfaceClass", "0b\n");
    fs::create_symlink("/bin/true", folder_.Path("program"));
  }

  /// Checks a file of that text.
  watch::CheckResult Run(const std::string& text, mode_t mode = 0644) const {
    folder_.Write("x.conf", Replaced(text, "@", folder_.Path()));
    ::chmod(file_.c_str(), mode);
    return watch::CheckConfiguration({&file_, 1}, folder_.Path("devices"));
  }
  /// The mistakes, without the file's name.
  std::string Told(const watch::CheckResult& result) const {
    const std::size_t end = result.output.find(file_ + ": checked as the system's file\n");
    return Replaced(Replaced(result.output.substr(0, end), file_ + ":", ""), folder_.Path(), "@");
  }
  /// Each text of the table, between `front` and `behind`, is told those lines behind "=> " and no
  /// others.
  void Expect(const std::string& front, const std::string& table,
              const std::string& behind = "") const {
    std::istringstream lines(table);
    std::string text;
    std::string told;
    const auto check = [&] {
      const watch::CheckResult result = Run(front + text + behind);
      EXPECT_EQ(Told(result), told) << text;
      EXPECT_EQ(result.exitCode, 1) << text;
    };
    for (std::string line; std::getline(lines, line);) {
      const std::size_t mark = line.find("=> ");
      if (mark != 0 && !told.empty()) {
        check();
        text = told = "";
      }
      if (mark != 0) text += line.substr(0, mark == std::string::npos ? mark : mark - 1) + "\n";
      if (mark != std::string::npos) told += line.substr(mark + 3) + "\n";
    }
    check();
  }

  TemporaryFolder folder_;
  const std::string file_ = folder_.Path("x.conf");
  const ScopedVariable home_{"HOME", folder_.Path().c_str()};
  const ScopedVariable path_{"PATH", folder_.Path().c_str()};
};

const std::string kInsert = "[Command]\nWatch=config Watch\n[Watch Insert]\n";
const std::string kRemove = "[Command]\nWatch=config Watch\n[Watch Remove]\n";
const std::string kList = kInsert + "1=@/program\n";

TEST_F(Check, LinesBehindAList) {
  Expect(kList, R"(  2=x
=> 5: '2' begins with a blank and is not read; it has to begin at the start of the line
hello => 5: 'hello' is no entry; NAME=VALUE is meant, or a comment behind ';'
[] => 5: '[]' is no section; [NAME] is meant
2 =x => 5: entry '2 ' is not found for its blanks; no blank may stand beside the name
2= @/program => 5: the blank at the begin belongs to the value of '2'; no blank may stand there
1=@/plain
1=@/program => 4: entry '1' stands once more; only the last one counts, in line 5
=> 5: entry '1' stands once more; only the last one counts, in line 6
[COMMAND]
WATCH=config Watch
[Install]
[install] => 1: section 'COMMAND' stands once more; only the last one counts, in line 5
=> 7: section 'install' stands once more; only the last one counts, in line 8
[Wacth Remove]
1=@/program => 5: nothing reads section 'Wacth Remove'; 'Watch Remove' is meant
[Watch Door Insert] => 5: nothing reads section 'Watch Door Insert'; no watcher of that name is started
[Shopping] => 5: nothing reads section 'Shopping'
[Watch]
Backgroud=x => 6: nothing reads entry 'Backgroud' of section 'Watch'; 'Background' is meant
#2=@/program
3=@/program => 6: entry '3' is never reached; the list ends at the missing '2'
02=@/program => 5: entry '02' is not read; numbers from 1 are meant
[Condition]
1={x} *
3={y} * => 7: entry '3' is never reached; the list ends at the missing '2'
)");
  // What must not reach a terminal.
  Expect(kList, "[\x1b[2J\xC2\x9B\xE2\x80\xAE\xFF]\n=> 5: nothing reads section '\?[2J\?\?\?'");
}

TEST_F(Check, LinesInFrontOfAList) {
  Expect("", R"(x=1
=> 1: 'x' stands in front of the first section and is not read; it belongs behind a line [NAME]
[Admin Utility]
=> 1: it has section names of an older version, which change on each load; give the sections their present names: the lines below are those after the change
[Trace]
watch =@/x.log => 2: entry 'watch ' is not found for its blanks; no blank may stand beside the name
[Trace]
wacth=@/x.log
somebody=@/x.log => 2: nothing reads entry 'wacth' of section 'Trace'; 'watch' is meant
[Trace]
watch=@/x.trace
[Trace Call]
watch=@/x.trace => 2: trace file '@/x.trace' has another ending, so nothing is traced; '.log' or '.txt' is meant
[Trace]
bridge=x.log => 2: trace file 'x.log' stands in the folder that the service starts in; the whole path is meant
[Trace]
File=@/no/x.log => 2: there is no folder '@/no/', so nothing is traced; make it, or name another
[Install]
Directory=@/no => 2: there is no folder '@/no/'; the folder of 'libqixp11.so' is meant
[Install]
Directory=@ => 2: there is no 'libqixp11.so' in '@/'; the folder of that library is meant
)",
         kList);
}

TEST_F(Check, WatchCommands) {
  Expect("[Command]\nWatch=", R"(config Door
[Watch Door Remove]
#1=@/program => 2: watcher 'Door' has nothing to run; an entry 1 in section 'Watch Door Insert' or 'Watch Door Remove' is meant
-match "cn=x config Watch => 2: the value of '-match' has no closing quote; -match "TEXT" is meant
-sync => 2: nothing follows option '-sync', so it is taken for a command; '-sync config Watch' is meant
-simulate "insert" => 2: with '-simulate' the commands run once, and nothing is watched; it belongs on a command line
-p @/program => 2: '-p' without '-c' makes no keyword form; -p PROGRAM -c FILE is meant
-p @/program -c @/mail.conf -x 1 => 2: unknown option '-x'; '-p' is meant
-p @/program -c "@/mail.conf => 2: a double quote is not closed; one more is meant
-p @/program -c @/mail.conf -a %UPN%
=> 2: placeholder '%UPN%' is not filled here; only the numbered commands of an insertion get values
-p @/program -c @/none.conf
=> 2: there is no file '@/none.conf' (No such file or directory); the path of one that is there is meant
~@/program %UPN% => 2: placeholder '%UPN%' is not filled here; only the numbered commands of an insertion get values
config Watch|Door
Watch Door=-match "x" config Watch
[Watch Insert]
1=@/program => 3: double quotes do not reach an extra watcher; options with quotes belong to the first watcher
)");
  Expect("[Command]\nWatch=", R"(-sync  config Watch
=> 2: two blanks stand in front of 'config', so no option behind them is read; one blank is meant
-sync -match "cn=x" config Watch
=> 2: option '-match' is not read at this place; the order is -match -wait -message -hide -sync -term -recognized -simulate
-match cn=x config Watch => 2: option '-match' has no value in double quotes behind one blank; -match "TEXT" is meant
-match "cn=x"+config Watch => 2: behind the value of '-match' a character is lost; one blank is meant behind the closing quote
-match "cn=x|12345" config => 2: the match 'cn=x|12345' cannot be read, so no card counts; TYPE=VALUE is meant, or NAME|FF
-wait "soon" config => 2: 'soon' is no number of seconds; "5" or "5|2" is meant
-snyc config Watch => 2: unknown option '-snyc'; '-sync' is meant
)",
         "[Watch Insert]\n1=@/program\n");
}

TEST_F(Check, CommandsOfAList) {
  Expect(kInsert + "1=", R"(program
=> 4: program 'program' has no path, and none is searched; '@/program' is meant
~/program => 4: program '~/program' is taken as it stands, for there is no shell; the whole path is meant
./program => 4: program './program' is looked for in the folder that the service starts in; the whole path is meant
@/none => 4: there is no program '@/none' (No such file or directory); the path of one that is there is meant
@/lib => 4: '@/lib' is no regular file; a program is meant
parallel @/plain => 4: program '@/plain' is not executable; chmod +x
application "@/program x => 4: a double quote is not closed; one is meant behind the program's path
=> 4: there is no program '@/program x' (No such file or directory); the path of one that is there is meant
@/program "x => 4: a double quote is not closed; one more is meant behind '"x'
@/program "x"y => 4: no blank stands behind the closing quote of '"x'; the rest becomes an argument of its own
@/program --a="b" => 4: the double quote inside '--a="b"' holds nothing together; an argument has to begin with it
@/program 'b' => 4: single quotes hold nothing together: ''b''; double quotes are meant
@/program && x => 4: '&&' is an argument like any other, for there is no shell; a script is meant, or /bin/sh -c "..."
@/program > a b => 4: '>' is an argument like any other; only a last '> FILE' takes the output
@/program > @/none/x => 4: file '@/none/x' may not be written; check as the user that the service runs as
%UPN% x => 4: a placeholder begins the command, so the card decides what is started; a program's path is meant
@/%UPN% => 4: the program's path holds a placeholder, so the card decides what is started; a program's path is meant
@/program -%upn%
=> 4: placeholder in '-%upn%' is not quoted, and a value may hold blanks; the argument is meant to stand in double quotes
@/program "%USERNAM%" => 4: there is no placeholder '%USERNAM%'; '%USERNAME%' is meant
@/program "%OID.cn" => 4: placeholder '%OID.cn"' has no end; '%OID.cn%' is meant
/bin/sh -c "echo %UPN%"
=> 4: a placeholder stands in the script of a shell, which runs what the card says; give it as an argument behind the script, as in "echo $1" x "%UPN%"
@/program > "@/%UPN%"
=> 4: the output's path holds a placeholder, so the card decides which file is written; a file's path is meant
set -confg @/mail.conf -config @/mail.conf => 4: 'set' knows no option '-confg'; '-config' is meant
set -match x => 4: 'set' has no file and fails; -config FILE is meant
set -config @/none.conf => 4: there is no file '@/none.conf' (No such file or directory); the path of one that is there is meant
load @/lib/libqixp11.so,Function
=> 4: 'load' needs a comma behind the library and a blank behind the function; load LIBRARY,FUNCTION ARGUMENTS is meant
load @/%UPN%,Function x
=> 4: the library's path holds a placeholder, so the card decides what is loaded; a library's path is meant
extern @/none.so,x => 4: there is no library '@/none.so' (No such file or directory); the path of one that is there is meant
extern @/lib/libqixp11.so => 4: 'extern' needs a comma behind the library; extern LIBRARY,ARGUMENTS is meant
close x
2=@/program => 5: the command is never run, for entry '1' fails and ends the list; it belongs in front of that
@/program|7||@/program => 4: condition '7' never holds here; '*', the name of a program or a {name} is meant
@/program|mode:x||@/program => 4: condition 'mode:x' never holds here; '*', the name of a program or a {name} is meant
@/program|{site}||@/program => 4: condition '{site}' is not defined and never holds; section 'Condition' has to name it
@/program|a, b||@/program => 4: condition ' b' never holds for its blanks; no blank may stand beside it
@/program || echo
=> 4: what stands behind '@/program ' is never taken; '||' separates alternatives with conditions and is no "or" of a shell
@/program|watch_test||@/plain|other
=> 4: where no condition holds the whole text counts, with its bars; a last alternative without a condition is meant
@/program -pin 1234
=> 4: entry '1' looks like a secret, and others may read the file; take their permission away (chmod go=), or keep the secret elsewhere
)");
  Expect(kRemove + "1=", R"(@/program "%UPN%"
=> 4: placeholder '%UPN%' is not filled here; only the numbered commands of an insertion get values
)");
}

TEST_F(Check, WhatIsTooLong) {
  const auto x = [](std::size_t count) { return std::string(count, 'x'); };
  Expect("[Command]\nWatch=~/bin/true ", x(1013) + R"(
=> 2: entry 'Watch' has 1024 characters and is cut; at most 1023 are meant)");
  Expect("[Command]\nWatch=config ",
         x(51) + "\n=> 2: watcher '" + x(51) +
             R"(' has a name that is too long; at most 50 characters are meant)");
  Expect("[Command]\nWatch=-match \"cn=", x(253) + R"(" config Watch
[Watch Insert]
1=@/program => 2: the value of '-match' has more than 255 characters and is cut; a shorter one is meant)");
  Expect(kList + "[Pkcs11]\nModule=", x(256) + R"(
=> 6: entry 'Module' has 256 characters and is cut; at most 255 are meant)");
  Expect(kInsert + "1=/bin/true ", x(502) + R"(
=> 4: entry '1' has 512 characters and is cut; at most 511 are meant)");
  Expect(kRemove + "1=/bin/true ", x(246) + R"(
=> 4: entry '1' has 256 characters and is cut; at most 255 are meant)");
  Expect(kInsert + "1=parallel /bin/true ", x(246) + R"(
=> 4: the command behind 'parallel' has more than 255 characters and is refused; a shorter one, or a script, is meant)");
  Expect(kInsert + "1=set -config /", x(255) + R"(
=> 4: the file's path has more than 255 characters, so 'set' fails; a shorter one is meant)");
  Expect(kInsert, List("@/program", 2001) + R"(
=> 1: the list 'Watch Insert' has more commands than are checked; the first 2000 were)");
  EXPECT_THAT(Told(Run(kInsert + List("x", 1500))), EndsWith("\nAnd 500 more.\n"));
  // The last section counts, also where it is not checked.
  Expect(kInsert + "1=@/none\n[General]\n" + List("x", 100'000) + kList,
         "=> 1: it has more lines than are checked; the first 100000 were");
  const ScopedVariable variable("qix:Watch Insert:2", x(512).c_str());
  Expect(kList, R"(
=> qix:Watch Insert:2:1: the value has 512 characters and counts for nothing; at most 511 are meant)");
}

TEST_F(Check, CleanFileSaysWhatWillRun) {
  const std::string text =
      "\xEF\xBB\xBF; a comment\n"
      R"([Trace]
watch=journal
[Install]
Directory=@/lib
[Command]
Watch=-match "cn=Ann|FF" -wait "5|2" -sync config Watch|Door|Yard|Hall|Gate
Watch Door=-recognized config Door
Watch Yard=config Door
Watch Hall=~@/program x
Watch Gate=-p @/program -c @/mail.conf -a x
[Watch Insert]
1=@/program --title "%USERNAME% of %OID.o%" > /dev/null
2=
3=parallel set -config @/mail.conf
4=close x
[Watch Remove]
1=@/program +%Y%m%d
2=set -restore -config @/mail.conf
3=kill x
[Watch Door Insert]
1=@/program|{on}||@/plain
[Condition]
1={on} watch_test
[General]
Anything=x
)";
  const watch::CheckResult result = Run(Replaced(text, "\n", "\r\n"));
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(Replaced(result.output, folder_.Path(), "@"), R"(@/x.conf: checked as the system's file

Watcher 'Watch' (@/x.conf:7), insertions only of cards that match 'cn=Ann|FF', insertions wait 5 s, removals wait 2 s, no removal before an insertion
  On insertion, in this order, up to a set, load, extern or close that fails:
    1. start @/program --title "%USERNAME% of %OID.o%" > /dev/null
    3. at the same time: write the logon values into @/mail.conf
    4. nothing, without success (close x)
  On removal, in this order, all of them:
    1. start @/program +%Y%m%d
    2. put @/mail.conf.org back and clear it
    3. nothing, with success (kill x)

Watcher 'Door' (@/x.conf:8), only cards that can be read
  On insertion, in this order, up to a set, load, extern or close that fails:
    1. start @/program
  On removal, in this order, all of them:
    nothing

Watcher 'Yard' (@/x.conf:9)
  On insertion, in this order, up to a set, load, extern or close that fails:
    1. start @/program
  On removal, in this order, all of them:
    nothing

Watcher 'Hall' (@/x.conf:10)
  On insertion:
    start @/program x

Watcher 'Gate' (@/x.conf:11)
  On insertion:
    write the logon values into @/mail.conf
    start @/program x
  On removal:
    put @/mail.conf.org back and clear it
)");
}

TEST_F(Check, FileWithoutAWatchCommand) {
  Expect("", R"([Command]
[Watch Remove]
1=@/program => 1: nothing is watched; an entry 'Watch' in section 'Command' is meant
[Watch Insert] => 1: nothing is watched; an entry 'Watch' in section 'Command' is meant
)");
  EXPECT_EQ(Run("[Pkcs11]\nModule=x\n").exitCode, 0) << "for the bridge in other programs";
}

TEST_F(Check, SavedCopyThatIsNotTaken) {
  fs::create_symlink(folder_.Path("plain"), folder_.Path("mail.conf.org"));
  Expect(kRemove, R"(1=set -config @/mail.conf
=> 4: saved copy '@/mail.conf.org' is a link or no readable file, so nothing is set; a file of the service's user with one name is meant
)");
}

TEST_F(Check, SharedListIsToldOnce) {
  std::string text = "[Command]\nWatch=config Watch";
  for (int i = 1; i <= 33; ++i) text += "|" + std::to_string(i);
  for (int i = 1; i <= 33; ++i) text += "\nWatch " + std::to_string(i) + "=config Watch";
  Expect(text, R"(
[Watch Insert]
1=@/none => 2: extra watcher '33' is not started; at most 32 are meant
=> 37: there is no program '@/none' (No such file or directory); the path of one that is there is meant)");
}

TEST_F(Check, SeveralReadersAreAMistakeOnlyWithoutTheBridge) {
  const std::string text =
      "[Install]\nDirectory=@/lib\n[Command]\nWatch=-sync config\n[Watch Insert]\n1=@/program\n";
  EXPECT_EQ(Told(Run(text)), "") << "one reader";
  folder_.Write("devices/2/bInterfaceClass", "0b\n");
  folder_.Write("devices/3/bInterfaceClass", "03\n");
  EXPECT_THAT(Told(Run(text)),
              StartsWith("4: with '-sync' and 2 readers an event of an empty one makes"));
  folder_.Write("lib/libqixp11.so", "... QixEventDescriptor ...");
  EXPECT_EQ(Told(Run(text)), "");
}

TEST_F(Check, SecretsAreForTheOwnerAloneAndNeverShown) {
  const std::string text = kInsert + "1=@/program -pin 1234\n";
  EXPECT_EQ(Told(Run(text, 0600)), "");
  EXPECT_THAT(Run(text, 0600).output, HasSubstr("-pin ****"));
  EXPECT_THAT(Run(text).output, Not(HasSubstr("1234")));
}

TEST_F(Check, FilesInUseAreThoseThatTheServiceWouldTake) {
  const std::string systemFile =
      folder_.Write("system.conf", kInsert + "1=" + folder_.Path("program") + "\n");
  const std::string userFile =
      folder_.Write("user.conf", "[Trace]\nwatch=" + folder_.Path("x.log") +
                                     "\n[Command]\nWatch=config\n[Watch Insert]\n");
  const ScopedVariable system("qixconfigglobal", systemFile.c_str());
  {
    const watch::CheckResult result = watch::CheckConfiguration({});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output,
                StartsWith(systemFile + ": the system's file, as qixconfigglobal says\n"));
    EXPECT_FALSE(fs::exists(folder_.Path(".qix"))) << "nothing is made";
  }
  const ScopedVariable user("qixconfiglocal", userFile.c_str());
  const ScopedVariable override("qix:Watch Insert:1", "/no/program");
  const watch::CheckResult result = watch::CheckConfiguration({});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(
      Replaced(result.output, folder_.Path(), "@"),
      StartsWith(
          R"(@/user.conf:3: section 'Command' is not read from the user's file; it belongs into the system's file
@/user.conf:5: section 'Watch Insert' is not read from the user's file; it belongs into the system's file
qix:Watch Insert:1:1: there is no program '/no/program' (No such file or directory); the path of one that is there is meant
@/user.conf: the user's file, for sections Trace and Pkcs11
@/system.conf: the system's file, as qixconfigglobal says
)"));
}

TEST_F(Check, WhatCannotBeReadIsSaidWithItsReason) {
  ::mkfifo(folder_.Path("pipe").c_str(), 0600);
  const std::pair<std::string, const char*> rows[] = {
      {folder_.Path("none"), "No such file or directory"},
      {folder_.Path(), "no regular file"},
      {folder_.Path("pipe"), "no regular file"},
      {"/dev/zero", "no regular file"},
      {folder_.Write("x.edb", "[Command]\n"), "its text cannot be read"},
      {std::string(300, 'x'), "its path has more than 255 characters"},
  };
  for (const auto& [file, reason] : rows) {
    const watch::CheckResult result = watch::CheckConfiguration({&file, 1});
    EXPECT_EQ(result.exitCode, 2) << file;
    EXPECT_THAT(result.errors, HasSubstr(std::string(" cannot be read: ") + reason + "\n"));
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
    EXPECT_THAT(Told(Run(text)), MatchesRegex("([0-9]+: there is no [^\n]*\n)*")) << text;
  }
}

TEST_F(Check, HostileFilesEndSoonWithABoundedAnswer) {
  using namespace std::string_literals;
  std::string terms = "1=a";
  for (int i = 0; i < 100'000; ++i) terms += "|{x}||b";
  for (const std::string& text :
       {kInsert + List(std::string(100, 'x'), 150'000), kInsert + terms, std::string(1 << 20, '['),
        std::string(1 << 20, '\n') + "[x", kInsert + "1=" + std::string(1 << 20, '"'),
        "\0[\0W\0]\0"s, "[Command]\nWatch=config " + std::string(500, '|')}) {
    const std::string output = Run(text).output;
    EXPECT_LT(output.size(), 1U << 19);
    EXPECT_LT(output.size() - output.find(": checked as"), 1U << 17);
  }
}

}  // namespace
}  // namespace qixx::testing

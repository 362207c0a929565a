// Parsing a command line, beside copying it once into each text field of the record.
#include <benchmark/benchmark.h>

#include <string_view>

#include "runtime/text.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"
#include "watch/options.h"

namespace qixx::bench {
namespace {

constexpr std::string_view kPositional =
    "-match \"subject|cn=Ann Lee\" -wait \"5|7\" -hide insert -sync -term config Extra|One|Two ";
constexpr std::string_view kKeyword =
    "-match \"cn=Ann\" -p /usr/bin/program -c /home/ann/logon.conf -a \"one two\" -n 3 -sync ";

void ParseBare(benchmark::State& state) {
  watch::CWatchOptions record{};
  for (auto _ : state) {
    for (char* field : {record.program, record.configFile, record.arguments, record.match,
                        record.rest, record.section, record.background}) {
      runtime::CopyTextCut({field, runtime::kTextSize}, kPositional);
      benchmark::DoNotOptimize(field);
    }
  }
}
BENCHMARK(ParseBare);

/// The parser ends by reading one entry of the product configuration, which is missing here, so the
/// figure holds two failed opens as well.
void Parse(benchmark::State& state) {
  const testing::TemporaryFolder folder;
  const testing::ScopedVariable configuration("qixconfigglobal", folder.Path("none.conf").c_str());
  const std::string_view line = state.range(0) == 0 ? kPositional : kKeyword;
  for (auto _ : state) {
    watch::CWatchOptions record{};
    benchmark::DoNotOptimize(watch::ParseWatchOptions(line, record));
  }
}
BENCHMARK(Parse)->Name("ParsePositional")->Arg(0);
BENCHMARK(Parse)->Name("ParseKeyword")->Arg(1);

}  // namespace
}  // namespace qixx::bench

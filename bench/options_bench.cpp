// Parsing a command line, beside copying it once into each text field of the record.
#include <benchmark/benchmark.h>

#include <string>
#include <string_view>

#include "watch/options.h"

namespace qixx::bench {
namespace {

constexpr std::string_view kPositional =
    "-match \"subject|cn=Ann Lee\" -wait \"5|7\" -hide insert -sync -term config Extra|One|Two ";
constexpr std::string_view kKeyword =
    "-match \"cn=Ann\" -p /usr/bin/program -c /home/ann/logon.conf -a \"one two\" -n 3 -sync ";

void ParseBare(benchmark::State& state) {
  watch::CWatchOptions record;
  for (auto _ : state) {
    for (std::string* field : {&record.program, &record.configFile, &record.arguments,
                               &record.match, &record.rest, &record.section, &record.background}) {
      *field = kPositional;
      benchmark::DoNotOptimize(*field);
    }
  }
}
BENCHMARK(ParseBare);

void Parse(benchmark::State& state) {
  const std::string_view line = state.range(0) == 0 ? kPositional : kKeyword;
  for (auto _ : state) {
    watch::CWatchOptions record;
    benchmark::DoNotOptimize(watch::ParseWatchOptions(line, record));
  }
}
BENCHMARK(Parse)->Name("ParsePositional")->Arg(0);
BENCHMARK(Parse)->Name("ParseKeyword")->Arg(1);

}  // namespace
}  // namespace qixx::bench

// One trace line to a file, beside a bare open, write and close of the same bytes.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "runtime/trace.h"
#include "tests/support/temporary_folder.h"

namespace qixx::bench {
namespace {

constexpr std::string_view kLine =
    "[12345:5b2e7700] 00.00.03.141 Watch - Execute insert command: /usr/bin/true\n";

void TraceLineBare(benchmark::State& state) {
  const testing::TemporaryFolder folder;
  const std::string file = folder.Path("bare.log");
  for (auto _ : state) {
    const int descriptor = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    benchmark::DoNotOptimize(::write(descriptor, kLine.data(), kLine.size()));
    ::close(descriptor);
  }
}
BENCHMARK(TraceLineBare);

void TraceLine(benchmark::State& state) {
  const testing::TemporaryFolder folder;
  runtime::TraceSetFile(folder.Path("trace.log").c_str());
  for (auto _ : state)
    runtime::TraceWrite("Watch - Execute %s command: %s", "insert", "/usr/bin/true");
  runtime::TraceSetFile("");
}
BENCHMARK(TraceLine);

void TraceLineSwitchedOff(benchmark::State& state) {
  for (auto _ : state)
    runtime::TraceWrite("Watch - Execute %s command: %s", "insert", "/usr/bin/true");
}
BENCHMARK(TraceLineSwitchedOff);

}  // namespace
}  // namespace qixx::bench

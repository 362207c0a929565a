// Opening a configuration of 1 MiB and reading and setting 1,000 values, beside the plain cost: one
// read of the file, one memory search over it for each value.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "config/file.h"
#include "config/store.h"
#include "tests/support/temporary_folder.h"

namespace qixx::bench {
namespace {

constexpr int kSections = 256;
constexpr int kEntries = 64;
constexpr int kValues = 1000;

std::string Section(int number) {
  return "Section " + std::to_string(number);
}
std::string Entry(int number) {
  return "Entry number " + std::to_string(number);
}

/// About 1 MiB in 256 sections of 64 entries.
std::string Text() {
  std::string text;
  for (int section = 0; section < kSections; ++section) {
    text += "[" + Section(section) + "]\n";
    for (int entry = 0; entry < kEntries; ++entry) {
      text += Entry(entry) + "=" + std::string(46, static_cast<char>('a' + entry % 26)) + "\n";
    }
  }
  return text;
}

struct Names {
  std::string section, entry;
};
std::vector<Names> Wanted() {
  std::vector<Names> wanted;
  for (int number = 0; number < kValues; ++number) {
    wanted.push_back({Section(number * 7 % kSections), Entry(number * 13 % kEntries)});
  }
  return wanted;
}

void ConfigOpenBare(benchmark::State& state) {
  const testing::TemporaryFolder folder;
  const std::string file = folder.Write("qix.conf", Text());
  for (auto _ : state) {
    FILE* stream = std::fopen(file.c_str(), "re");
    std::vector<char> text(2 * 1024 * 1024);
    benchmark::DoNotOptimize(std::fread(text.data(), 1, text.size(), stream));
    std::fclose(stream);
  }
}
BENCHMARK(ConfigOpenBare)->Unit(benchmark::kMicrosecond);

void ConfigOpen(benchmark::State& state) {
  const testing::TemporaryFolder folder;
  const std::string file = folder.Write("qix.conf", Text());
  for (auto _ : state) {
    config::CConfig config;
    benchmark::DoNotOptimize(config.OpenItem(state.range(0) != 0, file));
    config.Close(true);
  }
}
BENCHMARK(ConfigOpen)->Name("ConfigOpenReadOnly")->Arg(0)->Unit(benchmark::kMicrosecond);
BENCHMARK(ConfigOpen)->Name("ConfigOpenWritable")->Arg(1)->Unit(benchmark::kMicrosecond);

/// What a scan costs at the least: one search from the start of the text to the place of the value.
void ConfigReadBare(benchmark::State& state) {
  const std::string text = Text();
  const std::vector<Names> wanted = Wanted();
  for (auto _ : state) {
    for (const Names& names : wanted) {
      const std::string header = "[" + names.section + "]\n";
      const void* found = ::memmem(text.data(), text.size(), header.data(), header.size());
      benchmark::DoNotOptimize(found);
    }
  }
}
BENCHMARK(ConfigReadBare)->Unit(benchmark::kMicrosecond);

/// A read-only file answers from the tree, a writable one by scanning its text.
void ConfigRead(benchmark::State& state) {
  const testing::TemporaryFolder folder;
  const std::string file = folder.Write("qix.conf", Text());
  const std::vector<Names> wanted = Wanted();
  config::CConfig config;
  config.OpenItem(state.range(0) != 0, file);
  for (auto _ : state) {
    for (const Names& names : wanted) {
      const auto value = config.GetString(names.section, names.entry);
      if (!value) state.SkipWithError("a value was not found");
    }
  }
  config.Close(true);
}
BENCHMARK(ConfigRead)->Name("ConfigReadTree")->Arg(0)->Unit(benchmark::kMicrosecond);
BENCHMARK(ConfigRead)->Name("ConfigReadScan")->Arg(1)->Unit(benchmark::kMicrosecond);

/// The least that a set costs: the search, and moving the text behind the line once.
void ConfigSetBare(benchmark::State& state) {
  std::string text = Text();
  const std::vector<Names> wanted = Wanted();
  for (auto _ : state) {
    for (const Names& names : wanted) {
      const std::string header = "[" + names.section + "]\n";
      char* found =
          static_cast<char*>(::memmem(text.data(), text.size(), header.data(), header.size()));
      const std::size_t rest = text.size() - static_cast<std::size_t>(found - text.data());
      std::memmove(found, found + 1, rest - 1);
      std::memmove(found + 1, found, rest - 1);
      found[0] = '[';
    }
  }
}
BENCHMARK(ConfigSetBare)->Unit(benchmark::kMicrosecond);

void ConfigSet(benchmark::State& state) {
  const testing::TemporaryFolder folder;
  const std::string file = folder.Write("qix.conf", Text());
  const std::vector<Names> wanted = Wanted();
  config::CConfig config;
  config.OpenItem(true, file);
  int round = 0;
  for (auto _ : state) {
    const std::string value(static_cast<std::size_t>(40 + ++round % 2), 'v');
    for (const Names& names : wanted) {
      config.SetString(names.section, names.entry, value);
    }
  }
  config.Close(true);
}
BENCHMARK(ConfigSet)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace qixx::bench

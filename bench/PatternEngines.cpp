// The two candidate engines for schema patterns on the patterns the hosts' schemas use: RE2 (what
// the validator runs, through its ECMA translation) and std::regex (ECMAScript grammar). Compile
// and match are timed apart: the validator compiles each distinct pattern once per process and
// matches it once per value.
#include <benchmark/benchmark.h>
#include <re2/re2.h>

#include <regex>
#include <string>

#include "platform/validator/EcmaPattern.h"

namespace {

const char* const kPatterns[] = {"^[a-z]{0,63}$", "^[a-z][a-z0-9-]{0,63}$", "^[a-z0-9.-]{1,253}$"};
const char* const kSubject = "storage-node-17.example";  // matches the second and third, not the first

void Re2Compile(benchmark::State& state) {
  const std::string pattern = kPatterns[state.range(0)];
  for (auto _ : state) {
    JsonValidator::detail::ClearPatternCache();
    std::string error;
    benchmark::DoNotOptimize(JsonValidator::detail::CompileEcmaPattern(pattern, error));
  }
  state.SetLabel(pattern);
}

void StdRegexCompile(benchmark::State& state) {
  const std::string pattern = kPatterns[state.range(0)];
  for (auto _ : state) benchmark::DoNotOptimize(std::regex(pattern, std::regex::ECMAScript));
  state.SetLabel(pattern);
}

void Re2Match(benchmark::State& state) {
  std::string error;
  auto re = JsonValidator::detail::CompileEcmaPattern(kPatterns[state.range(0)], error);
  const std::string subject = kSubject;
  for (auto _ : state) {
    benchmark::DoNotOptimize(JsonValidator::detail::PatternFinds(*re, subject.data(), subject.size()));
  }
  state.SetLabel(kPatterns[state.range(0)]);
}

void StdRegexMatch(benchmark::State& state) {
  const std::regex re(kPatterns[state.range(0)], std::regex::ECMAScript);
  const std::string subject = kSubject;
  for (auto _ : state) benchmark::DoNotOptimize(std::regex_search(subject, re));
  state.SetLabel(kPatterns[state.range(0)]);
}

BENCHMARK(Re2Compile)->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);
BENCHMARK(StdRegexCompile)->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);
BENCHMARK(Re2Match)->DenseRange(0, 2)->Unit(benchmark::kNanosecond);
BENCHMARK(StdRegexMatch)->DenseRange(0, 2)->Unit(benchmark::kNanosecond);

}  // namespace

BENCHMARK_MAIN();

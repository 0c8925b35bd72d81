// What a list costs: building, looking up, walking, and nesting, over the public interface.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include <tq/tq.h>

namespace {

/// Eight named values: names of 5 to 12 letters, three 32-bit and two 64-bit integers, two strings
/// and a binary.
void FillTypical(HTQPARAMLIST list) {
  static const uint8_t digest[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  TQSetInt32Value(list, "price", 1250);
  TQSetInt32Value(list, "quantity", 3);
  TQSetInt32Value(list, "warehouse", 17);
  TQSetInt64Value(list, "customerId", 0x123456789ABCDEF);
  TQSetInt64Value(list, "orderedAtMs", 1700000000000);
  TQSetStringValue(list, "article", "cable, 3 m");
  TQSetStringValue(list, "remark", "leave it with the neighbour");
  TQSetBinaryValue(list, "digestOfItem", digest, sizeof digest);
}

/// The names "value0", "value1", ...
std::vector<std::string> NumberedNames(int64_t count) {
  std::vector<std::string> names;
  for (int64_t i = 0; i < count; ++i) names.push_back("value" + std::to_string(i));
  return names;
}

HTQPARAMLIST NumberedList(const std::vector<std::string>& names) {
  const HTQPARAMLIST list = TQCreateParamList();
  for (const std::string& name : names) TQSetInt32Value(list, name.c_str(), 1);
  return list;
}

void CreateAndClose(benchmark::State& state) {
  for (auto _ : state) TQCloseHandle(TQCreateParamList());
}
BENCHMARK(CreateAndClose);

void BuildEightValues(benchmark::State& state) {
  for (auto _ : state) {
    const HTQPARAMLIST list = TQCreateParamList();
    FillTypical(list);
    benchmark::DoNotOptimize(TQGetFirstParam(list));
    TQCloseHandle(list);
  }
}
BENCHMARK(BuildEightValues);

void RefillEightValues(benchmark::State& state) {
  const HTQPARAMLIST list = TQCreateParamList();
  for (auto _ : state) {
    FillTypical(list);
    TQRemoveAllValues(list);
  }
  TQCloseHandle(list);
}
BENCHMARK(RefillEightValues);

void ReadEightValues(benchmark::State& state) {
  const HTQPARAMLIST list = TQCreateParamList();
  FillTypical(list);
  for (auto _ : state) {
    benchmark::DoNotOptimize(TQGetInt32Value(list, "price"));
    benchmark::DoNotOptimize(TQGetInt32Value(list, "quantity"));
    benchmark::DoNotOptimize(TQGetInt32Value(list, "warehouse"));
    benchmark::DoNotOptimize(TQGetInt64Value(list, "customerId"));
    benchmark::DoNotOptimize(TQGetInt64Value(list, "orderedAtMs"));
    benchmark::DoNotOptimize(TQGetStringValue(list, "article"));
    benchmark::DoNotOptimize(TQGetStringValue(list, "remark"));
    benchmark::DoNotOptimize(TQGetBinaryValue(list, "digestOfItem"));
  }
  TQCloseHandle(list);
}
BENCHMARK(ReadEightValues);

void LookUpLastOf(benchmark::State& state) {
  const std::vector<std::string> names = NumberedNames(state.range(0));
  const HTQPARAMLIST list = NumberedList(names);
  for (auto _ : state) benchmark::DoNotOptimize(TQParamInfo(list, names.back().c_str()));
  state.SetComplexityN(state.range(0));
  TQCloseHandle(list);
}
BENCHMARK(LookUpLastOf)->RangeMultiplier(8)->Range(1, 512)->Complexity(benchmark::oN);

void WalkAllOf(benchmark::State& state) {
  const HTQPARAMLIST list = NumberedList(NumberedNames(state.range(0)));
  for (auto _ : state) {
    for (auto* entry = TQGetFirstParam(list); entry != nullptr;) {
      entry = TQGetNextParam(list, entry);
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  TQCloseHandle(list);
}
BENCHMARK(WalkAllOf)->RangeMultiplier(8)->Range(1, 512);

void StoreArrayOf1000(benchmark::State& state) {
  const std::vector<uint32_t> values(1000, 7);
  for (auto _ : state) {
    const HTQPARAMLIST list = TQCreateParamList();
    TQSetInt32Array(list, "values", 1000, values.data());
    benchmark::DoNotOptimize(TQGetInt32Array(list, "values").values);
    TQCloseHandle(list);
  }
}
BENCHMARK(StoreArrayOf1000);

void NestThreeDeep(benchmark::State& state) {
  for (auto _ : state) {
    HTQPARAMLIST inner = TQCreateParamList();
    FillTypical(inner);
    for (int level = 0; level < 3; ++level) {
      const HTQPARAMLIST outer = TQCreateParamList();
      TQSetHandleValue(outer, "inner", inner);
      TQCloseHandle(inner);
      inner = outer;
    }
    TQCloseHandle(inner);
  }
}
BENCHMARK(NestThreeDeep);

}  // namespace

BENCHMARK_MAIN();

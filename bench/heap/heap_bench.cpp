// What lists cost on the heap that this program is linked with: lists of a short life on one thread
// and on four, lists that one thread makes and another closes, and the memory of many that stay.
#include <benchmark/benchmark.h>
#include <tq/tq.h>

#include <unistd.h>
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int THREADS = 4;

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

HTQPARAMLIST MakeTypical() {
  const HTQPARAMLIST list = TQCreateParamList();
  FillTypical(list);
  return list;
}

void ShortLived(benchmark::State& state) {
  for (auto _ : state) TQCloseHandle(MakeTypical());
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ShortLived)->Threads(1)->Threads(THREADS);

/// As a server under load: a number of lists at a time, the oldest of which goes first.
void InFlight(benchmark::State& state) {
  std::vector<HTQPARAMLIST> lists(64);
  size_t oldest = 0;
  for (auto _ : state) {
    TQCloseHandle(lists[oldest]);
    lists[oldest] = MakeTypical();
    oldest = (oldest + 1) % lists.size();
  }
  for (const HTQPARAMLIST list : lists) TQCloseHandle(list);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(InFlight)->Threads(1)->Threads(THREADS);

/// A list of many values, which takes as many steps to grow.
void ManySteps(benchmark::State& state) {
  std::vector<std::string> names;
  for (int i = 0; i < 64; ++i) names.push_back("value" + std::to_string(i));
  for (auto _ : state) {
    const HTQPARAMLIST list = TQCreateParamList();
    for (const std::string& name : names) TQSetInt32Value(list, name.c_str(), 1);
    TQCloseHandle(list);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ManySteps)->Threads(1)->Threads(THREADS);

/// Each thread makes lists that its neighbour closes, as messages are made and sent.
struct alignas(64) Exchange {
  std::atomic<FastHolderImpl*> list = nullptr;
};
Exchange g_exchanges[THREADS];

void HandedOver(benchmark::State& state) {
  Exchange& own = g_exchanges[state.thread_index()];
  Exchange& neighbour = g_exchanges[(state.thread_index() + 1) % state.threads()];
  for (auto _ : state) {
    TQCloseHandle({own.list.exchange(MakeTypical().impl)});
    TQCloseHandle({neighbour.list.exchange(nullptr)});
  }
  TQCloseHandle({own.list.exchange(nullptr)});
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(HandedOver)->Threads(THREADS);

double ResidentKiB() {
  long pages = 0;
  long resident = 0;
  std::FILE* file = std::fopen("/proc/self/statm", "r");
  if (file == nullptr || std::fscanf(file, "%ld %ld", &pages, &resident) != 2) resident = 0;
  if (file != nullptr) std::fclose(file);
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

/// Four threads make lists that stay, among others that go. Each thread is a new one.
void Resident(benchmark::State& state) {
  constexpr size_t LISTS = 25000;
  for (auto _ : state) {
    std::vector<std::vector<HTQPARAMLIST>> kept(THREADS);
    for (auto& lists : kept) lists.resize(LISTS);
    const double before = ResidentKiB();
    std::vector<std::thread> threads;
    for (auto& lists : kept) {
      threads.emplace_back([&lists] {
        for (HTQPARAMLIST& list : lists) {
          TQCloseHandle(MakeTypical());
          list = MakeTypical();
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    const double full = ResidentKiB();
    for (auto& lists : kept) {
      for (const HTQPARAMLIST list : lists) TQCloseHandle(list);
    }
    state.counters["bytes_a_list"] = (full - before) * 1024 / (LISTS * THREADS);
    state.counters["KiB_full"] = full;
    state.counters["KiB_after_close"] = ResidentKiB();
  }
}
BENCHMARK(Resident)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

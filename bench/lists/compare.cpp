// Lists beside the libraries that a user would pick instead, in one run.
//
// Names of the benchmarks: <message>/<step>/<library>. The steps are build (and drop), carry (put
// on the pipe and take off), read (every value by its name) and total (all of it, with the drop).
// Under "lookup" stands the read of messages of 1 to 1,024 values; its items are single values.
#include "library.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

namespace TQ::bench {
namespace {

constexpr int MANY = 1000;
constexpr int COMPARED = 20;
constexpr int MOST_LOOKED_UP = 1024;

using State = benchmark::State;

void MeasureBuild(State& state, Message& message, MemoryPipe& /*pipe*/) {
  for (auto _ : state) {
    message.Build();
    message.Drop();
  }
}

void MeasureCarry(State& state, Message& message, MemoryPipe& pipe) {
  message.Build();
  for (auto _ : state) {
    message.Send(pipe);
    message.Receive(pipe);
  }
}

void MeasureRead(State& state, Message& message, MemoryPipe& pipe) {
  message.Build();
  message.Send(pipe);
  message.Receive(pipe);
  for (auto _ : state) benchmark::DoNotOptimize(message.Read());
}

void MeasureTotal(State& state, Message& message, MemoryPipe& pipe) {
  for (auto _ : state) {
    message.Build();
    message.Send(pipe);
    message.Receive(pipe);
    benchmark::DoNotOptimize(message.Read());
    message.Drop();
  }
}

using Measure = void (*)(State&, Message&, MemoryPipe&);

void Register(const std::string& name, const Library& library, Shape shape,
              const ManyContent& content, Measure measure, int items = 0) {
  if (library.make(shape, content) == nullptr) return;
  const auto run = [=, &content](State& state) {
    const auto message = library.make(shape, content);
    MemoryPipe pipe;
    measure(state, *message, pipe);
    message->Drop();
    if (items != 0) state.SetItemsProcessed(state.iterations() * items);
    state.SetLabel(library.access == Access::BY_SCHEMA ? "by schema" : "by name");
  };
  benchmark::RegisterBenchmark(name.c_str(), run);
}

struct NamedShape {
  const char* name;
  Shape shape;
};

constexpr NamedShape SHAPES[] = {{"order", Shape::ORDER},
                                 {"nested", Shape::NESTED},
                                 {"integers1000", Shape::INTEGERS},
                                 {"texts1000", Shape::TEXTS},
                                 {"values1000", Shape::VALUES}};

constexpr struct {
  const char* name;
  Measure measure;
} STEPS[] = {{"build", &MeasureBuild},
             {"carry", &MeasureCarry},
             {"read", &MeasureRead},
             {"total", &MeasureTotal}};

uint64_t SumOf(Message& message) {
  MemoryPipe pipe;
  message.Build();
  message.Send(pipe);
  message.Receive(pipe);
  const uint64_t sum = message.Read();
  message.Drop();
  return sum;
}

/// Every library must read the same from its messages, twice in a row.
bool AllAgree(const std::vector<Library>& libraries, const ManyContent& content) {
  bool agree = true;
  for (const NamedShape& shape : SHAPES) {
    const uint64_t expected = SumOf(*libraries[0].make(shape.shape, content));
    for (const Library& library : libraries) {
      const auto message = library.make(shape.shape, content);
      for (int i = 0; message != nullptr && i < 2; ++i) {
        if (SumOf(*message) == expected) continue;
        std::fprintf(stderr, "%s reads another %s\n", library.name, shape.name);
        agree = false;
      }
    }
  }
  return agree;
}

std::vector<Library> Libraries() {
  return {TqLibrary(),    TqReusedLibrary(), ProtobufLibrary(),    ProtobufReusedLibrary(),
          CapnpLibrary(), MsgpackLibrary(),  FlexBuffersLibrary(), GVariantLibrary(),
          CborLibrary(),  JsonLibrary()};
}

void RegisterAll(const std::vector<Library>& libraries, const ManyContent& content) {
  for (const NamedShape& shape : SHAPES) {
    for (const auto& step : STEPS) {
      for (const Library& library : libraries) {
        Register(std::string(shape.name) + "/" + step.name + "/" + library.name, library,
                 shape.shape, content, step.measure);
      }
    }
  }
}

void RegisterLookups(const std::vector<Library>& libraries,
                     const std::vector<ManyContent>& contents) {
  for (const ManyContent& content : contents) {
    const auto count = static_cast<int>(content.names.size());
    for (const Library& library : libraries) {
      Register("lookup/" + std::to_string(count) + "/" + library.name, library, Shape::VALUES,
               content, &MeasureRead, count);
    }
  }
}

}  // namespace
}  // namespace TQ::bench

int main(int argc, char** argv) {
  using namespace TQ::bench;
  const std::vector<Library> libraries = Libraries();
  const ManyContent content(MANY);
  if (!AllAgree(libraries, ManyContent(COMPARED))) return 1;
  std::vector<ManyContent> lookups;
  for (int count = 1; count <= MOST_LOOKED_UP; count *= 2) lookups.emplace_back(count);
  RegisterAll(libraries, content);
  RegisterLookups(libraries, lookups);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

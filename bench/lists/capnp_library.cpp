// Cap'n Proto: generated builders and readers over streams, both with scratch space for the first
// segment, which its documentation recommends against an allocation for each message.
#include "library.h"
#include "order.capnp.h"

#include <capnp/message.h>
#include <capnp/serialize.h>
#include <kj/io.h>

#include <algorithm>
#include <optional>

namespace TQ::bench {
namespace {

namespace schema = tq_bench::capnp_schema;

void FillOrder(schema::Order::Builder order) {
  order.setPrice(SAMPLE.price);
  order.setQuantity(SAMPLE.quantity);
  order.setWarehouse(SAMPLE.warehouse);
  order.setCustomerId(SAMPLE.customerId);
  order.setOrderedAtMs(SAMPLE.orderedAtMs);
  order.setArticle(SAMPLE.article);
  order.setRemark(SAMPLE.remark);
  order.setDigestOfItem(kj::arrayPtr(SAMPLE.digestOfItem, sizeof SAMPLE.digestOfItem));
}

uint64_t ReadOrder(schema::Order::Reader order) {
  Sum sum;
  sum.Number(order.getPrice());
  sum.Number(order.getQuantity());
  sum.Number(order.getWarehouse());
  sum.Number(order.getCustomerId());
  sum.Number(order.getOrderedAtMs());
  sum.Bytes(order.getArticle().begin(), order.getArticle().size());
  sum.Bytes(order.getRemark().begin(), order.getRemark().size());
  sum.Bytes(order.getDigestOfItem().begin(), order.getDigestOfItem().size());
  return sum.Value();
}

void Fill(schema::Order::Builder order, const ManyContent&) { FillOrder(order); }
uint64_t Read(schema::Order::Reader order) { return ReadOrder(order); }

void Fill(schema::Nested::Builder nested, const ManyContent&) {
  for (int level = 1; level < NESTING; ++level) nested = nested.initInner();
  FillOrder(nested.initOrder());
}
uint64_t Read(schema::Nested::Reader nested) {
  for (int level = 1; level < NESTING; ++level) nested = nested.getInner();
  return ReadOrder(nested.getOrder());
}

void Fill(schema::Integers::Builder integers, const ManyContent& content) {
  auto values = integers.initValues(static_cast<unsigned>(content.integers.size()));
  for (unsigned i = 0; i < values.size(); ++i) values.set(i, content.integers[i]);
}
uint64_t Read(schema::Integers::Reader integers) {
  Sum sum;
  for (const int32_t value : integers.getValues()) sum.Number(value);
  return sum.Value();
}

void Fill(schema::Texts::Builder texts, const ManyContent& content) {
  auto values = texts.initValues(static_cast<unsigned>(content.names.size()));
  for (unsigned i = 0; i < values.size(); ++i) values.set(i, content.names[i].c_str());
}
uint64_t Read(schema::Texts::Reader texts) {
  Sum sum;
  for (const auto text : texts.getValues()) sum.Bytes(text.begin(), text.size());
  return sum.Value();
}

class PipeOutput final : public kj::OutputStream {
 public:
  explicit PipeOutput(MemoryPipe& target) : pipe(target) {}
  void write(const void* buffer, size_t size) override {
    pipe.Send(buffer, static_cast<uint32_t>(size));
  }

 private:
  MemoryPipe& pipe;
};

class PipeInput final : public kj::InputStream {
 public:
  explicit PipeInput(MemoryPipe& source) : pipe(source) {}
  size_t tryRead(void* buffer, size_t /*minBytes*/, size_t maxBytes) override {
    const size_t size = std::min(maxBytes, pipe.Remaining());
    pipe.Receive(buffer, static_cast<uint32_t>(size));
    return size;
  }

 private:
  MemoryPipe& pipe;
};

template <typename Struct>
class CapnpMessage final : public Message {
 public:
  explicit CapnpMessage(const ManyContent& values) : content(values) {
    // A builder wants it zeroed, and leaves it so.
    std::fill(buildSpace.begin(), buildSpace.end(), capnp::word());
  }

 private:
  void Build() override {
    built.reset();  // zeroes the part of the scratch space that it used
    built.emplace(buildSpace.asPtr());
    Fill(built->initRoot<Struct>(), content);
  }

  void Send(MemoryPipe& pipe) override {
    PipeOutput output(pipe);
    capnp::writeMessage(output, *built);
  }

  void Receive(MemoryPipe& pipe) override {
    received.reset();
    input.emplace(pipe);
    // Without the limit on how much is read from one message, since one is read again and again.
    capnp::ReaderOptions options;
    options.traversalLimitInWords = UINT64_MAX;
    received.emplace(*input, options, readSpace.asPtr());
  }

  uint64_t Read() override { return bench::Read(received->template getRoot<Struct>()); }

  void Drop() override {
    received.reset();
    built.reset();
  }

  static constexpr size_t SPACE_WORDS = 4096;

  const ManyContent& content;
  kj::Array<capnp::word> buildSpace = kj::heapArray<capnp::word>(SPACE_WORDS);
  kj::Array<capnp::word> readSpace = kj::heapArray<capnp::word>(SPACE_WORDS);
  std::optional<capnp::MallocMessageBuilder> built;
  std::optional<PipeInput> input;
  std::optional<capnp::InputStreamMessageReader> received;
};

std::unique_ptr<Message> Make(Shape shape, const ManyContent& content) {
  switch (shape) {
    case Shape::ORDER:
      return std::make_unique<CapnpMessage<schema::Order>>(content);
    case Shape::NESTED:
      return std::make_unique<CapnpMessage<schema::Nested>>(content);
    case Shape::INTEGERS:
      return std::make_unique<CapnpMessage<schema::Integers>>(content);
    case Shape::TEXTS:
      return std::make_unique<CapnpMessage<schema::Texts>>(content);
    case Shape::VALUES:
      return nullptr;  // it has no map
  }
  return nullptr;
}

}  // namespace

Library CapnpLibrary() { return {"capnp", Access::BY_SCHEMA, &Make}; }

}  // namespace TQ::bench

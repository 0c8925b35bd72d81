// FlexBuffers: one builder that is cleared and used again; values found by binary search in the
// received bytes, which are not verified.
#include "library.h"

#include <flatbuffers/flexbuffers.h>

#include <string>

namespace TQ::bench {
namespace {

using flexbuffers::Builder;

void AddOrder(Builder& builder) {
  builder.Int("price", SAMPLE.price);
  builder.Int("quantity", SAMPLE.quantity);
  builder.Int("warehouse", SAMPLE.warehouse);
  builder.Int("customerId", SAMPLE.customerId);
  builder.Int("orderedAtMs", SAMPLE.orderedAtMs);
  builder.String("article", SAMPLE.article);
  builder.String("remark", SAMPLE.remark);
  builder.Key("digestOfItem");
  builder.Blob(SAMPLE.digestOfItem, sizeof SAMPLE.digestOfItem);
}

void SumText(const flexbuffers::Reference& reference, Sum& sum) {
  const auto text = reference.AsString();
  sum.Bytes(text.c_str(), text.size());
}

uint64_t ReadOrder(const flexbuffers::Map& map) {
  Sum sum;
  sum.Number(map["price"].AsInt32());
  sum.Number(map["quantity"].AsInt32());
  sum.Number(map["warehouse"].AsInt32());
  sum.Number(map["customerId"].AsInt64());
  sum.Number(map["orderedAtMs"].AsInt64());
  SumText(map["article"], sum);
  SumText(map["remark"], sum);
  const auto digest = map["digestOfItem"].AsBlob();
  sum.Bytes(digest.data(), digest.size());
  return sum.Value();
}

class FlexBuffersMessage : public Message {
 public:
  explicit FlexBuffersMessage(const ManyContent& values) : content(values) {}

 protected:
  virtual void Add(Builder& builder) = 0;

  flexbuffers::Map Root() const { return flexbuffers::GetRoot(bytes).AsMap(); }

  const ManyContent& content;

 private:
  void Build() final {
    reused.Clear();
    Add(reused);
    reused.Finish();
  }

  void Send(MemoryPipe& pipe) final {
    SendWithLength(pipe, reused.GetBuffer().data(), reused.GetBuffer().size());
  }

  void Receive(MemoryPipe& pipe) final { ReceiveWithLength(pipe, &bytes); }

  void Drop() final {}

  Builder reused;
  std::vector<uint8_t> bytes;
};

class Order final : public FlexBuffersMessage {
  using FlexBuffersMessage::FlexBuffersMessage;
  void Add(Builder& builder) override {
    builder.Map([&builder] { AddOrder(builder); });
  }
  uint64_t Read() override { return ReadOrder(Root()); }
};

void AddNested(Builder& builder, int levels) {
  if (levels == 0) return AddOrder(builder);
  builder.Map("inner", [&builder, levels] { AddNested(builder, levels - 1); });
}

class Nested final : public FlexBuffersMessage {
  using FlexBuffersMessage::FlexBuffersMessage;
  void Add(Builder& builder) override {
    builder.Map([&builder] { AddNested(builder, NESTING); });
  }
  uint64_t Read() override {
    flexbuffers::Map map = Root();
    for (int level = 0; level < NESTING; ++level) map = map["inner"].AsMap();
    return ReadOrder(map);
  }
};

class Integers final : public FlexBuffersMessage {
  using FlexBuffersMessage::FlexBuffersMessage;
  void Add(Builder& builder) override {
    builder.Map([&] { builder.Add("values", content.integers); });
  }
  uint64_t Read() override {
    const auto values = Root()["values"].AsTypedVector();
    Sum sum;
    for (size_t i = 0; i < values.size(); ++i) sum.Number(values[i].AsInt32());
    return sum.Value();
  }
};

class Texts final : public FlexBuffersMessage {
  using FlexBuffersMessage::FlexBuffersMessage;
  void Add(Builder& builder) override {
    builder.Map([&] {
      builder.Vector("values", [&] {
        for (const std::string& name : content.names) builder.String(name);
      });
    });
  }
  uint64_t Read() override {
    const auto values = Root()["values"].AsVector();
    Sum sum;
    for (size_t i = 0; i < values.size(); ++i) SumText(values[i], sum);
    return sum.Value();
  }
};

class Values final : public FlexBuffersMessage {
  using FlexBuffersMessage::FlexBuffersMessage;
  void Add(Builder& builder) override {
    builder.Map([&] {
      for (size_t i = 0; i < content.names.size(); ++i) {
        builder.Int(content.names[i].c_str(), content.integers[i]);
      }
    });
  }
  uint64_t Read() override {
    const flexbuffers::Map map = Root();
    Sum sum;
    for (const std::string& name : content.names) sum.Number(map[name].AsInt32());
    return sum.Value();
  }
};

std::unique_ptr<Message> Make(Shape shape, const ManyContent& content) {
  switch (shape) {
    case Shape::ORDER:
      return std::make_unique<Order>(content);
    case Shape::NESTED:
      return std::make_unique<Nested>(content);
    case Shape::INTEGERS:
      return std::make_unique<Integers>(content);
    case Shape::TEXTS:
      return std::make_unique<Texts>(content);
    case Shape::VALUES:
      return std::make_unique<Values>(content);
  }
  return nullptr;
}

}  // namespace

Library FlexBuffersLibrary() { return {"flexbuffers", Access::BY_NAME, &Make}; }

}  // namespace TQ::bench

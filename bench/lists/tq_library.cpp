// This library: once with a new list for each message, as most hosts make them, and once with one
// list that is emptied and filled again, which keeps its memory. What comes in is a new list
// always.
#include "library.h"
#include "params/list_store.h"
#include "wire/frame_layout.h"
#include "wire/list_stream.h"

#include <tq/tq.h>

namespace TQ::bench {
namespace {

using detail::DescriptorOf;
using detail::ListDescriptor;

void FillOrder(HTQPARAMLIST list) {
  TQSetInt32Value(list, "price", SAMPLE.price);
  TQSetInt32Value(list, "quantity", SAMPLE.quantity);
  TQSetInt32Value(list, "warehouse", SAMPLE.warehouse);
  TQSetInt64Value(list, "customerId", SAMPLE.customerId);
  TQSetInt64Value(list, "orderedAtMs", SAMPLE.orderedAtMs);
  TQSetStringValue(list, "article", SAMPLE.article);
  TQSetStringValue(list, "remark", SAMPLE.remark);
  TQSetBinaryValue(list, "digestOfItem", SAMPLE.digestOfItem, sizeof SAMPLE.digestOfItem);
}

uint64_t ReadOrder(HTQPARAMLIST list) {
  Sum sum;
  sum.Number(static_cast<int32_t>(TQGetInt32Value(list, "price")));
  sum.Number(static_cast<int32_t>(TQGetInt32Value(list, "quantity")));
  sum.Number(static_cast<int32_t>(TQGetInt32Value(list, "warehouse")));
  sum.Number(static_cast<int64_t>(TQGetInt64Value(list, "customerId")));
  sum.Number(static_cast<int64_t>(TQGetInt64Value(list, "orderedAtMs")));
  sum.Text(TQGetStringValue(list, "article"));
  sum.Text(TQGetStringValue(list, "remark"));
  const auto* digest = TQGetBinaryValue(list, "digestOfItem");
  sum.Bytes(digest->data, digest->size);
  return sum.Value();
}

class TqMessage : public Message {
 public:
  explicit TqMessage(bool keepsList) : reused(keepsList) {}
  ~TqMessage() override { CloseBoth(); }

  void Build() final {
    if (reused && built.impl != nullptr) {
      TQRemoveAllValues(built);
    } else {
      TQCloseHandle(built);
      built = TQCreateParamList();
    }
    Fill();
  }

  void Send(MemoryPipe& pipe) final {
    const ListDescriptor own = DescriptorOf(*built.impl);
    pipe.Send(&own, sizeof own);
    detail::WriteParamList(*built.impl, pipe, nullptr);
  }

  void Receive(MemoryPipe& pipe) final {
    TQCloseHandle(received);
    received = TQCreateParamList();
    ListDescriptor own;
    pipe.Receive(&own, sizeof own);
    detail::ReadParamList(*received.impl, pipe, own, nullptr);
  }

  void Drop() final {
    TQCloseHandle(received);
    received = {nullptr};
    if (reused) return;
    TQCloseHandle(built);
    built = {nullptr};
  }

 protected:
  virtual void Fill() = 0;

  HTQPARAMLIST built = {nullptr};
  HTQPARAMLIST received = {nullptr};

 private:
  void CloseBoth() {
    TQCloseHandle(built);
    TQCloseHandle(received);
  }

  const bool reused;
};

class Order final : public TqMessage {
  using TqMessage::TqMessage;
  void Fill() override { FillOrder(built); }
  uint64_t Read() override { return ReadOrder(received); }
};

class Nested final : public TqMessage {
  using TqMessage::TqMessage;
  void Fill() override {
    HTQPARAMLIST inner = TQCreateParamList();
    FillOrder(inner);
    for (int level = 1; level < NESTING; ++level) {
      const HTQPARAMLIST outer = TQCreateParamList();
      TQSetHandleValue(outer, "inner", inner);
      TQCloseHandle(inner);
      inner = outer;
    }
    TQSetHandleValue(built, "inner", inner);
    TQCloseHandle(inner);
  }

  uint64_t Read() override {
    HTQPARAMLIST list = TQReferenceHandle(received);
    for (int level = 0; level < NESTING; ++level) {
      const HTQPARAMLIST inner = TQGetHandleValue(list, "inner");
      TQCloseHandle(list);
      list = inner;
    }
    const uint64_t sum = ReadOrder(list);
    TQCloseHandle(list);
    return sum;
  }
};

class ManyMessage : public TqMessage {
 public:
  ManyMessage(bool keepsList, const ManyContent& values) : TqMessage(keepsList), content(values) {}

 protected:
  const ManyContent& content;
};

class Integers final : public ManyMessage {
  using ManyMessage::ManyMessage;
  void Fill() override {
    TQSetInt32Array(built, "values", static_cast<uint32_t>(content.integers.size()),
                    reinterpret_cast<const uint32_t*>(content.integers.data()));
  }
  uint64_t Read() override {
    const auto array = TQGetInt32Array(received, "values");
    Sum sum;
    for (uint32_t i = 0; i < array.count; ++i) sum.Number(static_cast<int32_t>(array.values[i]));
    return sum.Value();
  }
};

class Texts final : public ManyMessage {
 public:
  Texts(bool keepsList, const ManyContent& values)
      : ManyMessage(keepsList, values), texts(values.names.size()) {}

 private:
  void Fill() override {
    for (size_t i = 0; i < texts.size(); ++i) texts[i] = content.names[i].c_str();
    TQSetStringArray(built, "values", static_cast<uint32_t>(texts.size()), texts.data());
  }
  uint64_t Read() override {
    const uint32_t count =
        TQGetStringArray(received, "values", texts.data(), static_cast<uint32_t>(texts.size()), 0);
    Sum sum;
    for (uint32_t i = 0; i < count; ++i) sum.Text(texts[i]);
    return sum.Value();
  }

  std::vector<const char*> texts;
};

class Values final : public ManyMessage {
  using ManyMessage::ManyMessage;
  void Fill() override {
    for (size_t i = 0; i < content.names.size(); ++i) {
      TQSetInt32Value(built, content.names[i].c_str(), static_cast<uint32_t>(content.integers[i]));
    }
  }
  uint64_t Read() override {
    Sum sum;
    for (const std::string& name : content.names) {
      sum.Number(static_cast<int32_t>(TQGetInt32Value(received, name.c_str())));
    }
    return sum.Value();
  }
};

template <bool REUSED>
std::unique_ptr<Message> Make(Shape shape, const ManyContent& content) {
  switch (shape) {
    case Shape::ORDER:
      return std::make_unique<Order>(REUSED);
    case Shape::NESTED:
      return std::make_unique<Nested>(REUSED);
    case Shape::INTEGERS:
      return std::make_unique<Integers>(REUSED, content);
    case Shape::TEXTS:
      return std::make_unique<Texts>(REUSED, content);
    case Shape::VALUES:
      return std::make_unique<Values>(REUSED, content);
  }
  return nullptr;
}

}  // namespace

Library TqLibrary() { return {"tq", Access::BY_NAME, &Make<false>}; }
Library TqReusedLibrary() { return {"tq_reused", Access::BY_NAME, &Make<true>}; }

}  // namespace TQ::bench

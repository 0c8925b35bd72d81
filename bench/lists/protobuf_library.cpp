// protobuf: generated classes. Once with a new message object for each message, and once with one
// object that is cleared and filled again, which keeps the memory of its strings.
#include "library.h"
#include "order.pb.h"

#include <string>

namespace TQ::bench {
namespace {

namespace proto = tq_bench::proto;

void FillOrder(proto::Order& order) {
  order.set_price(SAMPLE.price);
  order.set_quantity(SAMPLE.quantity);
  order.set_warehouse(SAMPLE.warehouse);
  order.set_customer_id(SAMPLE.customerId);
  order.set_ordered_at_ms(SAMPLE.orderedAtMs);
  order.set_article(SAMPLE.article);
  order.set_remark(SAMPLE.remark);
  order.set_digest_of_item(SAMPLE.digestOfItem, sizeof SAMPLE.digestOfItem);
}

uint64_t Read(const proto::Order& order) {
  Sum sum;
  sum.Number(order.price());
  sum.Number(order.quantity());
  sum.Number(order.warehouse());
  sum.Number(order.customer_id());
  sum.Number(order.ordered_at_ms());
  sum.Text(order.article());
  sum.Text(order.remark());
  sum.Text(order.digest_of_item());
  return sum.Value();
}

void Fill(proto::Order& order, const ManyContent&) { FillOrder(order); }
uint64_t Read(const proto::Order& order, const ManyContent&) { return Read(order); }

void Fill(proto::Nested& outermost, const ManyContent&) {
  proto::Nested* nested = &outermost;
  for (int level = 1; level < NESTING; ++level) nested = nested->mutable_inner();
  FillOrder(*nested->mutable_order());
}
uint64_t Read(const proto::Nested& outermost, const ManyContent&) {
  const proto::Nested* nested = &outermost;
  for (int level = 1; level < NESTING; ++level) nested = &nested->inner();
  return Read(nested->order());
}

void Fill(proto::Integers& integers, const ManyContent& content) {
  integers.mutable_values()->Add(content.integers.begin(), content.integers.end());
}
uint64_t Read(const proto::Integers& integers, const ManyContent&) {
  Sum sum;
  for (const int32_t value : integers.values()) sum.Number(value);
  return sum.Value();
}

void Fill(proto::Texts& texts, const ManyContent& content) {
  for (const std::string& name : content.names) texts.add_values(name);
}
uint64_t Read(const proto::Texts& texts, const ManyContent&) {
  Sum sum;
  for (const std::string& text : texts.values()) sum.Text(text);
  return sum.Value();
}

void Fill(proto::Values& values, const ManyContent& content) {
  auto& map = *values.mutable_values();
  for (size_t i = 0; i < content.names.size(); ++i) map[content.names[i]] = content.integers[i];
}
uint64_t Read(const proto::Values& values, const ManyContent& content) {
  Sum sum;
  for (const std::string& name : content.names) sum.Number(values.values().at(name));
  return sum.Value();
}

template <typename Proto, bool REUSED>
class ProtobufMessage final : public Message {
 public:
  explicit ProtobufMessage(const ManyContent& values) : content(values) {}

 private:
  void Build() override {
    Renew(built);
    Fill(*built, content);
  }

  void Send(MemoryPipe& pipe) override {
    built->SerializeToString(&bytes);
    SendWithLength(pipe, bytes.data(), bytes.size());
  }

  void Receive(MemoryPipe& pipe) override {
    ReceiveWithLength(pipe, &bytes);
    if (!REUSED || received == nullptr) Renew(received);
    received->ParseFromString(bytes);  // clears it first
  }

  uint64_t Read() override { return bench::Read(*received, content); }

  void Drop() override {
    if (REUSED) return;
    built.reset();
    received.reset();
  }

  static void Renew(std::unique_ptr<Proto>& message) {
    if (REUSED && message != nullptr) {
      message->Clear();
    } else {
      message = std::make_unique<Proto>();
    }
  }

  const ManyContent& content;
  std::unique_ptr<Proto> built;
  std::unique_ptr<Proto> received;
  std::string bytes;
};

template <bool REUSED>
std::unique_ptr<Message> Make(Shape shape, const ManyContent& content) {
  switch (shape) {
    case Shape::ORDER:
      return std::make_unique<ProtobufMessage<proto::Order, REUSED>>(content);
    case Shape::NESTED:
      return std::make_unique<ProtobufMessage<proto::Nested, REUSED>>(content);
    case Shape::INTEGERS:
      return std::make_unique<ProtobufMessage<proto::Integers, REUSED>>(content);
    case Shape::TEXTS:
      return std::make_unique<ProtobufMessage<proto::Texts, REUSED>>(content);
    case Shape::VALUES:
      return std::make_unique<ProtobufMessage<proto::Values, REUSED>>(content);
  }
  return nullptr;
}

}  // namespace

Library ProtobufLibrary() { return {"protobuf", Access::BY_SCHEMA, &Make<false>}; }
Library ProtobufReusedLibrary() { return {"protobuf_reused", Access::BY_SCHEMA, &Make<true>}; }

}  // namespace TQ::bench

// MessagePack for C++: packed straight into a buffer that is cleared and used again, unpacked into
// objects that refer to the received bytes, values found by walking the map.
#include "library.h"

#include <msgpack.hpp>

#include <cstring>
#include <optional>
#include <stdexcept>

namespace TQ::bench {
namespace {

using Packer = msgpack::packer<msgpack::sbuffer>;

void PackText(Packer& packer, std::string_view text) {
  packer.pack_str(static_cast<uint32_t>(text.size()));
  packer.pack_str_body(text.data(), static_cast<uint32_t>(text.size()));
}

void PackOrder(Packer& packer) {
  packer.pack_map(8);
  PackText(packer, "price");
  packer.pack(SAMPLE.price);
  PackText(packer, "quantity");
  packer.pack(SAMPLE.quantity);
  PackText(packer, "warehouse");
  packer.pack(SAMPLE.warehouse);
  PackText(packer, "customerId");
  packer.pack(SAMPLE.customerId);
  PackText(packer, "orderedAtMs");
  packer.pack(SAMPLE.orderedAtMs);
  PackText(packer, "article");
  PackText(packer, SAMPLE.article);
  PackText(packer, "remark");
  PackText(packer, SAMPLE.remark);
  PackText(packer, "digestOfItem");
  packer.pack_bin(sizeof SAMPLE.digestOfItem);
  packer.pack_bin_body(reinterpret_cast<const char*>(SAMPLE.digestOfItem),
                       sizeof SAMPLE.digestOfItem);
}

const msgpack::object& Find(const msgpack::object& map, std::string_view name) {
  for (const msgpack::object_kv& pair : map.via.map) {
    const auto& key = pair.key.via.str;
    if (key.size == name.size() && std::memcmp(key.ptr, name.data(), key.size) == 0) {
      return pair.val;
    }
  }
  throw std::out_of_range("no such name");
}

std::string_view TextOf(const msgpack::object& object) {
  return {object.via.str.ptr, object.via.str.size};
}

uint64_t ReadOrder(const msgpack::object& map) {
  Sum sum;
  sum.Number(Find(map, "price").as<int32_t>());
  sum.Number(Find(map, "quantity").as<int32_t>());
  sum.Number(Find(map, "warehouse").as<int32_t>());
  sum.Number(Find(map, "customerId").as<int64_t>());
  sum.Number(Find(map, "orderedAtMs").as<int64_t>());
  sum.Text(TextOf(Find(map, "article")));
  sum.Text(TextOf(Find(map, "remark")));
  const auto& digest = Find(map, "digestOfItem").via.bin;
  sum.Bytes(digest.ptr, digest.size);
  return sum.Value();
}

class MsgpackMessage : public Message {
 public:
  explicit MsgpackMessage(const ManyContent& values) : content(values) {}

 protected:
  virtual void Pack(Packer& packer) = 0;

  const msgpack::object& Root() const { return received->get(); }

  const ManyContent& content;

 private:
  void Build() final {
    buffer.clear();
    Packer packer(&buffer);
    Pack(packer);
  }

  void Send(MemoryPipe& pipe) final { SendWithLength(pipe, buffer.data(), buffer.size()); }

  void Receive(MemoryPipe& pipe) final {
    ReceiveWithLength(pipe, &bytes);
    received = msgpack::unpack(bytes.data(), bytes.size(),
                               [](msgpack::type::object_type, size_t, void*) { return true; });
  }

  void Drop() final { received.reset(); }

  msgpack::sbuffer buffer;
  std::vector<char> bytes;
  std::optional<msgpack::object_handle> received;
};

class Order final : public MsgpackMessage {
  using MsgpackMessage::MsgpackMessage;
  void Pack(Packer& packer) override { PackOrder(packer); }
  uint64_t Read() override { return ReadOrder(Root()); }
};

class Nested final : public MsgpackMessage {
  using MsgpackMessage::MsgpackMessage;
  void Pack(Packer& packer) override {
    for (int level = 0; level < NESTING; ++level) {
      packer.pack_map(1);
      PackText(packer, "inner");
    }
    PackOrder(packer);
  }
  uint64_t Read() override {
    const msgpack::object* map = &Root();
    for (int level = 0; level < NESTING; ++level) map = &Find(*map, "inner");
    return ReadOrder(*map);
  }
};

class Integers final : public MsgpackMessage {
  using MsgpackMessage::MsgpackMessage;
  void Pack(Packer& packer) override {
    packer.pack_map(1);
    PackText(packer, "values");
    packer.pack(content.integers);
  }
  uint64_t Read() override {
    Sum sum;
    for (const msgpack::object& value : Find(Root(), "values").via.array) {
      sum.Number(value.as<int32_t>());
    }
    return sum.Value();
  }
};

class Texts final : public MsgpackMessage {
  using MsgpackMessage::MsgpackMessage;
  void Pack(Packer& packer) override {
    packer.pack_map(1);
    PackText(packer, "values");
    packer.pack(content.names);
  }
  uint64_t Read() override {
    Sum sum;
    for (const msgpack::object& text : Find(Root(), "values").via.array) sum.Text(TextOf(text));
    return sum.Value();
  }
};

class Values final : public MsgpackMessage {
  using MsgpackMessage::MsgpackMessage;
  void Pack(Packer& packer) override {
    packer.pack_map(static_cast<uint32_t>(content.names.size()));
    for (size_t i = 0; i < content.names.size(); ++i) {
      PackText(packer, content.names[i]);
      packer.pack(content.integers[i]);
    }
  }
  uint64_t Read() override {
    Sum sum;
    for (const std::string& name : content.names) sum.Number(Find(Root(), name).as<int32_t>());
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

Library MsgpackLibrary() { return {"msgpack", Access::BY_NAME, &Make}; }

}  // namespace TQ::bench

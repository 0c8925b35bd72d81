// nlohmann-json: a value tree whose objects are sorted maps; carried as text, and in its binary
// form CBOR. Text has no form for a binary, which therefore goes as hexadecimal digits there.
#include "library.h"

#include <nlohmann/json.hpp>

#include <string>

namespace TQ::bench {
namespace {

using Json = nlohmann::json;

std::string ToHex(const uint8_t* bytes, size_t size) {
  static const char digits[] = "0123456789abcdef";
  std::string text(2 * size, '0');
  for (size_t i = 0; i < size; ++i) {
    text[2 * i] = digits[bytes[i] >> 4];
    text[2 * i + 1] = digits[bytes[i] & 15];
  }
  return text;
}

uint8_t DigitValue(char digit) {
  return static_cast<uint8_t>(digit <= '9' ? digit - '0' : digit - 'a' + 10);
}

std::vector<uint8_t> FromHex(const std::string& text) {
  std::vector<uint8_t> bytes(text.size() / 2);
  for (size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<uint8_t>(DigitValue(text[2 * i]) << 4 | DigitValue(text[2 * i + 1]));
  }
  return bytes;
}

struct AsText {
  using Bytes = std::string;
  static Json Binary(const uint8_t* bytes, size_t size) { return ToHex(bytes, size); }
  static void SumBinary(const Json& json, Sum& sum) {
    const std::vector<uint8_t> bytes = FromHex(json.get_ref<const std::string&>());
    sum.Bytes(bytes.data(), bytes.size());
  }
  static void Write(const Json& json, Bytes& bytes) { bytes = json.dump(); }
  static Json Parse(const Bytes& bytes) { return Json::parse(bytes); }
};

struct AsCbor {
  using Bytes = std::vector<uint8_t>;
  static Json Binary(const uint8_t* bytes, size_t size) {
    return Json::binary(std::vector<uint8_t>(bytes, bytes + size));
  }
  static void SumBinary(const Json& json, Sum& sum) {
    const auto& bytes = json.get_binary();
    sum.Bytes(bytes.data(), bytes.size());
  }
  static void Write(const Json& json, Bytes& bytes) {
    bytes.clear();
    Json::to_cbor(json, bytes);
  }
  static Json Parse(const Bytes& bytes) { return Json::from_cbor(bytes); }
};

template <typename Form>
void FillOrder(Json& json) {
  json["price"] = SAMPLE.price;
  json["quantity"] = SAMPLE.quantity;
  json["warehouse"] = SAMPLE.warehouse;
  json["customerId"] = SAMPLE.customerId;
  json["orderedAtMs"] = SAMPLE.orderedAtMs;
  json["article"] = SAMPLE.article;
  json["remark"] = SAMPLE.remark;
  json["digestOfItem"] = Form::Binary(SAMPLE.digestOfItem, sizeof SAMPLE.digestOfItem);
}

template <typename Form>
uint64_t ReadOrder(const Json& json) {
  Sum sum;
  sum.Number(json.at("price").get<int32_t>());
  sum.Number(json.at("quantity").get<int32_t>());
  sum.Number(json.at("warehouse").get<int32_t>());
  sum.Number(json.at("customerId").get<int64_t>());
  sum.Number(json.at("orderedAtMs").get<int64_t>());
  sum.Text(json.at("article").get_ref<const std::string&>());
  sum.Text(json.at("remark").get_ref<const std::string&>());
  Form::SumBinary(json.at("digestOfItem"), sum);
  return sum.Value();
}

Json FillMany(Shape shape, const ManyContent& content) {
  Json json;
  if (shape == Shape::INTEGERS) json["values"] = content.integers;
  if (shape == Shape::TEXTS) json["values"] = content.names;
  if (shape == Shape::VALUES) {
    for (size_t i = 0; i < content.names.size(); ++i) json[content.names[i]] = content.integers[i];
  }
  return json;
}

uint64_t ReadMany(Shape shape, const ManyContent& content, const Json& json) {
  Sum sum;
  if (shape == Shape::INTEGERS) {
    for (const Json& value : json.at("values")) sum.Number(value.get<int32_t>());
  }
  if (shape == Shape::TEXTS) {
    for (const Json& text : json.at("values")) sum.Text(text.get_ref<const std::string&>());
  }
  if (shape == Shape::VALUES) {
    for (const std::string& name : content.names) sum.Number(json.at(name).get<int32_t>());
  }
  return sum.Value();
}

template <typename Form>
class JsonMessage final : public Message {
 public:
  JsonMessage(Shape kind, const ManyContent& values) : shape(kind), content(values) {}

 private:
  void Build() override {
    built = nullptr;
    if (shape == Shape::ORDER) {
      FillOrder<Form>(built);
    } else if (shape == Shape::NESTED) {
      Json* json = &built;
      for (int level = 0; level < NESTING; ++level) json = &(*json)["inner"];
      FillOrder<Form>(*json);
    } else {
      built = FillMany(shape, content);
    }
  }

  void Send(MemoryPipe& pipe) override {
    Form::Write(built, bytes);
    SendWithLength(pipe, bytes.data(), bytes.size());
  }

  void Receive(MemoryPipe& pipe) override {
    ReceiveWithLength(pipe, &bytes);
    received = Form::Parse(bytes);
  }

  uint64_t Read() override {
    if (shape == Shape::ORDER) return ReadOrder<Form>(received);
    if (shape != Shape::NESTED) return ReadMany(shape, content, received);
    const Json* json = &received;
    for (int level = 0; level < NESTING; ++level) json = &json->at("inner");
    return ReadOrder<Form>(*json);
  }

  void Drop() override { built = received = nullptr; }

  const Shape shape;
  const ManyContent& content;
  Json built;
  Json received;
  typename Form::Bytes bytes;
};

template <typename Form>
std::unique_ptr<Message> Make(Shape shape, const ManyContent& content) {
  return std::make_unique<JsonMessage<Form>>(shape, content);
}

}  // namespace

Library JsonLibrary() { return {"nlohmann_json", Access::BY_NAME, &Make<AsText>}; }
Library CborLibrary() { return {"nlohmann_cbor", Access::BY_NAME, &Make<AsCbor>}; }

}  // namespace TQ::bench

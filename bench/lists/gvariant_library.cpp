// GVariant: dictionaries of type a{sv}, stored into a buffer that is used again, and looked into by
// g_variant_lookup over received bytes that nobody has declared trusted.
#include "library.h"

#include <glib.h>

#include <string>

namespace TQ::bench {
namespace {

void AddOrder(GVariantBuilder* builder) {
  g_variant_builder_add(builder, "{sv}", "price", g_variant_new_int32(SAMPLE.price));
  g_variant_builder_add(builder, "{sv}", "quantity", g_variant_new_int32(SAMPLE.quantity));
  g_variant_builder_add(builder, "{sv}", "warehouse", g_variant_new_int32(SAMPLE.warehouse));
  g_variant_builder_add(builder, "{sv}", "customerId", g_variant_new_int64(SAMPLE.customerId));
  g_variant_builder_add(builder, "{sv}", "orderedAtMs", g_variant_new_int64(SAMPLE.orderedAtMs));
  g_variant_builder_add(builder, "{sv}", "article", g_variant_new_string(SAMPLE.article));
  g_variant_builder_add(builder, "{sv}", "remark", g_variant_new_string(SAMPLE.remark));
  g_variant_builder_add(builder, "{sv}", "digestOfItem",
                        g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, SAMPLE.digestOfItem,
                                                  sizeof SAMPLE.digestOfItem, 1));
}

template <typename Add>
GVariant* Dictionary(Add add) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
  add(&builder);
  return g_variant_builder_end(&builder);
}

template <typename Number>
Number Find(GVariant* dictionary, const char* name, const char* format) {
  Number number = 0;
  g_variant_lookup(dictionary, name, format, &number);
  return number;
}

void SumText(GVariant* dictionary, const char* name, Sum& sum) {
  const char* text = nullptr;
  g_variant_lookup(dictionary, name, "&s", &text);
  sum.Text(text);
}

uint64_t ReadOrder(GVariant* dictionary) {
  Sum sum;
  sum.Number(Find<gint32>(dictionary, "price", "i"));
  sum.Number(Find<gint32>(dictionary, "quantity", "i"));
  sum.Number(Find<gint32>(dictionary, "warehouse", "i"));
  sum.Number(Find<gint64>(dictionary, "customerId", "x"));
  sum.Number(Find<gint64>(dictionary, "orderedAtMs", "x"));
  SumText(dictionary, "article", sum);
  SumText(dictionary, "remark", sum);
  GVariant* digest = g_variant_lookup_value(dictionary, "digestOfItem", G_VARIANT_TYPE_BYTESTRING);
  gsize size = 0;
  const void* bytes = g_variant_get_fixed_array(digest, &size, 1);
  sum.Bytes(bytes, size);
  g_variant_unref(digest);
  return sum.Value();
}

class GVariantMessage : public Message {
 public:
  explicit GVariantMessage(const ManyContent& values) : content(values) {}
  ~GVariantMessage() override { Release(); }

 protected:
  virtual GVariant* Make() = 0;

  const ManyContent& content;
  GVariant* received = nullptr;

 private:
  void Build() final {
    g_clear_pointer(&built, g_variant_unref);
    built = g_variant_ref_sink(Make());
  }

  void Send(MemoryPipe& pipe) final {
    const gsize size = g_variant_get_size(built);
    buffer.resize(size / sizeof(uint64_t) + 1);  // aligned, as g_variant_store wants it
    g_variant_store(built, buffer.data());
    SendWithLength(pipe, buffer.data(), size);
  }

  void Receive(MemoryPipe& pipe) final {
    g_clear_pointer(&received, g_variant_unref);
    uint32_t size = 0;
    pipe.Receive(&size, sizeof size);
    void* bytes = g_malloc(size);
    pipe.Receive(bytes, size);
    received = g_variant_ref_sink(
        g_variant_new_from_data(G_VARIANT_TYPE_VARDICT, bytes, size, FALSE, &g_free, bytes));
  }

  void Drop() final { Release(); }

  void Release() {
    g_clear_pointer(&built, g_variant_unref);
    g_clear_pointer(&received, g_variant_unref);
  }

  GVariant* built = nullptr;
  std::vector<uint64_t> buffer;
};

class Order final : public GVariantMessage {
  using GVariantMessage::GVariantMessage;
  GVariant* Make() override { return Dictionary(&AddOrder); }
  uint64_t Read() override { return ReadOrder(received); }
};

class Nested final : public GVariantMessage {
  using GVariantMessage::GVariantMessage;
  GVariant* Make() override {
    GVariant* inner = Dictionary(&AddOrder);
    for (int level = 0; level < NESTING; ++level) {
      inner = Dictionary(
          [inner](GVariantBuilder* b) { g_variant_builder_add(b, "{sv}", "inner", inner); });
    }
    return inner;
  }
  uint64_t Read() override {
    GVariant* dictionary = g_variant_ref(received);
    for (int level = 0; level < NESTING; ++level) {
      GVariant* inner = g_variant_lookup_value(dictionary, "inner", G_VARIANT_TYPE_VARDICT);
      g_variant_unref(dictionary);
      dictionary = inner;
    }
    const uint64_t sum = ReadOrder(dictionary);
    g_variant_unref(dictionary);
    return sum;
  }
};

class Integers final : public GVariantMessage {
  using GVariantMessage::GVariantMessage;
  GVariant* Make() override {
    return Dictionary([this](GVariantBuilder* b) {
      g_variant_builder_add(b, "{sv}", "values",
                            g_variant_new_fixed_array(G_VARIANT_TYPE_INT32, content.integers.data(),
                                                      content.integers.size(), sizeof(gint32)));
    });
  }
  uint64_t Read() override {
    GVariant* array = g_variant_lookup_value(received, "values", G_VARIANT_TYPE("ai"));
    gsize count = 0;
    const auto* values =
        static_cast<const gint32*>(g_variant_get_fixed_array(array, &count, sizeof(gint32)));
    Sum sum;
    for (gsize i = 0; i < count; ++i) sum.Number(values[i]);
    g_variant_unref(array);
    return sum.Value();
  }
};

class Texts final : public GVariantMessage {
 public:
  explicit Texts(const ManyContent& values) : GVariantMessage(values) {
    for (const std::string& name : values.names) texts.push_back(name.c_str());
  }

 private:
  GVariant* Make() override {
    return Dictionary([this](GVariantBuilder* b) {
      g_variant_builder_add(b, "{sv}", "values",
                            g_variant_new_strv(texts.data(), static_cast<gssize>(texts.size())));
    });
  }
  uint64_t Read() override {
    GVariant* array = g_variant_lookup_value(received, "values", G_VARIANT_TYPE_STRING_ARRAY);
    gsize count = 0;
    const gchar** strings = g_variant_get_strv(array, &count);
    Sum sum;
    for (gsize i = 0; i < count; ++i) sum.Text(strings[i]);
    g_free(strings);
    g_variant_unref(array);
    return sum.Value();
  }

  std::vector<const char*> texts;
};

class Values final : public GVariantMessage {
  using GVariantMessage::GVariantMessage;
  GVariant* Make() override {
    return Dictionary([this](GVariantBuilder* b) {
      for (size_t i = 0; i < content.names.size(); ++i) {
        g_variant_builder_add(b, "{sv}", content.names[i].c_str(),
                              g_variant_new_int32(content.integers[i]));
      }
    });
  }
  uint64_t Read() override {
    Sum sum;
    for (const std::string& name : content.names) {
      sum.Number(Find<gint32>(received, name.c_str(), "i"));
    }
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

Library GVariantLibrary() { return {"gvariant", Access::BY_NAME, &Make}; }

}  // namespace TQ::bench

#include "support/raw_list.h"

#include "support/hex.h"

#include <algorithm>
#include <ostream>
#include <stdexcept>

namespace TQ::test {

namespace {

void FillToFour(Bytes& bytes) {
  while (bytes.size() % 4 != 0) {
    bytes.push_back(0);
  }
}

// The text with its NUL, filled up.
Bytes StringPayload(const std::string& text) {
  Bytes out = ToBytes(text);
  out.push_back(0);
  FillToFour(out);
  return out;
}

Bytes BinaryPayload(const Bytes& value) {
  Bytes out = U32(static_cast<uint32_t>(value.size()));
  Append(out, value);
  FillToFour(out);
  return out;
}

// Count, offsets from the end of the offset table, elements.
Bytes OffsetArrayPayload(const std::vector<Bytes>& elements) {
  Bytes out = U32(static_cast<uint32_t>(elements.size()));
  uint32_t offset = 0;
  for (const Bytes& element : elements) {
    AppendU32(out, offset);
    offset += static_cast<uint32_t>(element.size());
  }
  for (const Bytes& element : elements) {
    Append(out, element);
  }
  return out;
}

// Takes a block apart, entry by entry, and refuses whatever a writer does not produce.
class BlockReader {
 public:
  explicit BlockReader(const Bytes& bytes) : block(bytes) {}

  std::vector<RawValue> ReadAll() {
    std::vector<RawValue> values;
    while (position < block.size()) {
      values.push_back(ReadEntry());
    }
    return values;
  }

 private:
  [[noreturn]] void Refuse(const std::string& why) const {
    throw std::runtime_error("at byte " + std::to_string(position) + ": " + why);
  }

  const uint8_t* Take(size_t count) {
    if (count > block.size() - position) {
      Refuse("the block ends inside an entry");
    }
    const uint8_t* taken = block.data() + position;
    position += count;
    return taken;
  }

  uint32_t TakeU32() { return ReadU32(Take(4)); }

  void TakeFilling() {
    while (position % 4 != 0) {
      if (*Take(1) != 0) {
        Refuse("a filling byte that is not zero");
      }
    }
  }

  std::string TakeString() {
    std::string text;
    while (const uint8_t byte = *Take(1)) {
      text.push_back(static_cast<char>(byte));
    }
    TakeFilling();
    return text;
  }

  Bytes TakeBinary() {
    const uint32_t size = TakeU32();
    const uint8_t* data = Take(size);
    Bytes out(data, data + size);
    TakeFilling();
    return out;
  }

  // The name, and the position after the type byte.
  std::string TakeHead(uint8_t& type) {
    const size_t start = position;
    const size_t valueOffset = *Take(1);
    if (valueOffset % 4 != 3) {
      Refuse("a head whose type byte is not the last of four");
    }
    std::string name;
    while (const uint8_t byte = *Take(1)) {
      name.push_back(static_cast<char>(byte));
    }
    while (position < start + valueOffset) {
      if (*Take(1) != 0) {
        Refuse("a filling byte of a head that is not zero");
      }
    }
    // The smallest head that holds the offset byte, the name, a zero and the type byte.
    const size_t smallest = (name.size() + 3 + 3) / 4 * 4;
    if (position != start + valueOffset || valueOffset + 1 != smallest) {
      Refuse("a head of the wrong size");
    }
    type = *Take(1);
    return name;
  }

  std::vector<uint32_t> TakeOffsets(uint32_t count) {
    std::vector<uint32_t> offsets;
    for (uint32_t index = 0; index < count; ++index) {
      offsets.push_back(TakeU32());
    }
    return offsets;
  }

  // Elements must lie one after the other, in the order of their offsets.
  template <typename TakeElement>
  void TakeOffsetArray(TakeElement takeElement) {
    const uint32_t count = TakeU32();
    const std::vector<uint32_t> offsets = TakeOffsets(count);
    const size_t elements = position;
    for (const uint32_t offset : offsets) {
      if (position != elements + offset) {
        Refuse("an offset that is not where its element stands");
      }
      takeElement();
    }
  }

  void TakeNumbers(RawValue& value, bool wide) {
    const uint32_t count = TakeU32();
    for (uint32_t index = 0; index < count; ++index) {
      value.numbers.push_back(wide ? ReadU64(Take(8)) : TakeU32());
    }
  }

  void TakePayload(RawValue& value) {
    switch (value.type) {
      case RAW_STRING:
        value.text = TakeString();
        return;
      case RAW_INT32:
      case RAW_HANDLE:
        value.number = TakeU32();
        return;
      case RAW_INT64:
        value.number = ReadU64(Take(8));
        return;
      case RAW_BINARY:
        value.binary = TakeBinary();
        return;
      case RAW_ARRAY | RAW_STRING:
        TakeOffsetArray([&] { value.texts.push_back(TakeString()); });
        return;
      case RAW_ARRAY | RAW_INT32:
      case RAW_ARRAY | RAW_HANDLE:
        TakeNumbers(value, false);
        return;
      case RAW_ARRAY | RAW_INT64:
        TakeNumbers(value, true);
        return;
      case RAW_ARRAY | RAW_BINARY:
        TakeOffsetArray([&] { value.binaries.push_back(TakeBinary()); });
        return;
      default:
        Refuse("unknown type " + std::to_string(value.type));
    }
  }

  RawValue ReadEntry() {
    RawValue value;
    value.offset = static_cast<uint32_t>(position);
    value.name = TakeHead(value.type);
    TakePayload(value);
    value.size = static_cast<uint32_t>(position) - value.offset;
    return value;
  }

  const Bytes& block;
  size_t position = 0;
};

// The tree in the order of the stream: each list before its nested lists.
void Flatten(const RawList& list, std::vector<const RawList*>& out) {
  out.push_back(&list);
  for (const RawList& child : list.Children()) {
    Flatten(child, out);
  }
}

void Print(std::ostream& stream, const RawList& list, const std::string& indent) {
  std::string problem;
  const auto values = list.Values(&problem);
  stream << indent << "block of " << list.BlockSize() << " bytes: " << ToHex(list.Block()) << "\n";
  if (!values) {
    stream << indent << "  damaged " << problem << "\n";
  }
  for (size_t index = 0; index < list.Children().size(); ++index) {
    stream << indent << "nested list " << index << "\n";
    Print(stream, list.Children()[index], indent + "  ");
  }
}

}  // namespace

Bytes EntryHead(const std::string& name, uint8_t type) {
  Bytes head{0};
  Append(head, ToBytes(name));
  head.push_back(0);
  while (head.size() % 4 != 3) {
    head.push_back(0);
  }
  head[0] = static_cast<uint8_t>(head.size());
  head.push_back(type);
  return head;
}

RawList& RawList::Entry(const std::string& name, uint8_t type, const Bytes& payload) {
  return Raw(EntryHead(name, type)).Raw(payload);
}

RawList& RawList::Raw(const Bytes& bytes) {
  Append(block, bytes);
  return *this;
}

RawList& RawList::Patch(size_t offset, const Bytes& bytes) {
  if (offset > block.size() || bytes.size() > block.size() - offset) {
    throw std::out_of_range("RawList::Patch: outside of the block");
  }
  std::copy(bytes.begin(), bytes.end(), block.begin() + static_cast<std::ptrdiff_t>(offset));
  return *this;
}

RawList& RawList::Truncate(size_t size) {
  if (size > block.size()) {
    throw std::out_of_range("RawList::Truncate: the block is shorter");
  }
  block.resize(size);
  return *this;
}

RawList& RawList::String(const std::string& name, const std::string& text) {
  return Entry(name, RAW_STRING, StringPayload(text));
}

RawList& RawList::Int32(const std::string& name, uint32_t value) {
  return Entry(name, RAW_INT32, U32(value));
}

RawList& RawList::Int64(const std::string& name, uint64_t value) {
  return Entry(name, RAW_INT64, U64(value));
}

RawList& RawList::Binary(const std::string& name, const Bytes& value) {
  return Entry(name, RAW_BINARY, BinaryPayload(value));
}

RawList& RawList::Child(const RawList& child) {
  // A copy first: `child` may be this list itself.
  RawList copy = child;
  children.push_back(std::move(copy));
  return *this;
}

RawList& RawList::Handle(const std::string& name, const RawList& child) {
  const uint32_t index = HandleCount();
  return Child(child).HandleIndex(name, index);
}

RawList& RawList::NoHandle(const std::string& name) { return HandleIndex(name, RAW_NO_HANDLE); }

RawList& RawList::HandleIndex(const std::string& name, uint32_t index) {
  return Entry(name, RAW_HANDLE, U32(index));
}

RawList& RawList::HandleIndexArray(const std::string& name, const std::vector<uint32_t>& indices) {
  Bytes payload = U32(static_cast<uint32_t>(indices.size()));
  for (const uint32_t index : indices) {
    AppendU32(payload, index);
  }
  return Entry(name, RAW_ARRAY | RAW_HANDLE, payload);
}

RawList& RawList::HandleArray(const std::string& name, const std::vector<RawList>& listed) {
  std::vector<uint32_t> indices;
  for (const RawList& child : listed) {
    indices.push_back(HandleCount());
    Child(child);
  }
  return HandleIndexArray(name, indices);
}

RawList& RawList::StringArray(const std::string& name, const std::vector<std::string>& texts) {
  std::vector<Bytes> elements;
  elements.reserve(texts.size());
  for (const std::string& text : texts) {
    elements.push_back(StringPayload(text));
  }
  return Entry(name, RAW_ARRAY | RAW_STRING, OffsetArrayPayload(elements));
}

RawList& RawList::BinaryArray(const std::string& name, const std::vector<Bytes>& values) {
  std::vector<Bytes> elements;
  elements.reserve(values.size());
  for (const Bytes& value : values) {
    elements.push_back(BinaryPayload(value));
  }
  return Entry(name, RAW_ARRAY | RAW_BINARY, OffsetArrayPayload(elements));
}

RawList& RawList::Int32Array(const std::string& name, const std::vector<uint32_t>& values) {
  Bytes payload = U32(static_cast<uint32_t>(values.size()));
  for (const uint32_t value : values) {
    AppendU32(payload, value);
  }
  return Entry(name, RAW_ARRAY | RAW_INT32, payload);
}

RawList& RawList::Int64Array(const std::string& name, const std::vector<uint64_t>& values) {
  Bytes payload = U32(static_cast<uint32_t>(values.size()));
  for (const uint64_t value : values) {
    AppendU64(payload, value);
  }
  return Entry(name, RAW_ARRAY | RAW_INT64, payload);
}

Bytes RawList::Stream() const {
  std::vector<const RawList*> lists;
  Flatten(*this, lists);
  Bytes out = block;
  for (size_t index = 1; index < lists.size(); ++index) {
    AppendU32(out, lists[index]->BlockSize());
    AppendU32(out, lists[index]->HandleCount());
    Append(out, lists[index]->Block());
  }
  return out;
}

std::optional<std::vector<RawValue>> RawList::Values(std::string* problem) const {
  try {
    return BlockReader(block).ReadAll();
  } catch (const std::runtime_error& error) {
    if (problem != nullptr) {
      *problem = error.what();
    }
    return std::nullopt;
  }
}

std::optional<RawValue> RawList::Find(const std::string& name) const {
  const auto values = Values();
  if (!values) {
    return std::nullopt;
  }
  const auto found = std::find_if(values->begin(), values->end(),
                                  [&](const RawValue& value) { return value.name == name; });
  return found == values->end() ? std::nullopt : std::optional<RawValue>(*found);
}

std::vector<std::string> RawList::Names() const {
  std::vector<std::string> names;
  if (const auto values = Values()) {
    for (const RawValue& value : *values) {
      names.push_back(value.name);
    }
  }
  return names;
}

std::optional<RawList> ReadListStream(const std::function<std::optional<Bytes>(uint32_t)>& read,
                                      uint32_t size, uint32_t count) {
  RawList list;
  auto block = read(size);
  if (!block) {
    return std::nullopt;
  }
  list.block = std::move(*block);
  for (uint32_t index = 0; index < count; ++index) {
    const auto descriptor = read(8);
    if (!descriptor) {
      return std::nullopt;
    }
    auto child = ReadListStream(read, ReadU32(descriptor->data()), ReadU32(descriptor->data() + 4));
    if (!child) {
      return std::nullopt;
    }
    list.children.push_back(std::move(*child));
  }
  return list;
}

std::optional<RawList> DecodeListStream(const Bytes& stream, uint32_t size, uint32_t count) {
  size_t position = 0;
  const auto take = [&](uint32_t wanted) -> std::optional<Bytes> {
    if (wanted > stream.size() - position) {
      return std::nullopt;
    }
    const auto from = stream.begin() + static_cast<std::ptrdiff_t>(position);
    position += wanted;
    return Bytes(from, from + static_cast<std::ptrdiff_t>(wanted));
  };
  auto list = ReadListStream(take, size, count);
  return position == stream.size() ? list : std::nullopt;
}

std::ostream& operator<<(std::ostream& stream, const RawList& list) {
  stream << "\n";
  Print(stream, list, "  ");
  return stream;
}

}  // namespace TQ::test

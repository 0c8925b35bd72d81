// Lists as text for humans.
//
// The format is fixed down to its blank lines, and so is its one trap: an array of binaries leaves
// the stream hexadecimal, which shows in the numbers behind it until something sets it back.
#include "params/dump.h"

#include "params/block_reader.h"
#include "params/list_store.h"

#include <tq/diagnostics.h>

#include <cstring>
#include <iomanip>
#include <iostream>
#include <locale>
#include <sstream>

namespace TQ::detail {
namespace {

constexpr const char* CLOSING_LINE = "=================================";

/// One list of a dump at its depth.
class Dumper {
 public:
  Dumper(std::ostream& target, const FastHolderImpl& source, bool types, int32_t level)
      : stream(target), list(source), withTypes(types), depth(level) {}

  void PrintEntry(const _tag_TQPARAMINFO* entry) {
    Indent(depth);
    list.RequireTerminatedName(entry);
    stream << entry->name;
    const uint8_t type = list.ValueType(entry);
    const BlockReader payload(list.Payload(entry, 0), list.BlockData() + list.BlockSize());
    if (IsArrayType(type)) {
      PrintArray(type, payload);
    } else {
      PrintSingle(type, payload);
    }
  }

 private:
  void Indent(int32_t level) {
    for (int32_t i = 0; i < level; ++i) stream << "  ";
  }

  std::ostream& Label(const char* typeLabel) { return stream << (withTypes ? typeLabel : "="); }

  void PrintSingle(uint8_t type, const BlockReader& payload) {
    switch (type) {
      case PT_UNKNOWN:
        Label("[PT_UNKNOWN]=") << "?" << std::endl;
        break;
      case PT_STRING:
        Label("[PT_STRING]=") << payload.Text() << std::endl;
        break;
      case PT_INT32:
        Label("[PT_INT32]=") << payload.Dword(0) << std::endl;
        break;
      case PT_INT64:
        Label("[PT_INT64]=") << payload.Qword(0) << std::endl;
        break;
      case PT_PARAMHANDLE:
        Label("[PT_PARAMHANDLE]=") << std::endl;
        PrintNested(payload.Dword(0), depth + 1);
        break;
      case PT_BINARY:
        Label("[PT_BINARY]=");
        PrintBytes(payload);
        stream << std::dec << std::endl;
        break;
      default:
        break;  // the walk raises behind it
    }
  }

  void PrintArray(uint8_t type, const BlockReader& payload) {
    stream << "=ARRAY" << std::endl;
    const uint32_t count = payload.Dword(0);
    for (uint32_t i = 0; i < count; ++i) {
      Indent(depth + 1);
      stream << "[" << i << "]=";
      PrintElement(type, payload, count, i);
      stream << std::endl;
    }
  }

  /// Without the last line end. Texts and numbers have one more, so that an empty line follows.
  void PrintElement(uint8_t type, const BlockReader& payload, uint32_t count, uint32_t index) {
    switch (type) {
      case ArrayOf(PT_STRING):
        stream << payload.Element(count, index).Text() << std::endl;
        break;
      case ArrayOf(PT_INT32):
        stream << payload.Dword(DWORD_SIZE * (uint64_t{index} + 1)) << std::endl;
        break;
      case ArrayOf(PT_INT64):
        stream << payload.Qword(DWORD_SIZE + QWORD_SIZE * uint64_t{index}) << std::endl;
        break;
      case ArrayOf(PT_PARAMHANDLE):
        PrintNested(payload.Dword(DWORD_SIZE * (uint64_t{index} + 1)), depth + 2);
        break;
      default:
        // Intended: the stream stays hexadecimal.
        PrintBytes(payload.Element(count, index));
        break;
    }
  }

  /// Length and bytes, each as two hexadecimal places.
  void PrintBytes(const BlockReader& item) {
    const uint32_t length = item.Dword(0);
    const uint8_t* bytes = item.Bytes(DWORD_SIZE, length);
    for (uint32_t i = 0; i < length; ++i) {
      stream << std::hex << std::setw(2) << static_cast<unsigned>(bytes[i]);
    }
  }

  void PrintNested(uint32_t index, int32_t level) {
    const HandleSlots& slots = list.Handles();
    if (index < slots.Size()) {
      PrintHandleInfoRecurse(stream, {slots[index].Get()}, withTypes, level);
    }
  }

  std::ostream& stream;
  const FastHolderImpl& list;
  const bool withTypes;
  const int32_t depth;
};

/// A dump as a whole.
void PrintWhole(std::ostream& stream, _tag_HTQPARAMLIST list, bool withTypes) {
  // Setting decimal clears what an earlier dump has left in the stream.
  stream << "=====[" << static_cast<const void*>(list.impl) << "]" << std::dec << std::endl;
  PrintHandleInfoRecurse(stream, list, withTypes, 0);
  stream << CLOSING_LINE << std::endl;
}

}  // namespace
}  // namespace TQ::detail

using namespace TQ::detail;

void PrintHandleInfoRecurse(std::ostream& stream, _tag_HTQPARAMLIST list, bool withTypes,
                            int32_t depth) {
  if (list.impl == nullptr) return;
  Dumper dumper(stream, *list.impl, withTypes, depth);
  for (const auto* entry = list.impl->FirstParam(); entry != nullptr;
       entry = list.impl->NextParam(entry)) {
    dumper.PrintEntry(entry);
  }
}

void PrintHandleInfo(_tag_HTQPARAMLIST list, bool withTypes) {
  LockScope held(g_printMutex);
  PrintWhole(std::cerr, list, withTypes);
}

void PrintHandleInfoToBuffer(_tag_HTQPARAMLIST list, bool withTypes, char* destination,
                             uint32_t size) {
  std::ostringstream stream;
  stream.imbue(std::locale::classic());
  PrintWhole(stream, list, withTypes);
  stream.flush();
  // Intended: a size of 0 is not guarded, and a text that is too long is cut without notice.
  std::strncpy(destination, stream.str().c_str(), size - 1);
  destination[size - 1] = '\0';
}

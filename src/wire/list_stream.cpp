#include "wire/list_stream.h"

#include "frame/little_endian.h"
#include "wire/frame_layout.h"

#include <cstdint>

namespace TQ::detail {
namespace {

/// Sums of byte counts stay positive: a tree above 2 GiB is no failure. A single block of that size
/// is one, because the channel's own result for it is negative.
int32_t AddCounts(int32_t a, int32_t b) { return a > INT32_MAX - b ? INT32_MAX : a + b; }

int32_t WriteWithNext(const FastHolderImpl& list, ITransportChannel& channel,
                      const ListDescriptor& next) {
  return list.WriteWithDescriptor(channel, next.blockSize, next.handleCount);
}

/// Takes the descriptor from the block's last bytes, where the read has put it. False when the
/// block is too short for one, which a wrapped size leads to.
bool FetchDescriptor(FastHolderImpl& list, ListDescriptor* descriptor) {
  if (list.BlockSize() < DESCRIPTOR_SIZE) return false;
  const uint8_t* bytes = list.At(list.BlockSize() - DESCRIPTOR_SIZE, DESCRIPTOR_SIZE);
  descriptor->blockSize = LoadDword(bytes + DESCRIPTOR_BLOCK_SIZE);
  descriptor->handleCount = LoadDword(bytes + DESCRIPTOR_HANDLE_COUNT);
  return true;
}

void CutDescriptor(FastHolderImpl& list) {
  const uint32_t size = list.BlockSize();
  list.CutBlock(size <= DESCRIPTOR_SIZE ? 0 : size - DESCRIPTOR_SIZE);
}

/// Reads the nested lists of `list`, the first of which `following` announces. The bytes read, or
/// -1.
int32_t ReadNestedLists(FastHolderImpl& list, ITransportChannel& channel, uint32_t count,
                        ListDescriptor following, ListDescriptor* next) {
  if (!list.Handles().MakeEmptySlots(count)) return -1;
  int32_t total = 0;
  for (uint32_t i = 0; i < count; ++i) {
    const ListRef nested = FastHolderImpl::Create();
    if (!nested) return -1;
    list.Handles().Fill(i, nested);
    const bool last = i + 1 == count;
    const int32_t result = ReadParamList(*nested, channel, following, last ? next : &following);
    if (result < 0) return -1;
    total = AddCounts(total, result);
  }
  return total;
}

/// Intended: any exception means that the stream was damaged; the walk is the only check there is.
bool CountEntries(FastHolderImpl& list) {
  try {
    list.CountParams();
  } catch (...) {
    return false;
  }
  return true;
}

}  // namespace

ListDescriptor DescriptorOf(const FastHolderImpl& list) {
  return {list.BlockSize(), list.Handles().Size()};
}

int32_t WriteParamList(const FastHolderImpl& list, ITransportChannel& channel,
                       const ListDescriptor* next) {
  const HandleSlots& handles = list.Handles();
  if (handles.Empty()) {
    if (next != nullptr) return WriteWithNext(list, channel, *next);
    return channel.Send(list.BlockData(), list.BlockSize());
  }
  int32_t total = WriteWithNext(list, channel, DescriptorOf(*handles[0]));
  if (total < 0) return total;
  const uint32_t lastIndex = handles.Size() - 1;
  for (uint32_t i = 0; i <= lastIndex; ++i) {
    // The last nested list inherits what its parent owes: the descriptor of the parent's follower.
    const ListDescriptor following =
        i < lastIndex ? DescriptorOf(*handles[i + 1]) : ListDescriptor{};
    const int32_t result = WriteParamList(*handles[i], channel, i < lastIndex ? &following : next);
    if (result < 0) return -1;
    total = AddCounts(total, result);
  }
  return total;
}

int32_t ReadParamList(FastHolderImpl& list, ITransportChannel& channel, ListDescriptor own,
                      ListDescriptor* next) {
  const bool descriptorFollows = own.handleCount > 0 || next != nullptr;
  // Intended: the sum wraps in 32 bits for a size near the top; the read is then short, and the
  // missing descriptor ends it.
  const uint32_t readSize = own.blockSize + (descriptorFollows ? DESCRIPTOR_SIZE : 0);
  if (list.AppendFromChannel(channel, readSize) < 0) return -1;
  int32_t total = AddCounts(0, static_cast<int32_t>(list.BlockSize()));
  if (descriptorFollows) {
    ListDescriptor following;
    if (!FetchDescriptor(list, &following)) return -1;
    if (own.handleCount == 0) {
      *next = following;
    } else {
      const int32_t nested = ReadNestedLists(list, channel, own.handleCount, following, next);
      if (nested < 0) return -1;
      total = AddCounts(total, nested);
    }
    CutDescriptor(list);
  }
  return CountEntries(list) ? total : -1;
}

}  // namespace TQ::detail

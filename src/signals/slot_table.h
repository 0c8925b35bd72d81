// What this process offers by number.
#pragma once

#include "frame/locks.h"

#include <tq/types.h>

#include <cstdint>
#include <map>

namespace TQ::detail {

struct SlotEntry {
  TQSlotCallback callback = nullptr;
  void* context = nullptr;
};

/// Slots by id, for the whole life of the process.
///
/// Threads: any. The dispatcher holds `lock` across every slot call and the queueing of its reply,
/// so a slot that was unregistered on another thread is not running any more.
class SlotTable {
 public:
  // Recursive: a slot may register and unregister slots, itself included.
  RecursiveMutex lock;

  void Set(uint32_t slotId, SlotEntry entry);

  /// False when there is no such slot.
  bool Remove(uint32_t slotId);

  /// Takes every slot away.
  void Clear();

  bool Find(uint32_t slotId, SlotEntry* entry) TQ_REQUIRES(lock);

 private:
  std::map<uint32_t, SlotEntry> slots TQ_GUARDED_BY(lock);
};

extern SlotTable& g_slots;

}  // namespace TQ::detail

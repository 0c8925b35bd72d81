#include "signals/slot_table.h"

#include <tq/messaging.h>

namespace TQ::detail {

void SlotTable::Set(uint32_t slotId, SlotEntry entry) {
  LockScope held(lock);
  slots[slotId] = entry;
}

bool SlotTable::Remove(uint32_t slotId) {
  LockScope held(lock);
  return slots.erase(slotId) != 0;
}

void SlotTable::Clear() {
  LockScope held(lock);
  slots.clear();
}

bool SlotTable::Find(uint32_t slotId, SlotEntry* entry) {
  const auto found = slots.find(slotId);
  if (found == slots.end()) return false;
  *entry = found->second;
  return true;
}

}  // namespace TQ::detail

using TQ::detail::g_slots;

_tag_TQ_ERROR TQRegisterSlot(unsigned slotId, TQSlotCallback callback, void* context) {
  g_slots.Set(slotId, {callback, context});
  return TQ_ERR_OK;
}

_tag_TQ_ERROR TQRegisterSlots(const _tag_SLOT_DESCRIPTION* records, int count) {
  for (int i = 0; i < count; ++i) {
    // Copied out: the records are packed, so their fields may stand at any address.
    const _tag_SLOT_DESCRIPTION record = records[i];
    g_slots.Set(record.slotId, {record.callback, record.context});
  }
  return TQ_ERR_OK;
}

_tag_TQ_ERROR TQUnregisterSlot(unsigned slotId) {
  return g_slots.Remove(slotId) ? TQ_ERR_OK : TQ_ERR_NO_SUCH_SLOT;
}

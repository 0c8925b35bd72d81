/// @file
/// Slots, signals, calls and notifications.
#pragma once

#include <tq/export.h>
#include <tq/types.h>

#ifdef __cplusplus
extern "C" {
#endif

TQ_API _tag_TQ_ERROR TQRegisterSlot(unsigned slotId, TQSlotCallback callback, void* context);
TQ_API _tag_TQ_ERROR TQUnregisterSlot(unsigned slotId);
TQ_API _tag_TQ_ERROR TQRegisterSignal(const char* name);
TQ_API _tag_TQ_ERROR TQUnregisterSignal(const char* name);

TQ_API _tag_HTQPARAMLIST TQCall(const char* applicationName, unsigned slotId,
                                _tag_HTQPARAMLIST params);
TQ_API _tag_HTQPARAMLIST TQCallWithFlow(unsigned flowId, const char* applicationName,
                                        unsigned slotId, _tag_HTQPARAMLIST params);
TQ_API _tag_TQ_ERROR TQNotify(const char* applicationName, unsigned slotId,
                              _tag_HTQPARAMLIST params, TQNotifyCallback callback, void* context);
TQ_API _tag_TQ_ERROR TQNotifyWithFlow(unsigned flowId, const char* applicationName,
                                      unsigned slotId, _tag_HTQPARAMLIST params,
                                      TQNotifyCallback callback, void* context);

TQ_API _tag_TQ_ERROR TQEmit(const char* signalName, _tag_HTQPARAMLIST params,
                            TQNotifyCallback callback, void* context);
TQ_API _tag_TQ_ERROR TQEmitWithFlow(unsigned flowId, const char* signalName,
                                    _tag_HTQPARAMLIST params, TQNotifyCallback callback,
                                    void* context);
TQ_API _tag_TQ_ERROR TQConnectSignal(const char* applicationName, const char* signalName,
                                     unsigned slotId);
TQ_API _tag_TQ_ERROR TQDisconnectSignal(const char* applicationName, const char* signalName,
                                        unsigned slotId);

#ifdef __cplusplus
} // extern "C"
#endif

#ifdef __cplusplus
TQ_API _tag_TQ_ERROR TQRegisterSlots(const _tag_SLOT_DESCRIPTION* records, int count);
TQ_API _tag_TQ_ERROR TQRegisterSignals(const _tag_SIGNAL_DESCRIPTION* records, int count);
#endif

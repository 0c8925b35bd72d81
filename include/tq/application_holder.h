/// @file
/// TQ::TQApplicationHolder, a peer's name with the calls on it. C++ only.
#pragma once

#include <tq/export.h>
#include <tq/types.h>

namespace TQ {

class TQ_API TQApplicationHolder {
public:
  TQApplicationHolder(const char* name = nullptr);
  TQApplicationHolder(const TQApplicationHolder& other);
  virtual ~TQApplicationHolder() noexcept(false);
  TQApplicationHolder& operator=(const TQApplicationHolder& other);

  bool operator!() const;
  const char* getName() const;

  bool Connect(const char* host, int port, const unsigned char* authData, int authLength);
  bool Disconnect();

  _tag_HTQPARAMLIST Call(unsigned slotId, _tag_HTQPARAMLIST params);
  _tag_HTQPARAMLIST CallWithFlow(unsigned flowId, unsigned slotId, _tag_HTQPARAMLIST params);
  bool Notify(unsigned slotId, _tag_HTQPARAMLIST params, TQNotifyCallback callback, void* context);
  bool NotifyWithFlow(unsigned flowId, unsigned slotId, _tag_HTQPARAMLIST params,
                      TQNotifyCallback callback, void* context);
  bool ConnectSignal(const char* signalName, unsigned slotId);
  bool DisconnectSignal(const char* signalName, unsigned slotId);

private:
  char name[256];
};

static_assert(sizeof(TQApplicationHolder) == 264, "virtual table pointer and 256 bytes");

} // namespace TQ

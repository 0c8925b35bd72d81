// Opening and closing a session on the host's initiative.
#include "session/application_registry.h"
#include "session/session.h"

#include <tq/application.h>

using namespace TQ::detail;

_tag_TQ_ERROR TQConnect(const char* host, int32_t port, char* nameOut, uint32_t nameOutSize,
                        const uint8_t* authData, int32_t authLength) {
  const SessionRef session(new TQAPPImpl());
  if (!session) return TQ_ERR_FAILED;
  return session->ConnectTo(host, static_cast<uint32_t>(port), nameOut, nameOutSize, authData,
                            authLength);
}

_tag_TQ_ERROR TQDisconnect(const char* applicationName) {
  const SessionRef session = g_applications.Find(applicationName);
  // An unknown name is no error, and a session that somebody has stopped is left to finish.
  if (session.IsValid()) session->StopSession();
  return TQ_ERR_OK;
}

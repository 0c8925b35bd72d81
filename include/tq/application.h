/// @file
/// Life of the application, settings and connections.
#pragma once

#include <tq/export.h>
#include <tq/types.h>

#ifdef __cplusplus
extern "C" {
#endif

TQ_API _tag_TQ_ERROR TQInitialize(const char* name, int32_t port, const _tag_TQLIMITS* limits);
TQ_API _tag_TQ_ERROR TQInitializeEx(const char* host, const char* name, int32_t port,
                                    const _tag_TQLIMITS* limits);
TQ_API _tag_TQ_ERROR TQConnectionReady(void);
TQ_API _tag_TQ_ERROR TQStartListeners(void* unused, const char* host, uint16_t port);
TQ_API _tag_TQ_ERROR TQShutdown(void);

TQ_API _tag_TQ_ERROR TQSetAuthenticationInfo(const uint8_t* data, int32_t length);
TQ_API _tag_TQ_ERROR TQSetConnectListener(TQConnectListener listener);
TQ_API _tag_TQ_ERROR TQSetDisconnectListener(TQDisconnectListener listener);
TQ_API _tag_TQ_ERROR TQSetAuthFailedListener(TQAuthFailedListener listener);
TQ_API _tag_TQ_ERROR TQSetUnknownConnectListener(TQUnknownConnectListener listener);

TQ_API _tag_TQ_ERROR TQConnect(const char* host, int32_t port, char* nameOut, uint32_t nameOutSize,
                               const uint8_t* authData, int32_t authLength);
TQ_API _tag_TQ_ERROR TQDisconnect(const char* applicationName);

#ifdef __cplusplus
} // extern "C"
#endif

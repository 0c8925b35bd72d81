/// @file
/// Result codes, the list handle, records and callback types.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <tq/export.h>

// The same records and enumerations serve C11 and C++17. C has no fixed underlying types and no
// members, so the heads of the declarations differ; sizes and values do not.
#ifdef __cplusplus
#define TQ_ENUM_BASE(type) : type
#define TQ_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define TQ_ENUM_BASE(type)
#define TQ_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

/// Result of most functions. -2 and -6 are holes and are never returned.
typedef enum _tag_TQ_ERROR TQ_ENUM_BASE(int32_t) {
  TQ_ERR_OK = 0,
  TQ_ERR_FAILED = -1,
  TQ_ERR_NO_SUCH_SLOT = -3,
  TQ_ERR_NO_SUCH_SIGNAL = -4,
  TQ_ERR_NO_SESSION = -5,
  TQ_ERR_NAME_REJECTED = -7
} _tag_TQ_ERROR;

/// Severity of a log line, one bit each.
typedef enum _tag_TQ_LOG_LEVEL TQ_ENUM_BASE(uint32_t) {
  TQ_LOG_CRITICAL = 1,
  TQ_LOG_ERROR = 2,
  TQ_LOG_WARNING = 4,
  TQ_LOG_INFO = 8
} _tag_TQ_LOG_LEVEL;

/// Type code of a stored value. An array's code is its element's code with PT_ARRAY_FLAG set.
typedef enum _tag_PARAM_TYPES TQ_ENUM_BASE(uint32_t) {
  PT_UNKNOWN = 0,
  PT_STRING = 1,
  PT_INT32 = 2,
  PT_INT64 = 3,
  PT_PARAMHANDLE = 4,
  PT_BINARY = 5,
  PT_ARRAY_FLAG = 0x80
} _tag_PARAM_TYPES;

/// Stored index of a list value that holds no list.
#ifdef __cplusplus
inline constexpr uint32_t NO_HANDLE_INDEX = 0xFFFFFFFFu;
#else
#define NO_HANDLE_INDEX 0xFFFFFFFFu
#endif

#ifdef __cplusplus
class FastHolderImpl;
#else
struct FastHolderImpl;
#endif

/// Handle of a parameter list, passed by value. A null `impl` is the null handle.
typedef struct _tag_HTQPARAMLIST {
#ifdef __cplusplus
  FastHolderImpl* impl;
#else
  struct FastHolderImpl* impl;
#endif
} _tag_HTQPARAMLIST;
typedef _tag_HTQPARAMLIST HTQPARAMLIST;

#pragma pack(push, 1)

typedef struct _tag_BINARYITEM {
  uint32_t size;
  const void* data;
} _tag_BINARYITEM;

typedef struct _tag_TQDWORDARRAY {
  uint32_t count;
  const uint32_t* values;
} _tag_TQDWORDARRAY;

typedef struct _tag_TQQWORDARRAY {
  uint32_t count;
  const uint64_t* values;
} _tag_TQQWORDARRAY;

typedef struct _tag_BINARYVALUE {
  uint32_t size;
  uint8_t data[1];
} _tag_BINARYVALUE;

typedef struct _tag_TQPARAMVALUE {
  uint8_t type;
#ifdef __cplusplus
  /// Thrown for a type byte of no known code.
  struct TQ_API DataDamaged {};
  /// The library's own: not exported, a host cannot call it.
  static uint32_t ValueSize(const _tag_TQPARAMVALUE* value);
#endif
} _tag_TQPARAMVALUE;

typedef struct _tag_TQPARAMINFO {
  uint8_t valueOffset;
  char name[1];
#ifdef __cplusplus
  const _tag_TQPARAMVALUE* Value() const
  {
    return reinterpret_cast<const _tag_TQPARAMVALUE*>(
        reinterpret_cast<const uint8_t*>(this) + valueOffset);
  }
#endif
} _tag_TQPARAMINFO;

#pragma pack(pop)

typedef struct _tag_TQLIMITS {
  uint32_t size;
  uint32_t MAX_CONNECTIONS;
  uint32_t RESERVED_LIMIT_2;
  uint32_t MAX_READ_SIZE;
  uint32_t RESERVED_LIMIT_4;
  uint32_t RESERVED_LIMIT_5;
  uint32_t RESERVED_LIMIT_6;
  uint32_t RESERVED_LIMIT_7;
  uint32_t IO_TIMEOUT_MS;
  uint8_t authBlock[256];
} _tag_TQLIMITS;

typedef struct TQObjectCounts {
  uint32_t sessions;
  uint32_t messages;
  uint32_t pendingCalls;
  uint32_t reserved1;
  uint32_t reserved2;
  uint32_t paramLists;
  uint32_t writeCalls;
  uint32_t readCalls;
  uint64_t reserved3;
  uint64_t reserved4;
} TQObjectCounts;

typedef struct TQSlotCallInfo {
  const char* applicationName;
  void* context;
} TQSlotCallInfo;

typedef void (*TQLogCallback)(uint32_t level, int32_t verbosity, const char* text);
typedef int (*TQSlotCallback)(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result,
                              const TQSlotCallInfo* info);
typedef _tag_TQ_ERROR (*TQNotifyCallback)(const char* applicationName, unsigned slotId,
                                          _tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result,
                                          void* context);
typedef void (*TQConnectListener)(const char* localAddress, const char* remoteAddress,
                                  const char* applicationName, const char* host, int32_t port,
                                  const char* application);
typedef void (*TQDisconnectListener)(const char* applicationName, const char* host, int32_t port,
                                     const char* application);
typedef void (*TQAuthFailedListener)(const char* localAddress, const char* remoteAddress,
                                     const char* applicationName);
typedef void (*TQUnknownConnectListener)(const char* localAddress, const char* remoteAddress);

#pragma pack(push, 1)

typedef struct _tag_SLOT_DESCRIPTION {
  uint32_t slotId;
  TQSlotCallback callback;
  void* context;
} _tag_SLOT_DESCRIPTION;

#pragma pack(pop)

typedef struct _tag_SIGNAL_DESCRIPTION {
  const char* name;
} _tag_SIGNAL_DESCRIPTION;

TQ_STATIC_ASSERT(sizeof(_tag_TQ_ERROR) == 4, "result codes are 32 bits wide");
TQ_STATIC_ASSERT(sizeof(_tag_TQ_LOG_LEVEL) == 4, "log levels are 32 bits wide");
TQ_STATIC_ASSERT(sizeof(_tag_PARAM_TYPES) == 4, "type codes are 32 bits wide");
TQ_STATIC_ASSERT(sizeof(_tag_HTQPARAMLIST) == 8, "a handle is one pointer");
TQ_STATIC_ASSERT(sizeof(_tag_BINARYITEM) == 12, "packed");
TQ_STATIC_ASSERT(offsetof(_tag_BINARYITEM, data) == 4, "packed");
TQ_STATIC_ASSERT(sizeof(_tag_TQDWORDARRAY) == 12, "packed");
TQ_STATIC_ASSERT(offsetof(_tag_TQDWORDARRAY, values) == 4, "packed");
TQ_STATIC_ASSERT(sizeof(_tag_TQQWORDARRAY) == 12, "packed");
TQ_STATIC_ASSERT(offsetof(_tag_TQQWORDARRAY, values) == 4, "packed");
TQ_STATIC_ASSERT(sizeof(_tag_BINARYVALUE) == 5, "the length word and the first byte");
TQ_STATIC_ASSERT(offsetof(_tag_BINARYVALUE, data) == 4, "bytes follow the length word");
TQ_STATIC_ASSERT(sizeof(_tag_TQPARAMVALUE) == 1, "the type byte");
TQ_STATIC_ASSERT(sizeof(_tag_TQPARAMINFO) == 2, "the offset byte and the name's first byte");
TQ_STATIC_ASSERT(offsetof(_tag_TQPARAMINFO, name) == 1, "the name follows the offset byte");
TQ_STATIC_ASSERT(sizeof(_tag_TQLIMITS) == 292, "nine words and the block");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, MAX_CONNECTIONS) == 4, "layout");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, RESERVED_LIMIT_2) == 8, "layout");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, MAX_READ_SIZE) == 12, "layout");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, RESERVED_LIMIT_4) == 16, "layout");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, RESERVED_LIMIT_5) == 20, "layout");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, RESERVED_LIMIT_6) == 24, "layout");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, RESERVED_LIMIT_7) == 28, "layout");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, IO_TIMEOUT_MS) == 32, "layout");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, authBlock) == 36, "layout");
TQ_STATIC_ASSERT(sizeof(TQObjectCounts) == 48, "eight words and two double words");
TQ_STATIC_ASSERT(offsetof(TQObjectCounts, paramLists) == 20, "layout");
TQ_STATIC_ASSERT(offsetof(TQObjectCounts, writeCalls) == 24, "layout");
TQ_STATIC_ASSERT(offsetof(TQObjectCounts, readCalls) == 28, "layout");
TQ_STATIC_ASSERT(offsetof(TQObjectCounts, reserved3) == 32, "layout");
TQ_STATIC_ASSERT(sizeof(TQSlotCallInfo) == 16, "two pointers");
TQ_STATIC_ASSERT(sizeof(_tag_SLOT_DESCRIPTION) == 20, "packed");
TQ_STATIC_ASSERT(offsetof(_tag_SLOT_DESCRIPTION, callback) == 4, "packed");
TQ_STATIC_ASSERT(offsetof(_tag_SLOT_DESCRIPTION, context) == 12, "packed");
TQ_STATIC_ASSERT(sizeof(_tag_SIGNAL_DESCRIPTION) == 8, "one pointer");

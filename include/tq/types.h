/// @file
/// Result codes, the list handle, records and callback types.
///
/// Everything here is plain data: the same records and enumerations serve C11 and C++17, and their
/// sizes, offsets and values are fixed, because callers, peers and bindings for other languages
/// rely on them. Little-endian machines with 8-byte pointers only.
///
/// Texts are NUL-terminated bytes. The library converts nothing: what encoding a text has is
/// between the applications. Texts that came from a peer (names, strings in lists) hold whatever
/// bytes the peer sent.
///
/// Packed records have no gap before a pointer, so the pointer may be misaligned: read and write
/// such a field through the record, and never take its address.
///
/// In C++ NO_HANDLE_INDEX is a constant and the enumerations have fixed underlying types; in C it
/// is a macro and they are plain enumerations of the same size.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <tq/export.h>

// C has no fixed underlying types, and names its assertion differently until C23.
#ifdef __cplusplus
#define TQ_ENUM_BASE(type) : type
#define TQ_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define TQ_ENUM_BASE(type)
#define TQ_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

// ---- codes -------------------------------------------------------------------------------------

// The macro hides from the formatter that these are enumerations.
// clang-format off

/// Result of most functions: zero is success, every failure is negative.
///
/// -2 and -6 are holes and are never returned. There is no last error kept anywhere.
typedef enum _tag_TQ_ERROR TQ_ENUM_BASE(int32_t) {
  TQ_ERR_OK = 0,               ///< success
  TQ_ERR_FAILED = -1,          ///< null list, peer not reached, transport failure
  TQ_ERR_NO_SUCH_SLOT = -3,    ///< no slot of that id is registered here
  TQ_ERR_NO_SUCH_SIGNAL = -4,  ///< no signal of that name is registered here
  TQ_ERR_NO_SESSION = -5,      ///< no session with an application of that name
  TQ_ERR_NAME_REJECTED = -7    ///< another application name is in force, or a peer refused us
} _tag_TQ_ERROR;

/// Severity of a log line. Each line has exactly one of these bits; a mask is a union of them and
/// selects by bit: it is not a threshold.
typedef enum _tag_TQ_LOG_LEVEL TQ_ENUM_BASE(uint32_t) {
  TQ_LOG_CRITICAL = 1,  ///< cannot listen, too many connections
  TQ_LOG_ERROR = 2,     ///< a connection could not be accepted or admitted
  TQ_LOG_WARNING = 4,   ///< a peer failed the handshake
  TQ_LOG_INFO = 8       ///< everything else, failed reads and writes included
} _tag_TQ_LOG_LEVEL;

/// Type codes of stored values. The code of an array is its element's code with PT_ARRAY_FLAG set,
/// 0x81 for an array of strings and so on up to 0x85.
typedef enum _tag_PARAM_TYPES TQ_ENUM_BASE(uint32_t) {
  PT_UNKNOWN = 0,      ///< never stored
  PT_STRING = 1,       ///< text with its NUL
  PT_INT32 = 2,        ///< 32 bits, signed or not as the applications agree
  PT_INT64 = 3,        ///< 64 bits, likewise
  PT_PARAMHANDLE = 4,  ///< a nested list
  PT_BINARY = 5,       ///< bytes with their length
  PT_ARRAY_FLAG = 0x80
} _tag_PARAM_TYPES;

// clang-format on

/// Index of a list value that holds no list.
#ifdef __cplusplus
inline constexpr uint32_t NO_HANDLE_INDEX = 0xFFFFFFFFu;
#else
#define NO_HANDLE_INDEX 0xFFFFFFFFu
#endif

// ---- the list handle ---------------------------------------------------------------------------

#ifdef __cplusplus
class FastHolderImpl;
#else
struct FastHolderImpl;
#endif

/// Handle of a parameter list, passed and returned by value. <tq/param_list.h> has the rules.
///
/// A handle is the object's address. Only null is recognised as invalid: a handle whose list has
/// been destroyed is not, and using one is undefined.
typedef struct _tag_HTQPARAMLIST {
#ifdef __cplusplus
  FastHolderImpl* impl;  ///< opaque; null means no list
#else
  struct FastHolderImpl* impl;  ///< opaque; null means no list
#endif
} _tag_HTQPARAMLIST;

typedef _tag_HTQPARAMLIST HTQPARAMLIST;

// ---- values and their views --------------------------------------------------------------------

#pragma pack(push, 1)

/// One binary value to store: `size` bytes at `data`. `data` may be null if `size` is 0.
typedef struct _tag_BINARYITEM {
  uint32_t size;     ///< bytes
  const void* data;  ///< borrowed for the call that takes the record
} _tag_BINARYITEM;

/// View of `count` 32-bit values inside a list's block. An empty view is count 0 and null.
typedef struct _tag_TQDWORDARRAY {
  uint32_t count;          ///< elements
  const uint32_t* values;  ///< on a 4-byte boundary; valid as long as any pointer into the list
} _tag_TQDWORDARRAY;

/// View of `count` 64-bit values. What TQGetInt64Array really gives in it is told there.
typedef struct _tag_TQQWORDARRAY {
  uint32_t count;          ///< elements
  const uint64_t* values;  ///< on a 4-byte boundary only: read each with memcpy
} _tag_TQQWORDARRAY;

/// A stored binary value: a pointer to this record is a pointer into the list's block, where
/// `size` bytes follow the length word. Never an object of its own.
typedef struct _tag_BINARYVALUE {
  uint32_t size;    ///< bytes at `data`, may be 0
  uint8_t data[1];  ///< the first of them
} _tag_BINARYVALUE;

/// A value inside a list's block: the type byte, directly followed by the payload.
///
/// | type            | payload                                                                 |
/// |-----------------|-------------------------------------------------------------------------|
/// | PT_STRING       | the text with its NUL                                                   |
/// | PT_INT32        | 4 bytes                                                                 |
/// | PT_INT64        | 8 bytes                                                                 |
/// | PT_PARAMHANDLE  | u32 index for TQGetHandleById, or NO_HANDLE_INDEX                       |
/// | PT_BINARY       | u32 length, then the bytes: a _tag_BINARYVALUE                          |
/// | 0x81 strings    | u32 count, count u32 offsets, then the texts, each with its NUL         |
/// | 0x82 32-bit     | u32 count, then the values                                              |
/// | 0x83 64-bit     | u32 count, then the values                                              |
/// | 0x84 lists      | u32 count, then u32 indices as for PT_PARAMHANDLE                       |
/// | 0x85 binaries   | u32 count, count u32 offsets, then the items, each a _tag_BINARYVALUE   |
///
/// Every payload starts on a 4-byte boundary and is brought up to a multiple of 4 with zero bytes,
/// as are the single texts and items of an array. 64-bit values therefore stand on a 4-byte
/// boundary only: read them with memcpy. An offset counts from the byte after the offset table to
/// the start of its element. With a count of 0 the value ends after the count.
typedef struct _tag_TQPARAMVALUE {
  uint8_t type;  ///< a _tag_PARAM_TYPES code, with PT_ARRAY_FLAG for an array
#ifdef __cplusplus
  /// Thrown by list functions that have to step over a value whose type byte is no known code.
  /// It carries nothing and has no base class. A host may catch it; <tq/param_list.h> says where
  /// it can arise.
  struct TQ_API DataDamaged {};

  /// The library's own and not exported: a host cannot call it.
  static uint32_t ValueSize(const _tag_TQPARAMVALUE* value);
#endif
} _tag_TQPARAMVALUE;

/// An entry inside a list's block, as the iterating functions give it: a name and its value.
///
/// Never an object of its own; a pointer to one is a pointer into the block and lives as long.
typedef struct _tag_TQPARAMINFO {
  uint8_t valueOffset;  ///< bytes from this byte to the value's type byte
  char name[1];         ///< the first byte of the name, which ends with a NUL
#ifdef __cplusplus
  /// The entry's value. In C: (const _tag_TQPARAMVALUE*)((const uint8_t*)info + info->valueOffset).
  const _tag_TQPARAMVALUE* Value() const {
    return reinterpret_cast<const _tag_TQPARAMVALUE*>(reinterpret_cast<const uint8_t*>(this) +
                                                      valueOffset);
  }
#endif
} _tag_TQPARAMINFO;

#pragma pack(pop)

// ---- settings and counts -----------------------------------------------------------------------

/// Limits and the authentication block, given to TQInitialize and TQInitializeEx.
///
/// A limit of 0 keeps its default. `authBlock` has no such rule: a record replaces the block that
/// was in force even with 256 zero bytes. A record whose `size` is not 292 counts for nothing, and
/// nobody is told.
typedef struct _tag_TQLIMITS {
  uint32_t size;  ///< sizeof(_tag_TQLIMITS), 292

  /// A listener refuses a peer while there are more sessions than this, so that one more than
  /// this number are admitted. Outgoing connections count but are not refused. Default 100.
  uint32_t MAX_CONNECTIONS;

  uint32_t RESERVED_LIMIT_2;  ///< stored, without effect; default 64

  /// A single read of more bytes than this fails and ends the session. A list's block is one read,
  /// together with up to 8 bytes of framing, so this bounds each list that a peer may send, though
  /// not their number. It is no limit on what this process sends. A read or a write of 2 GiB or
  /// more counts as failed whatever stands here, after it has been carried out. Default 0x40000000.
  uint32_t MAX_READ_SIZE;

  uint32_t RESERVED_LIMIT_4;  ///< stored, without effect; default 0x40000000
  uint32_t RESERVED_LIMIT_5;  ///< stored, without effect; default 64
  uint32_t RESERVED_LIMIT_6;  ///< stored, without effect; default 0x04000000
  uint32_t RESERVED_LIMIT_7;  ///< stored, without effect; default 0x40000000

  /// Time limit of a read or a write in milliseconds, default 60000. A read that sees no byte at
  /// all gives up sooner, after (IO_TIMEOUT_MS + 1999) / 2000 seconds and 1 ms, and a write to a
  /// peer that takes nothing after 10 seconds whatever stands here. Over pipes a read gives up
  /// after this time without a byte, counted anew from each part that arrives, and a write never.
  /// Between frames of a live session a read waits without limit.
  uint32_t IO_TIMEOUT_MS;

  /// What a connecting peer must know to be admitted here. Default: all zero, which every peer
  /// that gives no data knows.
  uint8_t authBlock[256];
} _tag_TQLIMITS;

/// What DEBUG_TQObjectCount returns.
///
/// `pendingCalls` is about one session only: the one that sent a request last, or got a reply that
/// it did not wait for. It says how many requests of that session were sent and unanswered then. An
/// answer does not lower it, so it stays above 0 when nothing is pending any more.
typedef struct TQObjectCounts {
  uint32_t sessions;      ///< session objects alive
  uint32_t messages;      ///< messages alive
  uint32_t pendingCalls;  ///< unanswered requests of one session, as told above
  uint32_t reserved1;     ///< always 0
  uint32_t reserved2;     ///< always 0
  uint32_t paramLists;    ///< lists alive, nested ones and those inside messages included
  uint32_t writeCalls;    ///< attempts to write to a peer, since load
  uint32_t readCalls;     ///< attempts to read from a peer, since load
  uint64_t reserved3;     ///< always 0
  uint64_t reserved4;     ///< always 0
} TQObjectCounts;

/// Told to a slot callback. The record and its text exist for the length of the call.
typedef struct TQSlotCallInfo {
  const char* applicationName;  ///< full name of the calling peer; empty if its session has ended
  void* context;                ///< the one given at registration
} TQSlotCallInfo;

// ---- callbacks ---------------------------------------------------------------------------------
//
// For all of them: texts and handles are borrowed for the length of the call (TQReferenceHandle
// keeps a list longer); results are ignored; the callback runs on the thread named with it and
// holds that thread up. A callback must not throw: no thread of the library catches the exception,
// and one that leaves a callback there ends the process. A callback and its context must stay
// valid until the function that takes it away says so, or until no thread of the library is left,
// which is a moment after the last TQShutdown has returned: <tq/application.h> tells under
// Unloading what may still run.

/// Receives a log line.
///
/// @param level      one bit of _tag_TQ_LOG_LEVEL.
/// @param verbosity  always 0.
/// @param text       one line without line end, time or prefix. It may quote names that a peer
///                   sent, byte for byte.
/// Threads: whichever logs, concurrently with itself; that thread may hold locks of the library,
/// so the callback must return soon and must not wait for another thread that uses the library.
typedef void (*TQLogCallback)(uint32_t level, int32_t verbosity, const char* text);

/// Serves a slot.
///
/// @param params  what the peer sent; a list also if the peer sent none.
/// @param result  to be filled with what the reply shall carry; the null handle if the peer wants
///                no reply.
/// @param info    who calls, and the registration's context.
/// Threads: the one dispatcher thread of the process, so never two slots at a time; a slot that
/// does not return holds up all calls and notifications of all peers. TQCall is allowed, but two
/// processes whose slots call each other at the same moment block for good.
typedef int (*TQSlotCallback)(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result,
                              const TQSlotCallInfo* info);

/// Told that a notification or an emitted signal has been dealt with; at most once per receiver.
///
/// @param applicationName  full name of the peer; null if a signal had no subscribers.
/// @param slotId           the slot that was addressed; 0 if a signal had no subscribers.
/// @param params           the list that was sent.
/// @param result           the reply, empty if the peer has no such slot or if the message could
///                         not be written; the null handle if the session ended first or if a
///                         signal had no subscribers.
/// @param context          the one given with the callback.
/// Threads: a reply, the receiving thread of the session; the end of the session, its sending
/// thread, also after TQDisconnect and TQShutdown have returned; a failed write, the dispatcher
/// thread; no subscribers, the caller of TQEmit. So it can run concurrently with itself and with
/// slots. On a receiving thread it must not wait for anything that the same peer sends: TQCall and
/// TQDisconnectSignal to that peer never return. It must not wait for a slot either, as registering
/// slots does: see TQDisconnect.
typedef _tag_TQ_ERROR (*TQNotifyCallback)(const char* applicationName, unsigned slotId,
                                          _tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result,
                                          void* context);

/// Told of each admitted session, whoever connected.
///
/// @param localAddress     this end, dotted IPv4 address, ":" and port; over pipes the name of the
///                         one that this end reads, which begins with a backslash on the side that
///                         connected.
/// @param remoteAddress    the peer's end, likewise; over pipes the one that this end writes.
/// @param applicationName  the peer's full name, by which it is addressed from now on.
/// @param host             the part of that name before ":".
/// @param port             the part between ":" and "/" as a number, 0 if it is none.
/// @param application      the part behind "/", up to the next "/".
/// Threads: the session's receiving thread, before it reads anything: TQCall and
/// TQDisconnectSignal to this peer never return here. TQNotify, TQConnectSignal and TQDisconnect
/// are safe.
typedef void (*TQConnectListener)(const char* localAddress, const char* remoteAddress,
                                  const char* applicationName, const char* host, int32_t port,
                                  const char* application);

/// Told once of the end of each session that TQConnectListener is told of; arguments as there.
///
/// The peer's signal subscriptions are gone. Requests that it leaves unanswered are cancelled
/// after this call.
/// Threads: the session's receiving thread, which reads nothing more: TQCall and
/// TQDisconnectSignal to this peer never return here. TQDisconnect and TQShutdown wait for it, so
/// it must not wait for a thread that is inside one of them, nor for a slot that may disconnect the
/// peer, as registering slots does: see TQDisconnect.
typedef void (*TQDisconnectListener)(const char* applicationName, const char* host, int32_t port,
                                     const char* application);

/// Told of a peer that did not prove that it knows the authentication block.
///
/// @param applicationName  the name that the peer gave, unproven, at most 256 bytes.
/// Threads: a listener thread, which admits nobody meanwhile. TQShutdown must not be called here.
typedef void (*TQAuthFailedListener)(const char* localAddress, const char* remoteAddress,
                                     const char* applicationName);

/// Told of a peer that gave no name, or a name without host or application part.
///
/// Threads: a listener thread as for TQAuthFailedListener, or the thread inside TQConnect.
typedef void (*TQUnknownConnectListener)(const char* localAddress, const char* remoteAddress);

// ---- registration records ----------------------------------------------------------------------

#pragma pack(push, 1)

/// One slot for TQRegisterSlots. The records stand directly one behind the other.
typedef struct _tag_SLOT_DESCRIPTION {
  uint32_t slotId;          ///< as for TQRegisterSlot
  TQSlotCallback callback;  ///< must not be null
  void* context;            ///< handed to the callback, never looked at
} _tag_SLOT_DESCRIPTION;

#pragma pack(pop)

/// One signal for TQRegisterSignals.
typedef struct _tag_SIGNAL_DESCRIPTION {
  const char* name;  ///< as for TQRegisterSignal; copied
} _tag_SIGNAL_DESCRIPTION;

// ---- the layout, held --------------------------------------------------------------------------

TQ_STATIC_ASSERT(sizeof(_tag_TQ_ERROR) == 4, "result codes have 32 bits");
TQ_STATIC_ASSERT(sizeof(_tag_TQ_LOG_LEVEL) == 4, "log levels have 32 bits");
TQ_STATIC_ASSERT(sizeof(_tag_PARAM_TYPES) == 4, "type codes have 32 bits");

TQ_STATIC_ASSERT(sizeof(_tag_HTQPARAMLIST) == 8, "a handle is one pointer");
TQ_STATIC_ASSERT(offsetof(_tag_HTQPARAMLIST, impl) == 0, "a handle is one pointer");

TQ_STATIC_ASSERT(sizeof(_tag_BINARYITEM) == 12, "packed");
TQ_STATIC_ASSERT(offsetof(_tag_BINARYITEM, size) == 0, "the size comes first");
TQ_STATIC_ASSERT(offsetof(_tag_BINARYITEM, data) == 4, "the pointer follows without a gap");
TQ_STATIC_ASSERT(sizeof(_tag_TQDWORDARRAY) == 12, "packed");
TQ_STATIC_ASSERT(offsetof(_tag_TQDWORDARRAY, count) == 0, "the count comes first");
TQ_STATIC_ASSERT(offsetof(_tag_TQDWORDARRAY, values) == 4, "the pointer follows without a gap");
TQ_STATIC_ASSERT(sizeof(_tag_TQQWORDARRAY) == 12, "packed");
TQ_STATIC_ASSERT(offsetof(_tag_TQQWORDARRAY, count) == 0, "the count comes first");
TQ_STATIC_ASSERT(offsetof(_tag_TQQWORDARRAY, values) == 4, "the pointer follows without a gap");

TQ_STATIC_ASSERT(sizeof(_tag_BINARYVALUE) == 5, "the length word and the first byte");
TQ_STATIC_ASSERT(offsetof(_tag_BINARYVALUE, size) == 0, "the length word comes first");
TQ_STATIC_ASSERT(offsetof(_tag_BINARYVALUE, data) == 4, "the bytes follow the length word");
TQ_STATIC_ASSERT(sizeof(_tag_TQPARAMVALUE) == 1, "the type byte alone");
TQ_STATIC_ASSERT(offsetof(_tag_TQPARAMVALUE, type) == 0, "the type byte alone");
TQ_STATIC_ASSERT(sizeof(_tag_TQPARAMINFO) == 2, "the offset byte and the name's first byte");
TQ_STATIC_ASSERT(offsetof(_tag_TQPARAMINFO, valueOffset) == 0, "the offset byte comes first");
TQ_STATIC_ASSERT(offsetof(_tag_TQPARAMINFO, name) == 1, "the name follows the offset byte");

TQ_STATIC_ASSERT(sizeof(_tag_TQLIMITS) == 292, "nine words and the authentication block");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, size) == 0, "word 0");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, MAX_CONNECTIONS) == 4, "word 1");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, RESERVED_LIMIT_2) == 8, "word 2");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, MAX_READ_SIZE) == 12, "word 3");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, RESERVED_LIMIT_4) == 16, "word 4");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, RESERVED_LIMIT_5) == 20, "word 5");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, RESERVED_LIMIT_6) == 24, "word 6");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, RESERVED_LIMIT_7) == 28, "word 7");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, IO_TIMEOUT_MS) == 32, "word 8");
TQ_STATIC_ASSERT(offsetof(_tag_TQLIMITS, authBlock) == 36, "the block follows the words");

TQ_STATIC_ASSERT(sizeof(TQObjectCounts) == 48, "eight words and two double words");
TQ_STATIC_ASSERT(offsetof(TQObjectCounts, sessions) == 0, "word 0");
TQ_STATIC_ASSERT(offsetof(TQObjectCounts, messages) == 4, "word 1");
TQ_STATIC_ASSERT(offsetof(TQObjectCounts, pendingCalls) == 8, "word 2");
TQ_STATIC_ASSERT(offsetof(TQObjectCounts, reserved1) == 12, "word 3");
TQ_STATIC_ASSERT(offsetof(TQObjectCounts, reserved2) == 16, "word 4");
TQ_STATIC_ASSERT(offsetof(TQObjectCounts, paramLists) == 20, "word 5");
TQ_STATIC_ASSERT(offsetof(TQObjectCounts, writeCalls) == 24, "word 6");
TQ_STATIC_ASSERT(offsetof(TQObjectCounts, readCalls) == 28, "word 7");
TQ_STATIC_ASSERT(offsetof(TQObjectCounts, reserved3) == 32, "the first double word");
TQ_STATIC_ASSERT(offsetof(TQObjectCounts, reserved4) == 40, "the second double word");

TQ_STATIC_ASSERT(sizeof(TQSlotCallInfo) == 16, "two pointers");
TQ_STATIC_ASSERT(offsetof(TQSlotCallInfo, applicationName) == 0, "the name comes first");
TQ_STATIC_ASSERT(offsetof(TQSlotCallInfo, context) == 8, "then the context");

TQ_STATIC_ASSERT(sizeof(_tag_SLOT_DESCRIPTION) == 20, "packed");
TQ_STATIC_ASSERT(offsetof(_tag_SLOT_DESCRIPTION, slotId) == 0, "the id comes first");
TQ_STATIC_ASSERT(offsetof(_tag_SLOT_DESCRIPTION, callback) == 4, "the pointer follows directly");
TQ_STATIC_ASSERT(offsetof(_tag_SLOT_DESCRIPTION, context) == 12, "then the context");
TQ_STATIC_ASSERT(sizeof(_tag_SIGNAL_DESCRIPTION) == 8, "one pointer");
TQ_STATIC_ASSERT(offsetof(_tag_SIGNAL_DESCRIPTION, name) == 0, "one pointer");

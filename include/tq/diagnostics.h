/// @file
/// The private heap, the log, the object counts and dumps of lists: what is there from the moment
/// of loading.
///
/// Nothing here needs TQInitialize or is undone by TQShutdown. Any thread may call any of it at any
/// time, the dumps as any reader of their list. But for the dumps nothing blocks or throws. Nothing
/// runs a callback, and nothing is checked beyond what is told.
#pragma once

#include <tq/export.h>
#include <tq/types.h>

#ifdef __cplusplus
#include <iosfwd>
#else
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

// ---- the private heap --------------------------------------------------------------------------
//
// Lists and messages live on it. A block from here is freed here: neither free nor delete may be
// given it, nor may TQFree be given a block from elsewhere.

/// Allocates `size` bytes.
///
/// @return the block, not cleared, owned by the caller (give it back with TQFree); null if there is
///         no memory.
TQ_API void* TQAllocate(uint64_t size);

/// Frees a block of TQAllocate or TQRealloc. Null is ignored.
TQ_API void TQFree(void* ptr);

/// Changes the size of a block and keeps its contents up to the smaller of the two sizes.
///
/// @param ptr   a block of TQAllocate or TQRealloc; null makes this TQAllocate.
/// @param size  bytes. 0 does not free the block: the result is a block to be freed.
/// @return the block, perhaps at another address, which takes the place of `ptr`; null if there is
///         no memory, and `ptr` is then as it was and still the caller's.
TQ_API void* TQRealloc(void* ptr, uint64_t size);

// ---- the log -----------------------------------------------------------------------------------

/// Says which log lines are delivered, and where. After loading none are.
///
/// @param mask       the levels to deliver, a union of _tag_TQ_LOG_LEVEL bits. Each level is asked
///                   for by itself: TQ_LOG_ERROR alone brings no TQ_LOG_CRITICAL lines.
/// @param verbosity  0 or more to deliver, negative to silence everything.
/// @param callback   called for each line on the thread that logs it; null silences everything.
///
/// The three are stored one after the other. A thread that logs during a change may go by the new
/// one of them and the old other, and a callback that was replaced may still be running: it must
/// stay valid. No text is composed for a line that is not delivered.
TQ_API void TQSetLogLevel(uint32_t mask, int32_t verbosity, TQLogCallback callback);

/// Does nothing. Programs that call it can go on doing so.
TQ_API void TQHandleUsageLog(void);

// ---- counts ------------------------------------------------------------------------------------

/// @return how many objects live and how often the operating system was asked to read and write.
///
/// Each count is right by itself, but they are read one after the other while others change. After
/// TQShutdown `sessions` falls to 0 only when the last sending threads have ended, so poll for it.
/// It does not fall to 0 in a process in which a session ended with requests unanswered, or with
/// messages left in a queue: such a session is kept (<tq/messaging.h>).
TQ_API TQObjectCounts DEBUG_TQObjectCount(void);

// ---- dumps -------------------------------------------------------------------------------------
//
// A list as text: a line with its address, its entries and those of the lists inside it, each level
// indented by two blanks more, and a closing line. Values stand as name=value, with `withTypes` as
// name[PT_INT32]=value; an array is a line name=ARRAY with a line for each element below it.
// Numbers are unsigned, bytes take two hexadecimal places each, the first a blank where it would be
// 0. The format stays as it is, for those who read it with programs, and this belongs to it: each
// text and number of an array is followed by an empty line. The first entry of a list in an array
// stands on the element's line, behind its indentation; an empty line follows the last one, and
// none a list that is null or empty. Behind the bytes of an array numbers are hexadecimal, up to
// the next single binary or the next dump. An array of a list with two entries and a null one,
// and a binary of the bytes 0, 5 and 0xAB:
//
//     =====[0x5581c4e0a2b0]
//     lines=ARRAY
//       [0]=    item=bolt
//         count=12
//
//       [1]=
//     key= 0 5ab
//     =================================
//
// A damaged entry throws as in <tq/param_list.h>, with the text up to there written. A list stored
// in itself is dumped until the stack ends.

/// Dumps to std::cerr. One dump at a time, the others wait.
TQ_API void PrintHandleInfo(_tag_HTQPARAMLIST list, bool withTypes);

/// Dumps into memory.
///
/// @param destination  `size` bytes. A longer text is cut, a shorter one followed by zeros; the
///                     last byte is always zero.
/// @param size         not 0, which is not checked.
TQ_API void PrintHandleInfoToBuffer(_tag_HTQPARAMLIST list, bool withTypes, char* destination,
                                    uint32_t size);

#ifdef __cplusplus
}  // extern "C"

/// Writes the entries of a list, without the lines around a dump, to any stream, in its own locale.
///
/// The stream may be hexadecimal afterwards. A null or empty list writes nothing.
///
/// @param depth  how many levels to indent, 0 for none.
TQ_API void PrintHandleInfoRecurse(std::ostream& stream, _tag_HTQPARAMLIST list, bool withTypes,
                                   int32_t depth);
#endif

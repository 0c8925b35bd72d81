/// @file
/// Parameter lists: ordered sets of named, typed values behind reference-counted handles.
///
/// Storage. All values of a list stand in one block of memory, which is also what a peer receives.
/// A look-up walks the block from its start, and so does every store. Storing under a name
/// removes the value that had it, whatever its type, and appends the new one: the order of a list
/// is the order of last stores. A list can hold other lists, which are shared and not copied.
///
/// Ownership. A handle from TQCreateParamList, TQReferenceHandle, TQCloneHandle, TQGetHandleValue,
/// TQCall or TQCallWithFlow carries one reference that the caller owns and gives back with
/// TQCloseHandle.
/// The handle from TQGetHandleById is borrowed and must not be closed; so are handles given to
/// callbacks. A list that stores a list takes a reference of its own, and gives it up when the
/// value is replaced or removed or when it dies. The last reference destroys the list at once, on
/// the thread that gives it up.
///
/// Null. Every function here takes the null handle, TQCopyHandle as its source alone: setters and
/// removers answer TQ_ERR_FAILED, all others 0, a null pointer, an empty view or the null handle.
/// Nothing is logged.
///
/// Not checked: everything else. A null name, a handle whose list is gone, a wrong count, an entry
/// pointer that is no longer good are undefined. Names are case-sensitive bytes and may be empty.
/// A name longer than 253 bytes is not refused, but the list can no longer be read from there on.
///
/// Views. A pointer that a getter or an iterating function returns points into the block. It stays
/// good until something is stored into or removed from that list, or the list dies. A value taken
/// from a list must therefore not be the source of a store into the same list.
///
/// Lists from peers. A received list has entries that can be walked to the end; its contents are
/// otherwise as the peer sent them. It can hold two entries of one name (the first is found), and
/// list values that name no list (they read as null). In an array of strings or binaries only the
/// last offset has been looked at: from a peer that is not trusted the other pointers that
/// TQGetStringArray and TQGetBinaryArray return may point anywhere. The walk steps over names
/// without reading them, so the name of such a peer's entry may lack its NUL. Its entries need not
/// stand at multiples of 4, and then the values of an array of numbers do not either.
///
/// Threads. A list has no lock; only its reference count may be used from several threads at once.
/// Any number of threads may read a list together, but a store or a removal needs it alone. A list
/// given to TQCall, TQNotify or TQEmit is read later by another thread: it and the lists inside it
/// must not change until the message has gone out; <tq/messaging.h> says how to know. A list
/// stored in itself, directly or through others, is never freed, and sending it does not end.
/// Nothing here blocks or runs a callback.
///
/// Exceptions. A function that walks over a damaged entry throws _tag_TQPARAMVALUE::DataDamaged
/// (unknown type) or TQMemoryBufferTpl2<0>::NoDataExeption (the entry reaches beyond the block),
/// and the list stays as it was. Removing the damaged entry itself throws nothing if it only
/// reaches beyond the block: its bytes stay and are found again, but it is counted out and its
/// lists are gone. Lists that were received or built with legal names have no such entries. A store
/// for which there is no memory, or that would bring a block to 4 GiB, throws std::bad_alloc; that
/// list can then only be closed. Removing an array of lists needs memory too, and without it throws
/// std::bad_alloc and changes nothing. A C host must be built so that an exception can pass through
/// it, or else it ends the process.
#pragma once

#include <tq/export.h>
#include <tq/types.h>

#ifdef __cplusplus
extern "C" {
#endif

// ---- handles -----------------------------------------------------------------------------------

/// Makes an empty list.
///
/// @return a handle with one reference, owned by the caller; the null handle if there is no memory.
TQ_API _tag_HTQPARAMLIST TQCreateParamList(void);

/// Adds a reference.
///
/// @return `list` itself, with one more reference to be closed; null for null.
/// Threads: any, at any time at which the caller can be sure that the list lives.
TQ_API _tag_HTQPARAMLIST TQReferenceHandle(_tag_HTQPARAMLIST list);

/// Gives a reference back. The last one destroys the list and gives up the lists inside it.
///
/// @return TQ_ERR_OK, always, for null too.
/// Threads: any. Closing more often than one owns destroys a list that others use.
TQ_API _tag_TQ_ERROR TQCloseHandle(_tag_HTQPARAMLIST list);

// ---- setters -----------------------------------------------------------------------------------
//
// All return TQ_ERR_OK, or TQ_ERR_FAILED for the null handle. All copy what they are given. The
// value that had the name is removed first, and the new entry goes to the end. Pointers into the
// list are not good after the call.

/// Stores a text.
///
/// @param value  NUL-terminated; null stores the empty text.
TQ_API _tag_TQ_ERROR TQSetStringValue(_tag_HTQPARAMLIST list, const char* name, const char* value);

/// Stores 32 bits. A signed value is cast by the caller.
TQ_API _tag_TQ_ERROR TQSetInt32Value(_tag_HTQPARAMLIST list, const char* name, uint32_t value);

/// Stores 64 bits. A signed value is cast by the caller.
TQ_API _tag_TQ_ERROR TQSetInt64Value(_tag_HTQPARAMLIST list, const char* name, uint64_t value);

/// Stores bytes.
///
/// @param data  `size` bytes; may be null if `size` is 0.
TQ_API _tag_TQ_ERROR TQSetBinaryValue(_tag_HTQPARAMLIST list, const char* name, const void* data,
                                      uint32_t size);

/// Stores the bytes that a record describes, as TQSetBinaryValue does.
///
/// @param item  not null.
TQ_API _tag_TQ_ERROR TQSetBinaryItem(_tag_HTQPARAMLIST list, const char* name,
                                     const _tag_BINARYITEM* item);

/// Stores a list.
///
/// @param value  `list` takes a reference of its own; the caller keeps its own. The null handle
///               makes an entry that holds no list. It may be the very list that the entry holds.
TQ_API _tag_TQ_ERROR TQSetHandleValue(_tag_HTQPARAMLIST list, const char* name,
                                      _tag_HTQPARAMLIST value);

/// Stores `count` texts.
///
/// @param values  `count` NUL-terminated texts; a null among them is stored as the empty text. May
///                be null if `count` is 0, which stores an empty array.
TQ_API _tag_TQ_ERROR TQSetStringArray(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                                      const char* const* values);

/// Stores `count` 32-bit values.
///
/// @param values  may be null if `count` is 0, which stores an empty array.
TQ_API _tag_TQ_ERROR TQSetInt32Array(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                                     const uint32_t* values);

/// Stores `count` 64-bit values. TQGetInt64Array does not give them back; see there.
///
/// @param values  may be null if `count` is 0, which stores an empty array.
TQ_API _tag_TQ_ERROR TQSetInt64Array(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                                     const uint64_t* values);

/// Stores `count` lists, each as TQSetHandleValue does; nulls are allowed.
///
/// @param values  may be null if `count` is 0, which stores an empty array.
TQ_API _tag_TQ_ERROR TQSetHandleArray(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                                      const _tag_HTQPARAMLIST* values);

/// Stores `count` binaries from two arrays.
///
/// @param datas  `count` pointers; one may be null if its size is 0.
/// @param sizes  `count` sizes in bytes.
/// Both may be null if `count` is 0, which stores an empty array.
TQ_API _tag_TQ_ERROR TQSetBinaryArray(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                                      const void* const* datas, const uint32_t* sizes);

/// Stores `count` binaries from records; what is stored is the same as by TQSetBinaryArray.
///
/// @param items  `count` records; may be null if `count` is 0, which stores an empty array.
TQ_API _tag_TQ_ERROR TQSetBinaryItemArray(_tag_HTQPARAMLIST list, const char* name, uint32_t count,
                                          const _tag_BINARYITEM* items);

// ---- getters -----------------------------------------------------------------------------------
//
// A null handle, an absent name and a value of another type all give the same answer, named with
// each function. Nothing is converted, not even 32 bits to 64. Where the answer could also be a
// stored value, TQParamInfo tells the two apart.

/// @return the text, NUL-terminated, in the list's block; null if there is none.
TQ_API const char* TQGetStringValue(_tag_HTQPARAMLIST list, const char* name);

/// @return the value; 0 if there is none.
TQ_API uint32_t TQGetInt32Value(_tag_HTQPARAMLIST list, const char* name);

/// @return the value; 0 if there is none.
TQ_API uint64_t TQGetInt64Value(_tag_HTQPARAMLIST list, const char* name);

/// @return length and bytes, in the list's block; null if there is none.
TQ_API const _tag_BINARYVALUE* TQGetBinaryValue(_tag_HTQPARAMLIST list, const char* name);

/// Gives a nested list with a reference for the caller.
///
/// @return a handle to be closed with TQCloseHandle, which outlives the value it was read from;
///         the null handle if there is none or the value holds no list.
TQ_API _tag_HTQPARAMLIST TQGetHandleValue(_tag_HTQPARAMLIST list, const char* name);

/// Gives pointers to texts of an array.
///
/// @param out      room for `maximum` pointers; each written one points into the list's block.
/// @param maximum  the most pointers to write.
/// @param first    index of the first text to give, from 0.
/// @return how many were written: 0 if there is no such array, if `maximum` is 0 or if `first` is
///         not below the array's count. The rest of `out` is untouched.
TQ_API uint32_t TQGetStringArray(_tag_HTQPARAMLIST list, const char* name, const char** out,
                                 uint32_t maximum, uint32_t first);

/// Gives pointers to items of an array of binaries; arguments and result as for TQGetStringArray.
TQ_API uint32_t TQGetBinaryArray(_tag_HTQPARAMLIST list, const char* name,
                                 const _tag_BINARYVALUE** out, uint32_t maximum, uint32_t first);

/// @return count and address of the values in the list's block; count 0 and null if there is no
///         such array.
TQ_API _tag_TQDWORDARRAY TQGetInt32Array(_tag_HTQPARAMLIST list, const char* name);

/// Tests for an array of 32-bit values, exactly as TQGetInt32Array does.
///
/// So it gives count 0 and null for what TQSetInt64Array stored. For an array of 32-bit values it
/// gives their count and address under a type that announces 64 bits: reading `count` elements of
/// that would read beyond the value. Callers rely on this, and it stays so. The values of an array
/// of 64-bit ones are reached through TQParamInfo: the value's payload is their count, then they.
TQ_API _tag_TQQWORDARRAY TQGetInt64Array(_tag_HTQPARAMLIST list, const char* name);

/// Gives the indices of an array of lists.
///
/// @return count and address of indices for TQGetHandleById, in the list's block; NO_HANDLE_INDEX
///         among them stands for no list. Count 0 and null if there is no such array.
TQ_API _tag_TQDWORDARRAY TQGetHandleArray(_tag_HTQPARAMLIST list, const char* name);

// ---- the list as a whole -----------------------------------------------------------------------

/// @return the number of entries; 0 for null.
TQ_API uint32_t TQGetParamCount(_tag_HTQPARAMLIST list);

/// @return the bytes of the list's own entries, without the lists inside it; 0 for null.
TQ_API uint32_t TQGetHandleSize(_tag_HTQPARAMLIST list);

/// @return the first entry; null for null or for an empty list.
TQ_API const _tag_TQPARAMINFO* TQGetFirstParam(_tag_HTQPARAMLIST list);

/// Steps to the next entry.
///
/// @param info  an entry of this list; null gives null.
/// @return the entry behind it; null at the end.
/// Throws DataDamaged or NoDataExeption if `info` is damaged.
TQ_API const _tag_TQPARAMINFO* TQGetNextParam(_tag_HTQPARAMLIST list, const _tag_TQPARAMINFO* info);

/// Finds an entry by its place, walking from the first.
///
/// @param index  from 0, in the order of the list.
/// @return the entry; null for null or for an index not below the number of entries.
TQ_API const _tag_TQPARAMINFO* TQParamByIndex(_tag_HTQPARAMLIST list, uint32_t index);

/// Finds an entry by its name, whatever its type.
///
/// @return the entry, whose Value() tells the type; null if there is none.
TQ_API const _tag_TQPARAMINFO* TQParamInfo(_tag_HTQPARAMLIST list, const char* name);

/// Gives a nested list by the index that a list value holds, without a reference.
///
/// @param index  from TQGetHandleArray or from the payload of a list value. Removing or replacing
///               a list value renumbers the others.
/// @return a borrowed handle, good while the entry that holds it stays in `list`: closing it would
///         take the list's own reference. The null handle if no list has that index.
TQ_API _tag_HTQPARAMLIST TQGetHandleById(_tag_HTQPARAMLIST list, uint32_t index);

// ---- removal -----------------------------------------------------------------------------------

/// Removes the value of that name. The others keep their order.
///
/// @return TQ_ERR_OK, also if there was none; TQ_ERR_FAILED for null.
TQ_API _tag_TQ_ERROR TQRemoveValue(_tag_HTQPARAMLIST list, const char* name);

/// Removes an entry, for loops that remove as they go.
///
/// @param info  an entry of this list, not null. Only the first entry of its name can be removed:
///              for a second one, possible only in a list from a peer, nothing happens.
/// @return the entry that now stands in its place; null if it was the last, if nothing was removed,
///         or for a null list.
TQ_API const _tag_TQPARAMINFO* TQRemoveParamByInfo(_tag_HTQPARAMLIST list,
                                                   const _tag_TQPARAMINFO* info);

/// Empties the list. It keeps its memory for the next values.
///
/// @return TQ_ERR_OK; TQ_ERR_FAILED for null.
TQ_API _tag_TQ_ERROR TQRemoveAllValues(_tag_HTQPARAMLIST list);

// ---- copying -----------------------------------------------------------------------------------
//
// Both share the nested lists, with new references, and copy none of them.

/// Makes a list with the same entries in the same order, down to the byte.
///
/// @return a handle with one reference, owned by the caller; the null handle for null, or if there
///         is no memory for the list.
/// Throws DataDamaged or NoDataExeption for a damaged list; the memory of the new one is then lost.
TQ_API _tag_HTQPARAMLIST TQCloneHandle(_tag_HTQPARAMLIST source);

/// Stores every value of `source` in `destination` under its name. A value that had the name there
/// is replaced; the others stay ahead of the new ones.
///
/// @param source       null or an empty list copies nothing. It must not be `destination`.
/// @param destination  not null, unless nothing is copied.
/// @return TQ_ERR_OK, always.
/// Throws DataDamaged or NoDataExeption at a damaged entry of `source`; what came before it has
/// been stored.
///
/// Of an array of n lists the first n lists that `source` holds are stored, whatever the array
/// names: these are its own if it is the only value with lists. Callers rely on this, and it stays
/// so.
///
/// Not checked, and undefined: a list value that names no list, as TQSetHandleValue makes it from
/// null and as a peer can send it, and an array of more lists than `source` holds in all. Lists
/// from a peer that is not trusted are cloned and not copied.
TQ_API _tag_TQ_ERROR TQCopyHandle(_tag_HTQPARAMLIST source, _tag_HTQPARAMLIST destination);

#ifdef __cplusplus
}  // extern "C"
#endif

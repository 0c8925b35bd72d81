/// @file
/// TQ::ParamListHolder, an object that owns one reference to a list. C++ only.
///
/// A holder is as wide as a handle and behaves like a shared pointer: copying it shares the list,
/// its destruction gives the reference back. Its members are the functions of <tq/param_list.h>
/// without the handle, and everything said there holds: what a name is, when views end, what is not
/// checked, what is thrown, which thread may do what. A holder that owns nothing is called empty;
/// its getters give the not-available answers, its setters TQ_ERR_FAILED.
///
///     HTQPARAMLIST params = TQCreateParamList();
///     auto order = TQ::ParamListHolder::FromRefHandle(params);  // closes it
///     order.SetString("item", "bolt");
///     order.SetInt32("count", 12);
///     for (const _tag_TQPARAMINFO& entry : order) std::puts(entry.name);
///     auto reply = TQ::ParamListHolder::FromRefHandle(TQCall(peer, 7, params));
///     std::printf("%u\n", reply.GetInt32("price"));
///
/// Handles go into a holder and none comes out of it: the handle of a list that flat functions are
/// to take is kept beside the holder, as above, and is borrowed for as long as that lives. A nested
/// list that is to be dumped or sent is taken with TQGetHandleValue from the handle of the outer
/// one, and closed with TQCloseHandle; GetHandle gives it as a holder.
///
/// Threads: a holder has no lock. Several threads may use its const members together, as they may
/// read its list; all other members need both alone.
#pragma once

#include <tq/export.h>
#include <tq/types.h>

#include <cstddef>
#include <cstdint>
#include <iterator>

namespace TQ {

class TQ_API ParamListHolder {
 public:
  /// Walks the entries of a list in their order, as a forward iterator of the standard library.
  ///
  /// It is good until something is stored into or removed from the list. All end positions are
  /// equal, and equal iterators stand on the same entry. Stepping throws as TQGetNextParam does.
  class param_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = _tag_TQPARAMINFO;
    using difference_type = std::ptrdiff_t;
    using pointer = const value_type*;
    using reference = const value_type&;

    const ParamListHolder* holder = nullptr;  ///< the holder that made it, which must outlive it
    const _tag_TQPARAMINFO* info = nullptr;   ///< the entry; null at the end

    const _tag_TQPARAMINFO& operator*() const { return *info; }
    const _tag_TQPARAMINFO* operator->() const { return info; }
    param_iterator& operator++() {
      info = holder->GetNext(info);
      return *this;
    }
    param_iterator operator++(int) {
      param_iterator old = *this;
      ++*this;
      return old;
    }
    bool operator==(const param_iterator& other) const { return info == other.info; }
    bool operator!=(const param_iterator& other) const { return info != other.info; }
  };

  // ---- the reference ---------------------------------------------------------------------------

  /// Owns nothing.
  ParamListHolder();

  /// Shares the list.
  ParamListHolder(const ParamListHolder& other);

  // No function here is noexcept, since exceptions of the library pass through all of them.
  // NOLINTBEGIN(performance-noexcept-move-constructor)

  /// Takes the list over; `other` is empty after it.
  ParamListHolder(ParamListHolder&& other);

  /// Gives the reference back.
  ~ParamListHolder();

  /// Shares the list of `other` and then gives the former one back.
  ParamListHolder& operator=(const ParamListHolder& other);

  /// Exchanges the two lists: the former one is not given back but goes to `other`.
  ParamListHolder& operator=(ParamListHolder&& other);

  // NOLINTEND(performance-noexcept-move-constructor)

  void swap(ParamListHolder& other);
  static void swap(ParamListHolder& a, ParamListHolder& b);

  /// Whether the holder is empty.
  bool operator!() const;

  /// On the library's private heap. Null, and no construction, when there is no memory.
  static void* operator new(std::size_t size) noexcept;
  static void operator delete(void* ptr);

  /// A holder with a reference of its own; the caller keeps the caller's.
  static ParamListHolder FromHandle(_tag_HTQPARAMLIST handle);

  /// A holder that takes over the caller's reference.
  static ParamListHolder FromRefHandle(_tag_HTQPARAMLIST handle);

  /// Gives the list back and makes a new, empty one.
  ///
  /// @return false if there is no memory; the holder is then empty.
  bool NewList();

  /// Gives the list back; the holder is then empty. RemoveAll keeps the list and empties that.
  ///
  /// @return true, always.
  bool ClearList();

  /// TQCloneHandle.
  ParamListHolder Clone() const;

  /// TQCopyHandle from `other` into this list, with its limits; an empty holder gets a new list
  /// first.
  ///
  /// @return true if it copied; false if `other` is empty or both hold the same list.
  bool CopyDataFrom(ParamListHolder& other);

  /// TQCopyHandle from this list into that of `other`, which gets a new one first if it is empty.
  ///
  /// @return false, whether it copied or, since this is empty or both hold the same list, did not.
  ///         Callers rely on the answer, and it stays so.
  bool CopyDataTo(ParamListHolder& other);

  // ---- queries ---------------------------------------------------------------------------------

  /// Whether there is a value of that name.
  bool Exists(const char* name) const;

  uint32_t GetCount() const;  ///< TQGetParamCount
  uint32_t GetSize() const;   ///< TQGetHandleSize, in bytes

  /// Whether there are no entries, or no list.
  bool empty() const;

  const _tag_TQPARAMINFO* GetFirst() const;                             ///< TQGetFirstParam
  const _tag_TQPARAMINFO* GetNext(const _tag_TQPARAMINFO* info) const;  ///< TQGetNextParam
  const _tag_TQPARAMINFO* GetInfo(const char* name) const;              ///< TQParamInfo

  /// @return the type of that value, for an array with PT_ARRAY_FLAG; PT_UNKNOWN if there is none.
  _tag_PARAM_TYPES GetType(const char* name) const;

  /// @return the type of the array's elements; PT_UNKNOWN if there is no array of that name.
  _tag_PARAM_TYPES GetArrayType(const char* name) const;

  /// @return the number of the array's elements; 0 if there is no array of that name.
  uint32_t GetArraySize(const char* name) const;

  // ---- getters ---------------------------------------------------------------------------------
  //
  // The answers for what is not available are those of the flat functions.

  const char* GetString(const char* name) const;              ///< TQGetStringValue
  uint32_t GetInt32(const char* name) const;                  ///< TQGetInt32Value
  uint64_t GetInt64(const char* name) const;                  ///< TQGetInt64Value
  const _tag_BINARYVALUE* GetBinary(const char* name) const;  ///< TQGetBinaryValue

  /// TQGetStringArray
  uint32_t GetStringArray(const char* name, const char** out, uint32_t maximum,
                          uint32_t first) const;
  /// TQGetBinaryArray
  uint32_t GetBinaryArray(const char* name, const _tag_BINARYVALUE** out, uint32_t maximum,
                          uint32_t first) const;

  _tag_TQDWORDARRAY GetInt32Array(const char* name) const;  ///< TQGetInt32Array
  _tag_TQQWORDARRAY GetInt64Array(const char* name) const;  ///< TQGetInt64Array, with its trap

  /// TQGetHandleValue, with the reference in the result.
  ParamListHolder GetHandle(const char* name) const;

  // One element of an array, by its index from 0. An index not below the array's size, another
  // type and an absent name give 0 or null.

  const char* GetString(const char* name, uint32_t index) const;
  const _tag_BINARYVALUE* GetBinary(const char* name, uint32_t index) const;
  uint32_t GetInt32(const char* name, uint32_t index) const;

  /// The 32-bit word number `index` of an array of 64-bit values: index 0 is the low half of
  /// element 0 and index 1 its high half. The index is held against the number of elements, so the
  /// second half of the array is out of reach. Callers rely on this, and it stays so; read the
  /// elements through GetInfo.
  uint64_t GetInt64(const char* name, uint32_t index) const;

  ParamListHolder GetHandle(const char* name, uint32_t index) const;

  /// TQGetHandleById, with a reference in the result. A negative id names no list.
  /// GetHandle(0) is this one.
  ParamListHolder GetHandle(int id) const;

  /// Fills borrowed handles of an array of lists, which must not be closed.
  ///
  /// @param out      room for `maximum` handles; null where an element holds no list.
  /// @param maximum  the most handles to write.
  /// @param first    index of the first element to give, from 0.
  /// @return how many were written; 0 if there is no such array.
  uint32_t GetHandleArray(const char* name, _tag_HTQPARAMLIST* out, uint32_t maximum,
                          uint32_t first) const;

  /// The same into holders, each of which shares the list and gives back what it held.
  uint32_t GetHandleArray(const char* name, ParamListHolder* out, uint32_t maximum,
                          uint32_t first) const;

  // ---- setters ---------------------------------------------------------------------------------

  _tag_TQ_ERROR SetString(const char* name, const char* value);                ///< TQSetStringValue
  _tag_TQ_ERROR SetInt32(const char* name, uint32_t value);                    ///< TQSetInt32Value
  _tag_TQ_ERROR SetInt64(const char* name, uint64_t value);                    ///< TQSetInt64Value
  _tag_TQ_ERROR SetBinary(const char* name, const void* data, uint32_t size);  ///< TQSetBinaryValue
  _tag_TQ_ERROR SetHandle(const char* name, const ParamListHolder& value);     ///< TQSetHandleValue

  /// TQSetStringArray
  _tag_TQ_ERROR SetStringArray(const char* name, uint32_t count, const char* const* values);
  /// TQSetInt32Array
  _tag_TQ_ERROR SetInt32Array(const char* name, uint32_t count, const uint32_t* values);
  /// TQSetInt64Array
  _tag_TQ_ERROR SetInt64Array(const char* name, uint32_t count, const uint64_t* values);
  /// TQSetBinaryArray
  _tag_TQ_ERROR SetBinaryArray(const char* name, uint32_t count, const void* const* datas,
                               const uint32_t* sizes);
  /// TQSetBinaryItemArray
  _tag_TQ_ERROR SetBinaryArray(const char* name, uint32_t count, const _tag_BINARYITEM* items);
  /// TQSetHandleArray
  _tag_TQ_ERROR SetHandleArray(const char* name, uint32_t count, const _tag_HTQPARAMLIST* values);
  /// TQSetHandleArray
  _tag_TQ_ERROR SetHandleArray(const char* name, uint32_t count, const ParamListHolder* values);

  // ---- removal and iteration -------------------------------------------------------------------

  _tag_TQ_ERROR Remove(const char* name);  ///< TQRemoveValue
  _tag_TQ_ERROR RemoveAll();               ///< TQRemoveAllValues

  param_iterator begin() const;
  param_iterator end() const;

  /// @return the entry of that name; end() if there is none.
  param_iterator find(const char* name) const;

  /// Removes an entry, for loops that remove as they go.
  ///
  /// @param position  of this holder or of another one that holds the same list. Of several entries
  ///                  of one name, possible only in a list from a peer, only the first is removed.
  /// @return the entry that now stands in its place; end() if it was the last or nothing was
  ///         removed.
  param_iterator erase(param_iterator position);

  /// @return 1 if a value of that name was removed, else 0.
  uint32_t erase(const char* name);

 private:
  // NOLINTNEXTLINE(google-explicit-constructor): used by the factories alone
  ParamListHolder(_tag_HTQPARAMLIST handle);
  ParamListHolder& operator=(const _tag_HTQPARAMLIST& other);

  _tag_HTQPARAMLIST handle;
};

static_assert(sizeof(ParamListHolder) == 8, "an array of holders reads as one of handles");
static_assert(sizeof(ParamListHolder::param_iterator) == 16, "a holder and an entry");

}  // namespace TQ

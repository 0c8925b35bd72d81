/// @file
/// TQMemoryBufferTpl2, the growing block behind a parameter list. C++ only.
///
/// A host has the exception type from here and nothing else. The block itself is the base of the
/// library's list class; it cannot be made by a host, and its operations are not exported. They
/// stand here because a class has one definition.
#pragma once

#include <tq/export.h>

#include <cstdint>

struct ITransportChannel;

/// The only instance is N = 0.
template <unsigned N>
class TQMemoryBufferTpl2 {
 public:
  /// Thrown as TQMemoryBufferTpl2<0>::NoDataExeption by the functions of <tq/param_list.h> when an
  /// entry reaches beyond the end of its list's block. It carries nothing and has no base class.
  struct TQ_API NoDataExeption {};

  TQMemoryBufferTpl2(const TQMemoryBufferTpl2&) = delete;
  TQMemoryBufferTpl2& operator=(const TQMemoryBufferTpl2&) = delete;

 protected:
  TQMemoryBufferTpl2() = default;

  /// Frees nothing: the list that derives from it gives the block back.
  ~TQMemoryBufferTpl2() = default;

  /// Appends the head of an entry: the offset byte, the name, zeros, and `type` as the last byte of
  /// a multiple of 4.
  void AppendName(const char* name, uint8_t type);

  /// The same for a name whose length is known.
  void AppendName(const char* name, uint64_t nameLength, uint8_t type);

  /// Appends `length` bytes, then zeros up to a multiple of 4.
  void AppendAligned(const void* source, uint32_t length);

  /// Appends 4 bytes, little-endian.
  void AppendDword(uint32_t value);

  /// Grows by `count` bytes and reads exactly as many from the channel. If the read fails `size`
  /// stays as it was, and the room remains. Returns what the channel returns, negative for a
  /// failure, also for one to grow.
  int32_t AppendFromChannel(ITransportChannel& channel, uint32_t count);

  /// Writes the block in one go, and then the 8 bytes that announce the next block. Returns the
  /// bytes written, negative for a failure.
  int32_t WriteWithDescriptor(ITransportChannel& channel, uint32_t nextSize,
                              uint32_t nextCount) const;

  /// Makes room for exactly `byteCount` more bytes and returns the place where they begin; `size`
  /// stays. Pointers into the block are not good after it. Throws std::bad_alloc.
  uint8_t* Grow(uint32_t byteCount);

  /// The bytes from `position` on. Throws NoDataExeption unless `byteCount` of them are in use.
  uint8_t* At(uint32_t position, uint32_t byteCount);

  uint32_t size = 0;        ///< bytes in use
  uint32_t capacity = 0;    ///< bytes allocated
  uint8_t* data = nullptr;  ///< on the private heap; null until something is appended
};

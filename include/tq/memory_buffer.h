/// @file
/// The growing byte block of a parameter list. C++ only; hosts have only its exception type.
#pragma once

#include <cstdint>

#include <tq/export.h>

struct ITransportChannel;

template <unsigned N>
class TQMemoryBufferTpl2 {
public:
  /// Thrown when a walk steps beyond the block, or a position beyond it is addressed.
  struct TQ_API NoDataExeption {};

  TQMemoryBufferTpl2(const TQMemoryBufferTpl2&) = delete;
  TQMemoryBufferTpl2& operator=(const TQMemoryBufferTpl2&) = delete;

protected:
  TQMemoryBufferTpl2() = default;
  ~TQMemoryBufferTpl2() = default;

  void AppendName(const char* name, uint8_t type);
  void AppendAligned(const void* source, uint32_t length);
  void AppendDword(uint32_t value);
  int32_t AppendFromChannel(ITransportChannel& channel, uint32_t count);
  int32_t WriteWithDescriptor(ITransportChannel& channel, uint32_t nextSize,
                              uint32_t nextCount) const;
  uint8_t* Grow(uint32_t byteCount);
  uint8_t* At(uint32_t position, uint32_t byteCount);

  uint32_t size = 0;
  uint32_t capacity = 0;
  uint8_t* data = nullptr;
};

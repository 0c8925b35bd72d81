#include "frame/settings.h"

#include <algorithm>

namespace TQ::detail {
namespace {

std::array<uint32_t, LimitSettings::LIMIT_COUNT> LimitsOf(const _tag_TQLIMITS& record) {
  return {record.MAX_CONNECTIONS,  record.RESERVED_LIMIT_2, record.MAX_READ_SIZE,
          record.RESERVED_LIMIT_4, record.RESERVED_LIMIT_5, record.RESERVED_LIMIT_6,
          record.RESERVED_LIMIT_7, record.IO_TIMEOUT_MS};
}

AuthBlock BlockOf(const _tag_TQLIMITS& record) {
  AuthBlock block;
  std::copy(std::begin(record.authBlock), std::end(record.authBlock), block.begin());
  return block;
}

}  // namespace

LimitSettings::LimitSettings(const _tag_TQLIMITS& record) : authBlock(BlockOf(record)) {
  const auto values = LimitsOf(record);
  for (uint32_t i = 0; i < LIMIT_COUNT; ++i) words[i].store(values[i], std::memory_order_relaxed);
}

AuthBlock LimitSettings::CopyAuthBlock() const {
  LockScope held(blockLock);
  return authBlock;
}

void LimitSettings::SetAuthBlock(const AuthBlock& block) {
  LockScope held(blockLock);
  authBlock = block;
}

void LimitSettings::CopyFrom(const LimitSettings& other) {
  for (uint32_t i = 0; i < LIMIT_COUNT; ++i) {
    words[i].store(other.Load(i), std::memory_order_relaxed);
  }
  SetAuthBlock(other.CopyAuthBlock());
}

void LimitSettings::Override(const _tag_TQLIMITS& record) {
  const auto values = LimitsOf(record);
  for (uint32_t i = 0; i < LIMIT_COUNT; ++i) {
    if (values[i] != 0) words[i].store(values[i], std::memory_order_relaxed);
  }
  SetAuthBlock(BlockOf(record));
}

_tag_TQLIMITS LimitSettings::Snapshot() const {
  _tag_TQLIMITS record = {sizeof(_tag_TQLIMITS),
                          Load(0),
                          Load(1),
                          Load(2),
                          Load(3),
                          Load(4),
                          Load(5),
                          Load(6),
                          Load(7),
                          {}};
  const AuthBlock block = CopyAuthBlock();
  std::copy(block.begin(), block.end(), record.authBlock);
  return record;
}

std::string GuardedText::Copy() const {
  LockScope held(lock);
  return value;
}

void GuardedText::Set(std::string text) {
  LockScope held(lock);
  value.swap(text);  // the memory of the old text goes with the argument
}

std::string ComposeApplicationName(const std::string& hostName, int32_t port, const char* name) {
  return hostName + ":" + std::to_string(port) + "/" + name;
}

}  // namespace TQ::detail

using namespace TQ::detail;

_tag_TQ_ERROR TQSetAuthenticationInfo(const uint8_t* data, int32_t length) {
  if (length > static_cast<int32_t>(AUTH_BLOCK_SIZE)) return TQ_ERR_FAILED;
  AuthBlock block{};
  // Intended: a negative length is no error and clears the block, as hosts have come to rely on.
  if (length > 0) std::copy_n(data, length, block.begin());
  defaultLimits.SetAuthBlock(block);
  limits.SetAuthBlock(block);
  return TQ_ERR_OK;
}

_tag_TQ_ERROR TQSetConnectListener(TQConnectListener listener) {
  g_connectListener.store(listener, std::memory_order_relaxed);
  return TQ_ERR_OK;
}

_tag_TQ_ERROR TQSetDisconnectListener(TQDisconnectListener listener) {
  g_disconnectListener.store(listener, std::memory_order_relaxed);
  return TQ_ERR_OK;
}

_tag_TQ_ERROR TQSetAuthFailedListener(TQAuthFailedListener listener) {
  g_authFailedListener.store(listener, std::memory_order_relaxed);
  return TQ_ERR_OK;
}

_tag_TQ_ERROR TQSetUnknownConnectListener(TQUnknownConnectListener listener) {
  g_unknownConnectListener.store(listener, std::memory_order_relaxed);
  return TQ_ERR_OK;
}

// Every fixed layout between two admitted peers. All words are little-endian, 32 bits wide.
//
// Head of a call or a notification, 20 bytes      Head of a reply, 16 bytes
//    0  request id                                   0  request id of the call
//    4  kind (1 or 3)                                4  kind (2)
//    8  slot id                                      8  size of the first block
//   12  size of the first block                     12  handle count of the first list
//   16  handle count of the first list
//
// The list tree follows at once: each block as it stands, and between two blocks a descriptor of
// the next one. A reader takes 16 bytes first, which is all of a reply's head.
#pragma once

#include <cstdint>

namespace TQ::detail {

/// The kinds of frame. Any other number is a fault that ends the session.
enum MessageKind : uint32_t {
  MSG_CALL = 1,    ///< a request that wants a reply
  MSG_REPLY = 2,   ///< the reply to a MSG_CALL
  MSG_NOTIFY = 3,  ///< one-way
};

constexpr uint32_t FIRST_HEAD_SIZE = 16;    ///< what a reader takes before it knows the kind
constexpr uint32_t REQUEST_HEAD_SIZE = 20;  ///< of a call or a notification
constexpr uint32_t REPLY_HEAD_SIZE = 16;

constexpr uint32_t HEAD_REQUEST_ID = 0;
constexpr uint32_t HEAD_KIND = 4;
constexpr uint32_t HEAD_TAIL = 8;  ///< where the words begin that differ by kind

constexpr uint32_t DESCRIPTOR_SIZE = 8;
constexpr uint32_t DESCRIPTOR_BLOCK_SIZE = 0;
constexpr uint32_t DESCRIPTOR_HANDLE_COUNT = 4;

/// The slots that the library itself serves.
constexpr uint32_t CONNECT_SIGNAL_SLOT = 0xFFFFFFFF;
constexpr uint32_t DISCONNECT_SIGNAL_SLOT = 0xFFFFFFFE;

/// The slot id of an inbound request whose head has not been parsed yet. It is the number of
/// CONNECT_SIGNAL_SLOT, and means no such call: a message whose head cannot be read is never
/// dispatched.
constexpr uint32_t UNKNOWN_SLOT = 0xFFFFFFFF;

}  // namespace TQ::detail

// The common interface of the compared libraries. Each is used as its documentation recommends;
// what it lets a user keep from message to message (builders, buffers) is kept.
#pragma once

#include "content.h"
#include "memory_pipe.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace TQ::bench {

/// One kind of message in one library: the one that was built and the one that was received.
class Message {
 public:
  virtual ~Message() = default;

  /// Makes the message, in place of the one before.
  virtual void Build() = 0;

  /// Puts the built message on the pipe. It can be put on again.
  virtual void Send(MemoryPipe& pipe) = 0;

  /// Takes a message off the pipe, in place of the one before.
  virtual void Receive(MemoryPipe& pipe) = 0;

  /// Reads every value of the received message.
  virtual uint64_t Read() = 0;

  /// Gives up both messages, but not what the next ones can use again.
  virtual void Drop() = 0;
};

enum class Shape {
  ORDER,     ///< the eight values
  NESTED,    ///< the eight values in a list in a list in a list
  INTEGERS,  ///< an array of integers
  TEXTS,     ///< an array of strings: the names
  VALUES,    ///< one integer under each of the names
};

/// What tells readers of the tables how a value is found.
enum class Access {
  BY_NAME,    ///< the message tells its names, and values are found by name at run time
  BY_SCHEMA,  ///< the names are compiled into accessors, and both sides need the schema
};

struct Library {
  const char* name;
  Access access;
  /// A message of that shape over `content`, or null where the library has none of that shape.
  std::unique_ptr<Message> (*make)(Shape shape, const ManyContent& content);
};

// Each in the file of its name.
Library TqLibrary();
Library TqReusedLibrary();
Library ProtobufLibrary();
Library ProtobufReusedLibrary();
Library CapnpLibrary();
Library MsgpackLibrary();
Library JsonLibrary();
Library CborLibrary();
Library GVariantLibrary();
Library FlexBuffersLibrary();

}  // namespace TQ::bench

// The door to the operating system's sockets: IPv4 only.
//
// The operations carry the shapes that the transport's algorithms need, so that those read the same
// on every platform. They call the system and translate its errors; retries, deadlines and logging
// live above.
//
// Threads: every operation may be called from any thread. One socket may be read by one thread and
// written by another at the same time; closing it while a thread uses it is the caller's error.
// Signals: an interrupted call is retried here with the time that remains, so that a signal of the
// host never looks like a failure. No operation raises a signal in the host or changes what its
// signals do.
#pragma once

#include <cstddef>
#include <cstdint>

namespace TQ::platform {

/// A native socket handle, in the form in which it is printed.
using SocketHandle = std::intptr_t;

/// What an operation that makes a socket gives when it fails.
constexpr SocketHandle NO_SOCKET = -1;

/// The address family of IPv4, as it stands in an address.
constexpr uint16_t ADDRESS_FAMILY_IPV4 = 2;

/// Bytes of an IPv4 socket address: family (2, host order), port (2, network order), address (4,
/// network order), 8 zero bytes.
constexpr uint32_t SOCKET_ADDRESS_SIZE = 16;

/// Bytes of the address area that is handed to BindSocket and ConnectSocket.
constexpr uint32_t SOCKET_ADDRESS_AREA_SIZE = 128;

/// Room for the text of an IPv4 address with its terminator.
constexpr uint32_t ADDRESS_TEXT_SIZE = 22;

/// The outcome of a transfer.
struct TransferResult {
  int32_t count;  ///< bytes moved; negative when the call failed
  int32_t error;  ///< the system's code for the failure, else 0
};

/// The code of a call that would have had to wait. It is the number that log lines show.
extern const int32_t WOULD_BLOCK;

/// Which of the sockets a wait found ready.
struct WaitResult {
  int32_t count;     ///< how many are ready, 0 when the time ran out, negative on failure
  bool firstReady;   ///< the first socket
  bool secondReady;  ///< the second socket, where there is one
  int32_t error;     ///< the system's code for the failure, else 0
};

/// A time limit in microseconds; NO_TIME_LIMIT waits for as long as it takes.
constexpr int64_t NO_TIME_LIMIT = -1;

/// Starts the sockets library of the process. Calls are counted where the platform counts them.
void StartSockets();

/// Undoes one StartSockets.
void StopSockets();

/// Writes the machine's name into `buffer`, terminated even when it had to be cut.
bool GetHostName(char* buffer, uint32_t bufferSize);

/// A stream socket that no child process inherits, blocking, with no option set.
SocketHandle CreateStreamSocket();

/// A datagram socket that no child process inherits, blocking, with no option set.
SocketHandle CreateDatagramSocket();

void CloseSocket(SocketHandle socket);

// The options report nothing: no caller could do better without them.
void SetNonBlocking(SocketHandle socket);
void SetNoDelay(SocketHandle socket);
void SetReceiveBufferSize(SocketHandle socket, uint32_t sizeBytes);
void SetSendBufferSize(SocketHandle socket, uint32_t sizeBytes);

/// Binds to the address at `address`, of which `addressSize` bytes are handed to the system.
bool BindSocket(SocketHandle socket, const uint8_t* address, uint32_t addressSize);

bool ListenOnSocket(SocketHandle socket, int32_t backlog);

/// Takes a connection from a listening socket and writes the peer's address (16 bytes). The new
/// socket is blocking, whatever the listening one is, and no child process inherits it.
SocketHandle AcceptConnection(SocketHandle listener, uint8_t* peerAddress);

/// Starts a connection. A negative count with the error WOULD_BLOCK means that it is under way.
TransferResult ConnectSocket(SocketHandle socket, const uint8_t* address, uint32_t addressSize);

/// The address of the socket's peer, 16 bytes; false when there is none.
bool GetPeerAddress(SocketHandle socket, uint8_t* address);

/// The socket's own address, 16 bytes, with its length as the system reported it.
bool GetLocalAddress(SocketHandle socket, uint8_t* address, int32_t* addressLength);

/// Reads at most `length` bytes. A count of 0 means that the peer has closed.
TransferResult ReceiveBytes(SocketHandle socket, void* buffer, uint32_t length);

/// Writes at most `length` bytes.
TransferResult SendBytes(SocketHandle socket, const void* buffer, uint32_t length);

/// Sends one datagram on a connected datagram socket, past any routing table.
TransferResult SendDatagramDirect(SocketHandle socket, const void* buffer, uint32_t length);

/// Reads one datagram of at most `length` bytes with its sender's address (16 bytes).
TransferResult ReceiveDatagram(SocketHandle socket, void* buffer, uint32_t length,
                               uint8_t* senderAddress, int32_t* senderLength);

/// Waits until `first`, or `second` where it is not NO_SOCKET, can be read without blocking. A
/// closed or failed connection counts as readable.
WaitResult WaitReadable(SocketHandle first, SocketHandle second, int64_t limitMicroseconds);

/// Waits until `socket` can be written without blocking. A failed connection counts as writable.
WaitResult WaitWritable(SocketHandle socket, int64_t limitMicroseconds);

/// Writes the 4 address bytes of a dotted IPv4 text; false, with nothing written, for any other.
bool ParseAddressText(const char* text, uint8_t* addressBytes);

/// Writes the dotted text of 4 address bytes into ADDRESS_TEXT_SIZE characters.
void FormatAddressText(const uint8_t* addressBytes, char* text);

}  // namespace TQ::platform

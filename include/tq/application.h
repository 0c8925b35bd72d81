/// @file
/// The life of this process as an application, its settings, and connections to peers.
///
/// Order. TQInitialize gives this process its name and starts the library's threads, but admits
/// nobody. The host registers its slots and signals and installs its listeners, and then calls
/// TQConnectionReady (or TQStartListeners), from where on peers are admitted. TQConnect reaches out
/// to a peer; it does not matter which of the two sides connected. TQShutdown ends all of it.
///
/// Names. An application is known by one text, "host:port/name": the machine's host name, the port
/// given at initialisation in decimal and the name chosen there. That text addresses a peer at
/// every call; a caller never holds anything of the session itself. Names are compared byte for
/// byte. A name that travels has at most 255 bytes: a longer one is not refused here, but by every
/// peer. The chosen name should hold no "/", which would cut it short for the peers' listeners.
///
/// Hosts. The text that says where to listen and whom to connect to has two forms. One that begins
/// with a backslash names a pipe, for peers on the same machine: "\\orders" in C source names the
/// pipe `orders`. Any other text is a dotted IPv4 address and goes with a port. Host names are not
/// resolved, and there is no IPv6. A process can listen on both; see TQStartListeners.
///
/// Pipes. Further backslashes before the name mean nothing; the rest of it is compared byte for
/// byte on Linux, upper and lower case told apart. There a name belongs to one process of the
/// machine (of its network namespace) at a time. A second one that listens under it is not told: it
/// waits, and may get the name between two peers of the first. The two then share the callers, each
/// of which reaches one or the other. Each side asks that the other run
/// under its own user or as root, so peers are processes of one user; anyone else finds nobody
/// there. Root must not try the pipe of another user: that listener lets it in, is turned away
/// from, and waits for its second pipe for good. Writes to a pipe have no time limit: a peer that
/// stops reading holds the session's sending thread up for as long as it stays connected.
///
/// Trust. The side that connects proves that it knows the accepting side's 256-byte authentication
/// block, without sending it. The accepting side proves nothing, so a caller of TQConnect talks to
/// whatever answers at that address. Names are claims, not proofs: a peer that knows the block may
/// give any name. Nothing that is sent is encrypted or protected against change.
///
/// Pointers passed in are used for the call only. Arguments are not checked beyond what is told
/// with each function; a null text is undefined unless it is said to be allowed.
///
/// Threads. Any thread may call any function here, except where told. A process has two listener
/// threads and one dispatcher thread, which runs all slot callbacks, between the first TQInitialize
/// and the last TQShutdown, and each session has a receiving and a sending thread.
///
/// Exceptions. Functions that start or join threads can throw std::system_error, and functions that
/// need memory of the process heap std::bad_alloc. Both pass through to the caller. A C host must
/// be built so that an exception can pass through it, or else it ends the process. A thread of the
/// library has no caller: where one of them runs into such an error, above all where the socket
/// listener cannot make the two threads of a peer that it has accepted, the process ends.
///
/// Unloading. A process that unloads the library, or ends, without having called its last
/// TQShutdown is terminated (std::terminate). After TQShutdown the last sending threads still run
/// for a moment: they complete requests as cancelled, and they log. A receiving thread may, too,
/// until its wait of five seconds or its read of a frame is over, over pipes only when the peer
/// closes or sends, and then calls the disconnect listener, if its session was out of reach when
/// the stop came: another session had taken its name over, or a call to it could not be written.
/// That of a session that was admitted in the middle of the stop may call the disconnect listener
/// just behind the return. A host that unloads the library, or takes down what its callbacks use,
/// waits until `sessions` of DEBUG_TQObjectCount is 0 and until no thread of the library is left in
/// the process. That count never falls to 0 again where a session is kept: by requests that were
/// unanswered at its end, or by messages that were left in a queue, as <tq/messaging.h> tells. The
/// library should then stay loaded.
#pragma once

#include <tq/export.h>
#include <tq/types.h>

#ifdef __cplusplus
extern "C" {
#endif

// ---- life --------------------------------------------------------------------------------------

/// Makes this process the application "host:port/name", to listen on 127.0.0.1.
///
/// Initialisation is counted, so that several components of a process can each initialise and shut
/// down. Every call counts, also one that fails, and needs its TQShutdown. Only the call that
/// brings the count from 0 to 1 has effect; a repeated one only compares the name, and its `limits`
/// count for nothing.
///
/// The first call puts the defaults and then `limits` in force, starts the threads and registers
/// the library's own two slots, 0xFFFFFFFF and 0xFFFFFFFE. It returns without waiting for them.
/// Slots, signals and listeners that were registered before, or in an earlier life, are kept.
///
/// @param name    the last part of the application name; copied.
/// @param port    the TCP port to listen on. 0 makes a process that only connects out. It stands in
///                the name as given, while the port listened on is its low 16 bits.
/// @param limits  may be null; see _tag_TQLIMITS for what of it counts. Copied.
/// @return TQ_ERR_OK; TQ_ERR_NAME_REJECTED if this is a repeated call whose host name, port and
///         name do not make the name in force; TQ_ERR_FAILED if the machine's host name cannot be
///         had: the threads are then not running if this was the first call, and TQShutdown will
///         throw.
/// Throws std::system_error if a thread cannot be started; the call has counted.
/// Blocks while another thread initialises or shuts down.
///
/// After a last TQShutdown a process may initialise again, but the gates stay open for good: the
/// listener looks for its address at once, may look before this call has stored it, and then ends
/// with the log line "Socket connection listener stopped. No socket listeners defined". Whether a
/// second life listens is therefore left to chance; that it can connect out is not. The listener on
/// a pipe may look too soon as well: it then takes the pipe that was named in the former life and
/// serves that one to the end of its own, or ends if there was none.
TQ_API _tag_TQ_ERROR TQInitialize(const char* name, int32_t port, const _tag_TQLIMITS* limits);

/// As TQInitialize, to listen on the address `host`.
///
/// @param host  a pipe or a dotted IPv4 text. Null or empty means 127.0.0.1. A text that is no such
///              address is not refused: the process then listens on all interfaces, as with
///              "0.0.0.0". With a pipe the process does not listen on TCP, and `port` plays no part
///              but in the application name. A backslash alone names no pipe.
///
/// The pipe that was named last outlives TQShutdown: a later initialisation listens on it again,
/// also one that names an address.
TQ_API _tag_TQ_ERROR TQInitializeEx(const char* host, const char* name, int32_t port,
                                    const _tag_TQLIMITS* limits);

/// Lets the listeners go: peers are admitted from now on, at the address given at initialisation.
///
/// Returns at once. The listener binds on its own thread and then logs "listening for incoming
/// connection on :", the address, ":" and the port; a peer that connects sooner is refused by the
/// system. If the address is in use, one TQ_LOG_CRITICAL line says so and the listener tries again
/// every second. The address is never marked as reusable, so this also happens for a while after
/// an earlier process with the same port has ended.
///
/// A pipe listener logs "ConnThread Pipe Startup" and then makes its pipes. Nothing tells when they
/// are there, or that their name is taken; a peer that connects sooner waits for them.
///
/// Each listener admits its peers one at a time: one that connects and stays silent holds up all
/// others for about half of IO_TIMEOUT_MS at each step, on a pipe for all of it and anew with each
/// part that it sends, and one that has opened only the first of the two pipes without limit. A
/// peer under a name that is connected already is turned away.
///
/// @return TQ_ERR_OK, always. Calling it again changes nothing. Before the first TQInitialize it
///         opens the gates too early, with the consequence told at TQInitialize for a second life.
TQ_API _tag_TQ_ERROR TQConnectionReady(void);

/// As TQConnectionReady, but listens at another place than the one given at initialisation.
///
/// The application name stays as it is, with the port given there. Has no effect on a listener that
/// has been let go before. A pipe given here replaces an address, but an address does not replace a
/// pipe: a process that was initialised with a pipe then listens on both.
///
/// @param unused  not read; pass null.
/// @param host    as for TQInitializeEx, but must not be null, and the empty text is no address.
/// @param port    TCP port; 0 is not an off switch here: the system chooses a port. Without effect
///                with a pipe.
/// @return TQ_ERR_OK, always.
TQ_API _tag_TQ_ERROR TQStartListeners(void* unused, const char* host, uint16_t port);

/// Takes back one initialisation. The last one stops everything.
///
/// The last one stops the listeners, ends all sessions and joins their receiving threads, and then
/// the dispatcher. Disconnect listeners run, and requests without a reply are cancelled; messages
/// that wait to be sent are not sent any more. Registered slots and signals, listeners, limits and
/// the authentication block stay. So do calls and notifications of peers that have been read and
/// not been served: the dispatcher of a next life serves them.
///
/// Sending threads may run for a moment longer. Completion callbacks of cancelled requests and log
/// lines can therefore come after the return, and from a session that was out of reach even its
/// disconnect listener; "Unloading" above tells when, and how to wait for the last of them.
///
/// @return TQ_ERR_OK, always, also if the count is 0 already.
/// Throws std::system_error if the first initialisation had failed, since there is nothing to join.
/// Throws it on a listener thread and in a slot callback too, since a thread cannot join itself:
/// the count is 0 then, the stop is under way but half done, and the process can neither
/// initialise again nor end in order.
///
/// Blocks until the threads have ended: normally little more than a second, up to IO_TIMEOUT_MS
/// for each read of a handshake or of a frame that is under way (over pipes for each part of it
/// that arrives, and so without a bound for the whole), and as long as a callback runs. A listener
/// on a pipe to which nobody comes sees the stop only every 10 seconds, and not at all while a peer
/// has opened only the first of its two pipes. Without limit, too, is the wait for a write to a
/// pipe whose peer does not read.
///
/// Other calls of TQInitialize and TQShutdown wait meanwhile, so a callback on a thread that is
/// being joined must not make them: that never ends.
TQ_API _tag_TQ_ERROR TQShutdown(void);

// ---- settings ----------------------------------------------------------------------------------
//
// These can be set at any time, also before TQInitialize, and outlive TQShutdown.

/// Sets the authentication block, which peers that connect to this process must know.
///
/// It plays no part when this process connects: that takes the `authData` of TQConnect. A change
/// counts from the next peer on; sessions are not touched. A record given to a later first
/// initialisation replaces the block, whatever it holds.
///
/// @param data    `length` bytes, the start of the block; the rest of it is zero. Copied. May be
///                null if `length` is 0, which sets the block to zero: then every peer that gives
///                no data is admitted.
/// @param length  bytes, at most 256. A negative length is not refused: it counts as 0.
/// @return TQ_ERR_OK; TQ_ERR_FAILED if `length` is above 256, and nothing is changed.
TQ_API _tag_TQ_ERROR TQSetAuthenticationInfo(const uint8_t* data, int32_t length);

/// Sets who is told of admitted sessions; null for nobody.
///
/// For this and the other three: TQ_ERR_OK, always. One callback for the process: the former one is
/// replaced, may still be running, and must stay valid until no thread of the library is left.
TQ_API _tag_TQ_ERROR TQSetConnectListener(TQConnectListener listener);

/// Sets who is told of the end of sessions; null for nobody.
TQ_API _tag_TQ_ERROR TQSetDisconnectListener(TQDisconnectListener listener);

/// Sets who is told of peers that did not prove the authentication block; null for nobody.
TQ_API _tag_TQ_ERROR TQSetAuthFailedListener(TQAuthFailedListener listener);

/// Sets who is told of peers without a usable name; null for nobody.
TQ_API _tag_TQ_ERROR TQSetUnknownConnectListener(TQUnknownConnectListener listener);

// ---- connections -------------------------------------------------------------------------------

/// Connects to a peer and goes through the handshake on this thread.
///
/// On success the session can be used at once under the peer's name; the connect listener runs on
/// the session's own thread, perhaps after the return. MAX_CONNECTIONS does not count here.
///
/// @param host        a pipe or a dotted IPv4 text. Any other text fails, also the empty one and a
///                    host name.
/// @param port        TCP port; 0 fails, and of a larger number than 65535 the low 16 bits count.
///                    Without effect with a pipe.
/// @param nameOut     receives the peer's full name with its NUL, on success only; the rest of the
///                    buffer is zeroed. May be null: the name then comes with the connect listener
///                    alone.
/// @param nameOutSize bytes at `nameOut`. If the name does not fit the buffer is zeroed and the
///                    call succeeds all the same. 256 hold the name of every application of this
///                    library, 257 any name that can get through.
/// @param authData    `authLength` bytes, the start of the peer's authentication block, the rest
///                    being zero; null stands for an all-zero block.
/// @param authLength  bytes, at most 256. A negative length is not refused: it counts as 0.
/// @return TQ_ERR_OK;
///         TQ_ERR_NAME_REJECTED if a peer of that name is connected already, or if the peer closed
///         the connection instead of confirming: wrong authentication data, our name is connected
///         there already, or it went away; these cannot be told apart from here;
///         TQ_ERR_FAILED if `authLength` is above 256, if nobody could be reached there, if the
///         connection broke during the handshake, if the peer gave no usable name, or if this
///         process has not been initialised and so has no name.
/// Throws std::system_error if a thread cannot be started.
///
/// Callbacks: TQUnknownConnectListener on this thread if the peer's name has no host or no
/// application part; log lines. Blocks for up to 4.002 s to reach the peer, over pipes for up to
/// about 20 s (10 for each of the two; on Linux 10 in all where nobody listens), and for the limits
/// of IO_TIMEOUT_MS at each of the reads and writes of the handshake; over pipes the limit of a
/// read counts for each part that arrives, and a write has none.
///
/// Two connections under one name that are made at the same moment can both be admitted. The later
/// one then takes the name over, and when either of them ends the name is gone although the other
/// still runs, out of reach.
TQ_API _tag_TQ_ERROR TQConnect(const char* host, int32_t port, char* nameOut, uint32_t nameOutSize,
                               const uint8_t* authData, int32_t authLength);

/// Ends the session with a peer, whoever made it.
///
/// On return the session's receiving thread has ended: the disconnect listener has run and the
/// peer's signal subscriptions are gone. Its sending thread may be at work a moment longer: it
/// takes the name away and then cancels what is queued or unanswered. Nothing is sent to say
/// goodbye; the peer sees its connection closed. If requests were unanswered the connection stays
/// open to the end of this process, and the peer does not learn of the end.
///
/// @param applicationName  full name; a name without session is no error. Not null.
/// @return TQ_ERR_OK, always.
/// Throws std::system_error if the join fails. Of two threads that disconnect the same session at
/// the same moment the second waits for the first; let one thread do it.
///
/// Blocks until the receiving thread has ended: briefly if it waits for a frame (over pipes up to a
/// second), up to IO_TIMEOUT_MS for each read in the middle of one, over pipes for each part of it
/// that arrives, and as long as a callback on that thread runs.
/// Called on that very thread, from one of its callbacks, it does not wait, and the session ends
/// when the callback has returned. A slot callback may call it too.
///
/// Whoever calls it must not hold what a callback on that thread waits for, or both wait for good.
/// So a process whose slots disconnect peers must not register or unregister slots in a completion
/// callback or a connect or disconnect listener: they would wait for the slot, which waits for
/// them. And no two sessions may be disconnected from each other's callbacks at the same moment.
///
/// A session that could not write a call is out of reach: it has lost its name, so this finds it no
/// more, but goes on reading, and serving what the peer sends, until the peer closes or the library
/// stops; over pipes it notices that stop only when the peer closes or sends. Its replies are not
/// sent, and with them it is kept to the end of the process.
///
/// Connecting again at once is not safe. The peer refuses our name until it has noticed the end,
/// and the old sending thread, when it takes the name away, would take it from the new session.
/// Wait until `sessions` of DEBUG_TQObjectCount has fallen, or for the log line "Sending thread
/// finished for " with the name.
TQ_API _tag_TQ_ERROR TQDisconnect(const char* applicationName);

#ifdef __cplusplus
}  // extern "C"
#endif

/// @file
/// The whole interface of tq: calls, notifications and signals between processes.
///
/// Each process is an application with a name. It offers numbered slots and named signals, and
/// exchanges parameter lists with the applications that it is connected to, over TCP or, on one
/// machine, over named pipes. The headers by family:
///
/// - <tq/types.h>               result codes, the list handle, records, callback types
/// - <tq/param_list.h>          lists: make, fill, read, walk
/// - <tq/application.h>         this process: initialise, listen, connect, shut down
/// - <tq/messaging.h>           slots, signals, calls, notifications
/// - <tq/diagnostics.h>         heap, log, counts, dumps of lists
/// - <tq/param_list_holder.h>   an owned list with the functions on it (C++)
/// - <tq/application_holder.h>  a peer's name with the calls on it (C++)
/// - <tq/counted_base.h>        the counted base class (C++)
/// - <tq/memory_buffer.h>       the exception type of a cut block (C++)
///
/// Each header states the rules of its family at the top and can be included alone. All but those
/// marked C++ compile as C11 too; the rest are not included there.
///
/// A process that calls slot 7 of a peer:
///
///     char peer[256];
///     TQInitialize("scanner", 0, NULL);
///     if (TQConnect("127.0.0.1", 5000, peer, sizeof peer, NULL, 0) == TQ_ERR_OK) {
///       HTQPARAMLIST params = TQCreateParamList();
///       TQSetStringValue(params, "package", "bash");
///       HTQPARAMLIST reply = TQCall(peer, 7, params);
///       printf("%u\n", (unsigned)TQGetInt32Value(reply, "count"));
///       TQCloseHandle(reply);
///       TQCloseHandle(params);
///       TQDisconnect(peer);
///     }
///     TQShutdown();
#pragma once

#include <tq/application.h>
#include <tq/diagnostics.h>
#include <tq/export.h>
#include <tq/messaging.h>
#include <tq/param_list.h>
#include <tq/types.h>
#include <tq/version.h>

#ifdef __cplusplus
#include <tq/application_holder.h>
#include <tq/counted_base.h>
#include <tq/memory_buffer.h>
#include <tq/param_list_holder.h>
#endif

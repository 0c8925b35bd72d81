// What catalog, scanner and watcher say to each other: slots, the signal, and names of values.
#pragma once

namespace inventory {

// Slots of the catalog. The reply to REPORT and REMOVE has ACCEPTED, with the flow id of the
// request; the reply to SNAPSHOT and FINISH has the totals, REVISION and FINISHED.
inline constexpr unsigned SLOT_REPORT = 1;    // call: this package is installed
inline constexpr unsigned SLOT_REMOVE = 2;    // notification with completion: this one is not
inline constexpr unsigned SLOT_FINISH = 3;    // call: that was all
inline constexpr unsigned SLOT_SNAPSHOT = 4;  // call: what there is now

// The watcher's slot for the catalog's signal. The signal carries PACKAGE, CHANGE, REVISION,
// FINISHED, and the totals as differences to those of the revision before.
inline constexpr unsigned SLOT_CHANGED = 1;
inline constexpr const char* SIGNAL_CHANGED = "catalog.changed";

// The library puts the flow id into the list under this name.
inline constexpr const char* FLOW_ID = "...FlowID";

// A package: strings, numbers of both widths, a binary, an array of strings and one of lists.
inline constexpr const char* PACKAGE = "package";
inline constexpr const char* ARCHITECTURE = "architecture";
inline constexpr const char* VERSION = "version";
inline constexpr const char* SECTION = "section";
inline constexpr const char* STATUS = "status";
inline constexpr const char* ESSENTIAL = "essential";           // 32 bits, 0 or 1
inline constexpr const char* LINE = "line";                     // 32 bits, of the status file
inline constexpr const char* INSTALLED_SIZE = "installedSize";  // 64 bits, in KiB
inline constexpr const char* CHECKSUM = "checksum";             // binary, 32 bytes
inline constexpr const char* PROVIDES = "provides";             // array of strings
inline constexpr const char* DEPENDENCIES = "dependencies";     // array of lists

// One element of DEPENDENCIES has PACKAGE, RELATION, VERSION and GROUP.
inline constexpr const char* RELATION = "relation";
inline constexpr const char* GROUP = "group";  // 32 bits; alternatives share their group

inline constexpr const char* ACCEPTED = "accepted";  // 32 bits
inline constexpr const char* CHANGE = "change";      // "reported", "removed" or "finished"
inline constexpr const char* REVISION = "revision";  // 64 bits, counts the changes
inline constexpr const char* FINISHED = "finished";  // 32 bits, 1 after FINISH

}  // namespace inventory

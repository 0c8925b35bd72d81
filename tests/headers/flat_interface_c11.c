/* A host in C: includes the umbrella header as C11 and uses every flat function once, with the
   results that need no peer. A failed check names its line and ends the program with 1. */
#include <tq/tq.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define CHECK(condition)                                              \
  do {                                                                \
    if (!(condition)) {                                               \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
      exit(1);                                                        \
    }                                                                 \
  } while (0)

static const HTQPARAMLIST NO_LIST = {NULL};

/* ---- lists ---- */

static void ListsAreCountedByTheirHandles(void) {
  const uint32_t before = DEBUG_TQObjectCount().paramLists;
  HTQPARAMLIST list = TQCreateParamList();
  CHECK(list.impl != NULL);
  CHECK(DEBUG_TQObjectCount().paramLists == before + 1);
  CHECK(TQReferenceHandle(list).impl == list.impl);
  CHECK(TQCloseHandle(list) == TQ_ERR_OK);
  CHECK(DEBUG_TQObjectCount().paramLists == before + 1);
  CHECK(TQCloseHandle(list) == TQ_ERR_OK);
  CHECK(DEBUG_TQObjectCount().paramLists == before);
  CHECK(TQReferenceHandle(NO_LIST).impl == NULL);
  CHECK(TQCloseHandle(NO_LIST) == TQ_ERR_OK);
}

static void SingleValuesComeBack(HTQPARAMLIST list, HTQPARAMLIST nested) {
  const uint8_t bytes[3] = {1, 2, 3};
  const _tag_BINARYITEM item = {2, bytes};
  CHECK(TQSetStringValue(list, "text", "hello") == TQ_ERR_OK);
  CHECK(TQSetInt32Value(list, "number", 0xFFFFFFFFu) == TQ_ERR_OK);
  CHECK(TQSetInt64Value(list, "large", UINT64_MAX) == TQ_ERR_OK);
  CHECK(TQSetBinaryValue(list, "bytes", bytes, 3) == TQ_ERR_OK);
  CHECK(TQSetBinaryItem(list, "item", &item) == TQ_ERR_OK);
  CHECK(TQSetHandleValue(list, "nested", nested) == TQ_ERR_OK);
  CHECK(TQGetParamCount(list) == 6);

  CHECK(strcmp(TQGetStringValue(list, "text"), "hello") == 0);
  CHECK(TQGetInt32Value(list, "number") == 0xFFFFFFFFu);
  CHECK(TQGetInt64Value(list, "large") == UINT64_MAX);
  CHECK(TQGetBinaryValue(list, "bytes")->size == 3);
  CHECK(memcmp(TQGetBinaryValue(list, "bytes")->data, bytes, 3) == 0);
  CHECK(TQGetBinaryValue(list, "item")->size == 2);
  HTQPARAMLIST owned = TQGetHandleValue(list, "nested");
  CHECK(owned.impl == nested.impl);
  CHECK(TQCloseHandle(owned) == TQ_ERR_OK);
  CHECK(TQGetHandleById(list, 0).impl == nested.impl);
  CHECK(TQGetHandleById(list, NO_HANDLE_INDEX).impl == NULL);

  CHECK(TQGetStringValue(list, "absent") == NULL);
  CHECK(TQGetInt32Value(list, "large") == 0);
}

static void ArraysComeBack(HTQPARAMLIST list, HTQPARAMLIST nested) {
  const char* texts[3] = {"a", NULL, "ccc"};
  const uint32_t numbers[2] = {7, 8};
  const uint64_t larges[2] = {9, 10};
  const HTQPARAMLIST lists[2] = {nested, NO_LIST};
  const void* datas[2] = {"xy", NULL};
  const uint32_t sizes[2] = {2, 0};
  const _tag_BINARYITEM items[1] = {{1, "z"}};
  CHECK(TQSetStringArray(list, "texts", 3, texts) == TQ_ERR_OK);
  CHECK(TQSetInt32Array(list, "numbers", 2, numbers) == TQ_ERR_OK);
  CHECK(TQSetInt64Array(list, "larges", 2, larges) == TQ_ERR_OK);
  CHECK(TQSetHandleArray(list, "lists", 2, lists) == TQ_ERR_OK);
  CHECK(TQSetBinaryArray(list, "datas", 2, datas, sizes) == TQ_ERR_OK);
  CHECK(TQSetBinaryItemArray(list, "items", 1, items) == TQ_ERR_OK);

  const char* gotTexts[3] = {NULL, NULL, NULL};
  CHECK(TQGetStringArray(list, "texts", gotTexts, 3, 1) == 2);
  CHECK(strcmp(gotTexts[0], "") == 0);
  CHECK(strcmp(gotTexts[1], "ccc") == 0);
  CHECK(gotTexts[2] == NULL);
  const _tag_BINARYVALUE* gotBinaries[2] = {NULL, NULL};
  CHECK(TQGetBinaryArray(list, "datas", gotBinaries, 2, 0) == 2);
  CHECK(gotBinaries[0]->size == 2 && memcmp(gotBinaries[0]->data, "xy", 2) == 0);
  CHECK(gotBinaries[1]->size == 0);
  const _tag_TQDWORDARRAY gotNumbers = TQGetInt32Array(list, "numbers");
  CHECK(gotNumbers.count == 2 && gotNumbers.values[1] == 8);
  const _tag_TQQWORDARRAY gotLarges = TQGetInt64Array(list, "larges");
  CHECK(gotLarges.count == 0 && gotLarges.values == NULL);
  const _tag_TQQWORDARRAY gotAsLarges = TQGetInt64Array(list, "numbers");
  CHECK(gotAsLarges.count == 2);
  const _tag_TQDWORDARRAY gotLists = TQGetHandleArray(list, "lists");
  CHECK(gotLists.count == 2 && gotLists.values[1] == NO_HANDLE_INDEX);
  CHECK(TQGetHandleById(list, gotLists.values[0]).impl == nested.impl);
}

static void EntriesAreWalkedAndRemoved(void) {
  HTQPARAMLIST list = TQCreateParamList();
  CHECK(TQGetFirstParam(list) == NULL);
  CHECK(TQSetInt32Value(list, "a", 1) == TQ_ERR_OK);
  CHECK(TQSetInt32Value(list, "b", 2) == TQ_ERR_OK);
  CHECK(TQSetInt32Value(list, "c", 3) == TQ_ERR_OK);
  CHECK(TQGetHandleSize(list) == 24);

  const _tag_TQPARAMINFO* info = TQGetFirstParam(list);
  CHECK(TQParamByIndex(list, 0) == info);
  CHECK(strcmp(info->name, "a") == 0);
  const _tag_TQPARAMVALUE* value =
      (const _tag_TQPARAMVALUE*)((const uint8_t*)info + info->valueOffset);
  CHECK(value->type == PT_INT32);
  info = TQGetNextParam(list, info);
  CHECK(TQParamInfo(list, "b") == info);
  info = TQRemoveParamByInfo(list, info);
  CHECK(info != NULL && strcmp(info->name, "c") == 0);
  CHECK(TQGetNextParam(list, info) == NULL);
  CHECK(TQParamByIndex(list, 2) == NULL);
  CHECK(TQRemoveValue(list, "a") == TQ_ERR_OK);
  CHECK(TQGetParamCount(list) == 1);
  CHECK(TQRemoveAllValues(list) == TQ_ERR_OK);
  CHECK(TQGetParamCount(list) == 0);
  CHECK(TQCloseHandle(list) == TQ_ERR_OK);
}

static void ListsAreClonedAndCopied(HTQPARAMLIST nested) {
  HTQPARAMLIST list = TQCreateParamList();
  CHECK(TQSetInt32Value(list, "a", 1) == TQ_ERR_OK);
  CHECK(TQSetHandleValue(list, "nested", nested) == TQ_ERR_OK);
  HTQPARAMLIST clone = TQCloneHandle(list);
  CHECK(clone.impl != NULL && clone.impl != list.impl);
  CHECK(TQGetParamCount(clone) == 2);
  CHECK(TQGetHandleById(clone, 0).impl == nested.impl);
  HTQPARAMLIST target = TQCreateParamList();
  CHECK(TQSetInt32Value(target, "b", 2) == TQ_ERR_OK);
  CHECK(TQCopyHandle(clone, target) == TQ_ERR_OK);
  CHECK(TQGetParamCount(target) == 3);
  CHECK(TQGetInt32Value(target, "a") == 1);
  CHECK(TQCloneHandle(NO_LIST).impl == NULL);
  CHECK(TQCopyHandle(NO_LIST, target) == TQ_ERR_OK);
  CHECK(TQCloseHandle(target) == TQ_ERR_OK);
  CHECK(TQCloseHandle(clone) == TQ_ERR_OK);
  CHECK(TQCloseHandle(list) == TQ_ERR_OK);
}

static void ListsAreDumpedWithAndWithoutTypes(void) {
  HTQPARAMLIST list = TQCreateParamList();
  CHECK(TQSetInt32Value(list, "a", 5) == TQ_ERR_OK);
  char text[200];
  const bool withTypes = true;
  PrintHandleInfoToBuffer(list, withTypes, text, sizeof text);
  CHECK(strncmp(text, "=====[0x", 8) == 0);
  CHECK(strstr(text, "]\na[PT_INT32]=5\n====") != NULL);
  CHECK(text[sizeof text - 1] == 0);
  PrintHandleInfoToBuffer(list, !withTypes, text, sizeof text);
  CHECK(strstr(text, "]\na=5\n====") != NULL);
  PrintHandleInfoToBuffer(list, false, text, 6);
  CHECK(strcmp(text, "=====") == 0);
  PrintHandleInfo(NO_LIST, false);
  CHECK(TQCloseHandle(list) == TQ_ERR_OK);
}

static void NullListsAreRefused(void) {
  CHECK(TQSetInt32Value(NO_LIST, "a", 1) == TQ_ERR_FAILED);
  CHECK(TQRemoveValue(NO_LIST, "a") == TQ_ERR_FAILED);
  CHECK(TQRemoveAllValues(NO_LIST) == TQ_ERR_FAILED);
  CHECK(TQGetInt32Value(NO_LIST, "a") == 0);
  CHECK(TQGetHandleValue(NO_LIST, "a").impl == NULL);
  CHECK(TQGetInt32Array(NO_LIST, "a").values == NULL);
}

/* ---- heap and log ---- */

static void TheHeapGivesAndTakes(void) {
  char* block = TQAllocate(4);
  CHECK(block != NULL);
  memcpy(block, "abc", 4);
  block = TQRealloc(block, 1000);
  CHECK(block != NULL && strcmp(block, "abc") == 0);
  block = TQRealloc(block, 0);
  CHECK(block != NULL);
  TQFree(block);
  block = TQRealloc(NULL, 8);
  CHECK(block != NULL);
  TQFree(block);
  TQFree(NULL);
}

static char g_applicationLine[512];

/* "Application=" is logged on the thread that initialises, so no lock is needed for it. */
static void KeepApplicationLine(uint32_t level, int32_t verbosity, const char* text) {
  if (level != TQ_LOG_INFO || verbosity != 0) return;
  if (strncmp(text, "Application=", 12) != 0) return;
  strncpy(g_applicationLine, text, sizeof g_applicationLine - 1);
}

/* ---- application and messaging ---- */

static int ServeNothing(HTQPARAMLIST params, HTQPARAMLIST result, const TQSlotCallInfo* info) {
  (void)params;
  (void)result;
  (void)info;
  return 0;
}

static void OnConnect(const char* localAddress, const char* remoteAddress,
                      const char* applicationName, const char* host, int32_t port,
                      const char* application) {
  (void)localAddress;
  (void)remoteAddress;
  (void)applicationName;
  (void)host;
  (void)port;
  (void)application;
}

static void OnDisconnect(const char* applicationName, const char* host, int32_t port,
                         const char* application) {
  (void)applicationName;
  (void)host;
  (void)port;
  (void)application;
}

static void OnAuthFailed(const char* localAddress, const char* remoteAddress,
                         const char* applicationName) {
  (void)localAddress;
  (void)remoteAddress;
  (void)applicationName;
}

static void OnUnknownConnect(const char* localAddress, const char* remoteAddress) {
  (void)localAddress;
  (void)remoteAddress;
}

static _tag_TQ_ERROR CountNotification(const char* applicationName, unsigned slotId,
                                       HTQPARAMLIST params, HTQPARAMLIST result, void* context) {
  CHECK(applicationName == NULL);
  CHECK(slotId == 0);
  CHECK(params.impl != NULL);
  CHECK(result.impl == NULL);
  ++*(int*)context;
  return TQ_ERR_OK;
}

static void SettingsAreTaken(void) {
  uint8_t block[257];
  memset(block, 0x5A, sizeof block);
  CHECK(TQSetAuthenticationInfo(block, 256) == TQ_ERR_OK);
  CHECK(TQSetAuthenticationInfo(block, 257) == TQ_ERR_FAILED);
  CHECK(TQSetConnectListener(OnConnect) == TQ_ERR_OK);
  CHECK(TQSetDisconnectListener(OnDisconnect) == TQ_ERR_OK);
  CHECK(TQSetAuthFailedListener(OnAuthFailed) == TQ_ERR_OK);
  CHECK(TQSetUnknownConnectListener(OnUnknownConnect) == TQ_ERR_OK);
}

static void SlotsAndSignalsAreRegistered(void) {
  CHECK(TQRegisterSlot(7, ServeNothing, NULL) == TQ_ERR_OK);
  CHECK(TQUnregisterSlot(7) == TQ_ERR_OK);
  CHECK(TQUnregisterSlot(7) == TQ_ERR_NO_SUCH_SLOT);
  CHECK(TQRegisterSignal("changed") == TQ_ERR_OK);
  CHECK(TQUnregisterSignal("changed") == TQ_ERR_OK);
  CHECK(TQUnregisterSignal("changed") == TQ_ERR_NO_SUCH_SIGNAL);
}

static void InitialisationIsCounted(void) {
  _tag_TQLIMITS limits;
  memset(&limits, 0, sizeof limits);
  limits.size = sizeof limits;
  TQSetLogLevel(TQ_LOG_INFO, 0, KeepApplicationLine);
  CHECK(TQInitialize("c11", 0, &limits) == TQ_ERR_OK);
  TQSetLogLevel(0, 0, NULL);
  const char* tail = strrchr(g_applicationLine, ':');
  CHECK(tail != NULL && strcmp(tail, ":0/c11") == 0);
  CHECK(TQInitializeEx(NULL, "c11", 0, NULL) == TQ_ERR_OK);
  CHECK(TQShutdown() == TQ_ERR_OK);
  CHECK(TQInitializeEx("127.0.0.1", "other", 0, NULL) == TQ_ERR_NAME_REJECTED);
  CHECK(TQShutdown() == TQ_ERR_OK);
  CHECK(TQConnectionReady() == TQ_ERR_OK);
}

static void PeersThatAreNotThereAreReported(HTQPARAMLIST params) {
  char name[256];
  memset(name, 'n', sizeof name);
  CHECK(TQConnect("127.0.0.1", 0, name, sizeof name, NULL, 0) == TQ_ERR_FAILED);
  CHECK(name[0] == 'n' && name[255] == 'n');
  CHECK(TQDisconnect("nobody:1/here") == TQ_ERR_OK);
  CHECK(TQCall("nobody:1/here", 7, params).impl == NULL);
  CHECK(TQCallWithFlow(1, "nobody:1/here", 7, params).impl == NULL);
  CHECK(TQGetInt32Value(params, "...FlowID") == 1);
  CHECK(TQNotify("nobody:1/here", 7, params, NULL, NULL) == TQ_ERR_NO_SESSION);
  CHECK(TQNotifyWithFlow(2, "nobody:1/here", 7, params, NULL, NULL) == TQ_ERR_NO_SESSION);
  CHECK(TQGetInt32Value(params, "...FlowID") == 2);
  CHECK(TQConnectSignal("nobody:1/here", "changed", 7) == TQ_ERR_OK);
  CHECK(TQDisconnectSignal("nobody:1/here", "changed", 7) == TQ_ERR_OK);
}

static void SignalsWithoutSubscribersAreToldOf(HTQPARAMLIST params) {
  int calls = 0;
  CHECK(TQEmit("changed", params, CountNotification, &calls) == TQ_ERR_NO_SUCH_SIGNAL);
  CHECK(calls == 0);
  CHECK(TQRegisterSignal("changed") == TQ_ERR_OK);
  CHECK(TQEmit("changed", params, CountNotification, &calls) == TQ_ERR_OK);
  CHECK(calls == 1);
  CHECK(TQEmitWithFlow(3, "changed", params, CountNotification, &calls) == TQ_ERR_OK);
  CHECK(calls == 2);
  CHECK(TQGetInt32Value(params, "...FlowID") == 3);
}

static void TheVersionTextAgreesWithTheNumbers(void) {
  char text[64];
  snprintf(text, sizeof text, "%d.%d.%d", TQ_VERSION_MAJOR, TQ_VERSION_MINOR, TQ_VERSION_PATCH);
  CHECK(strcmp(TQ_VERSION_STRING, text) == 0);
}

int main(void) {
  TheVersionTextAgreesWithTheNumbers();
  ListsAreCountedByTheirHandles();
  HTQPARAMLIST list = TQCreateParamList();
  HTQPARAMLIST nested = TQCreateParamList();
  SingleValuesComeBack(list, nested);
  ArraysComeBack(list, nested);
  ListsAreClonedAndCopied(nested);
  ListsAreDumpedWithAndWithoutTypes();
  CHECK(TQCloseHandle(nested) == TQ_ERR_OK);
  EntriesAreWalkedAndRemoved();
  NullListsAreRefused();

  TheHeapGivesAndTakes();
  TQHandleUsageLog();

  SettingsAreTaken();
  SlotsAndSignalsAreRegistered();
  InitialisationIsCounted();
  PeersThatAreNotThereAreReported(list);
  SignalsWithoutSubscribersAreToldOf(list);
  CHECK(TQStartListeners(NULL, "127.0.0.1", 0) == TQ_ERR_OK);
  CHECK(TQShutdown() == TQ_ERR_OK);
  CHECK(TQShutdown() == TQ_ERR_OK);

  CHECK(TQCloseHandle(list) == TQ_ERR_OK);
  CHECK(DEBUG_TQObjectCount().paramLists == 0);
  return 0;
}

// The signatures of all exported functions, written down a second time, and that none of them
// promises not to throw: exceptions pass through to the host.
#include <tq/tq.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <type_traits>

namespace {

using List = _tag_HTQPARAMLIST;
using Result = _tag_TQ_ERROR;
using Entry = const _tag_TQPARAMINFO*;
using Name = const char*;
using Holder = TQ::TQApplicationHolder;

/// Exactly this type: a function that were noexcept would have another one.
template <typename Expected, typename Actual>
constexpr bool IS = std::is_same_v<Expected, Actual>;

TEST(Signatures, OfHandles) {
  EXPECT_TRUE((IS<List(), decltype(TQCreateParamList)>));
  EXPECT_TRUE((IS<List(List), decltype(TQReferenceHandle)>));
  EXPECT_TRUE((IS<Result(List), decltype(TQCloseHandle)>));
}

TEST(Signatures, OfHeapLogAndCounts) {
  EXPECT_TRUE((IS<void*(uint64_t), decltype(TQAllocate)>));
  EXPECT_TRUE((IS<void(void*), decltype(TQFree)>));
  EXPECT_TRUE((IS<void*(void*, uint64_t), decltype(TQRealloc)>));
  EXPECT_TRUE((IS<void(uint32_t, int32_t, TQLogCallback), decltype(TQSetLogLevel)>));
  EXPECT_TRUE((IS<void(), decltype(TQHandleUsageLog)>));
  EXPECT_TRUE((IS<TQObjectCounts(), decltype(DEBUG_TQObjectCount)>));
}

TEST(Signatures, OfTheApplicationsLife) {
  EXPECT_TRUE((IS<Result(Name, int32_t, const _tag_TQLIMITS*), decltype(TQInitialize)>));
  EXPECT_TRUE((IS<Result(Name, Name, int32_t, const _tag_TQLIMITS*), decltype(TQInitializeEx)>));
  EXPECT_TRUE((IS<Result(), decltype(TQConnectionReady)>));
  EXPECT_TRUE((IS<Result(void*, Name, uint16_t), decltype(TQStartListeners)>));
  EXPECT_TRUE((IS<Result(), decltype(TQShutdown)>));
}

TEST(Signatures, OfSettings) {
  EXPECT_TRUE((IS<Result(const uint8_t*, int32_t), decltype(TQSetAuthenticationInfo)>));
  EXPECT_TRUE((IS<Result(TQConnectListener), decltype(TQSetConnectListener)>));
  EXPECT_TRUE((IS<Result(TQDisconnectListener), decltype(TQSetDisconnectListener)>));
  EXPECT_TRUE((IS<Result(TQAuthFailedListener), decltype(TQSetAuthFailedListener)>));
  EXPECT_TRUE((IS<Result(TQUnknownConnectListener), decltype(TQSetUnknownConnectListener)>));
}

TEST(Signatures, OfConnections) {
  EXPECT_TRUE(
      (IS<Result(Name, int32_t, char*, uint32_t, const uint8_t*, int32_t), decltype(TQConnect)>));
  EXPECT_TRUE((IS<Result(Name), decltype(TQDisconnect)>));
}

TEST(Signatures, OfSetters) {
  EXPECT_TRUE((IS<Result(List, Name, Name), decltype(TQSetStringValue)>));
  EXPECT_TRUE((IS<Result(List, Name, uint32_t), decltype(TQSetInt32Value)>));
  EXPECT_TRUE((IS<Result(List, Name, uint64_t), decltype(TQSetInt64Value)>));
  EXPECT_TRUE((IS<Result(List, Name, const void*, uint32_t), decltype(TQSetBinaryValue)>));
  EXPECT_TRUE((IS<Result(List, Name, const _tag_BINARYITEM*), decltype(TQSetBinaryItem)>));
  EXPECT_TRUE((IS<Result(List, Name, List), decltype(TQSetHandleValue)>));
  EXPECT_TRUE((IS<Result(List, Name, uint32_t, const char* const*), decltype(TQSetStringArray)>));
  EXPECT_TRUE((IS<Result(List, Name, uint32_t, const uint32_t*), decltype(TQSetInt32Array)>));
  EXPECT_TRUE((IS<Result(List, Name, uint32_t, const uint64_t*), decltype(TQSetInt64Array)>));
  EXPECT_TRUE((IS<Result(List, Name, uint32_t, const List*), decltype(TQSetHandleArray)>));
  EXPECT_TRUE((IS<Result(List, Name, uint32_t, const void* const*, const uint32_t*),
                  decltype(TQSetBinaryArray)>));
  EXPECT_TRUE(
      (IS<Result(List, Name, uint32_t, const _tag_BINARYITEM*), decltype(TQSetBinaryItemArray)>));
}

TEST(Signatures, OfGetters) {
  EXPECT_TRUE((IS<const char*(List, Name), decltype(TQGetStringValue)>));
  EXPECT_TRUE((IS<uint32_t(List, Name), decltype(TQGetInt32Value)>));
  EXPECT_TRUE((IS<uint64_t(List, Name), decltype(TQGetInt64Value)>));
  EXPECT_TRUE((IS<const _tag_BINARYVALUE*(List, Name), decltype(TQGetBinaryValue)>));
  EXPECT_TRUE((IS<List(List, Name), decltype(TQGetHandleValue)>));
  EXPECT_TRUE(
      (IS<uint32_t(List, Name, const char**, uint32_t, uint32_t), decltype(TQGetStringArray)>));
  EXPECT_TRUE((IS<uint32_t(List, Name, const _tag_BINARYVALUE**, uint32_t, uint32_t),
                  decltype(TQGetBinaryArray)>));
  EXPECT_TRUE((IS<_tag_TQDWORDARRAY(List, Name), decltype(TQGetInt32Array)>));
  EXPECT_TRUE((IS<_tag_TQQWORDARRAY(List, Name), decltype(TQGetInt64Array)>));
  EXPECT_TRUE((IS<_tag_TQDWORDARRAY(List, Name), decltype(TQGetHandleArray)>));
}

TEST(Signatures, OfQueriesAndRemoval) {
  EXPECT_TRUE((IS<uint32_t(List), decltype(TQGetParamCount)>));
  EXPECT_TRUE((IS<uint32_t(List), decltype(TQGetHandleSize)>));
  EXPECT_TRUE((IS<Entry(List), decltype(TQGetFirstParam)>));
  EXPECT_TRUE((IS<Entry(List, Entry), decltype(TQGetNextParam)>));
  EXPECT_TRUE((IS<Entry(List, uint32_t), decltype(TQParamByIndex)>));
  EXPECT_TRUE((IS<Entry(List, Name), decltype(TQParamInfo)>));
  EXPECT_TRUE((IS<List(List, uint32_t), decltype(TQGetHandleById)>));
  EXPECT_TRUE((IS<Result(List, Name), decltype(TQRemoveValue)>));
  EXPECT_TRUE((IS<Entry(List, Entry), decltype(TQRemoveParamByInfo)>));
  EXPECT_TRUE((IS<Result(List), decltype(TQRemoveAllValues)>));
}

TEST(Signatures, OfRegistrations) {
  EXPECT_TRUE((IS<Result(unsigned, TQSlotCallback, void*), decltype(TQRegisterSlot)>));
  EXPECT_TRUE((IS<Result(unsigned), decltype(TQUnregisterSlot)>));
  EXPECT_TRUE((IS<Result(Name), decltype(TQRegisterSignal)>));
  EXPECT_TRUE((IS<Result(Name), decltype(TQUnregisterSignal)>));
  EXPECT_TRUE((IS<Result(const _tag_SLOT_DESCRIPTION*, int), decltype(TQRegisterSlots)>));
  EXPECT_TRUE((IS<Result(const _tag_SIGNAL_DESCRIPTION*, int), decltype(TQRegisterSignals)>));
}

TEST(Signatures, OfCallsAndNotifications) {
  EXPECT_TRUE((IS<List(Name, unsigned, List), decltype(TQCall)>));
  EXPECT_TRUE((IS<List(unsigned, Name, unsigned, List), decltype(TQCallWithFlow)>));
  EXPECT_TRUE((IS<Result(Name, unsigned, List, TQNotifyCallback, void*), decltype(TQNotify)>));
  EXPECT_TRUE((IS<Result(unsigned, Name, unsigned, List, TQNotifyCallback, void*),
                  decltype(TQNotifyWithFlow)>));
}

TEST(Signatures, OfSignals) {
  EXPECT_TRUE((IS<Result(Name, List, TQNotifyCallback, void*), decltype(TQEmit)>));
  EXPECT_TRUE(
      (IS<Result(unsigned, Name, List, TQNotifyCallback, void*), decltype(TQEmitWithFlow)>));
  EXPECT_TRUE((IS<Result(Name, Name, unsigned), decltype(TQConnectSignal)>));
  EXPECT_TRUE((IS<Result(Name, Name, unsigned), decltype(TQDisconnectSignal)>));
}

TEST(Signatures, OfTheApplicationHolder) {
  EXPECT_TRUE((IS<bool (Holder::*)() const, decltype(&Holder::operator!)>));
  EXPECT_TRUE((IS<const char* (Holder::*)() const, decltype(&Holder::getName)>));
  EXPECT_TRUE(
      (IS<bool (Holder::*)(Name, int, const unsigned char*, int), decltype(&Holder::Connect)>));
  EXPECT_TRUE((IS<bool (Holder::*)(), decltype(&Holder::Disconnect)>));
  EXPECT_TRUE((IS<List (Holder::*)(unsigned, List), decltype(&Holder::Call)>));
  EXPECT_TRUE((IS<List (Holder::*)(unsigned, unsigned, List), decltype(&Holder::CallWithFlow)>));
  EXPECT_TRUE(
      (IS<bool (Holder::*)(unsigned, List, TQNotifyCallback, void*), decltype(&Holder::Notify)>));
  EXPECT_TRUE((IS<bool (Holder::*)(unsigned, unsigned, List, TQNotifyCallback, void*),
                  decltype(&Holder::NotifyWithFlow)>));
  EXPECT_TRUE((IS<bool (Holder::*)(Name, unsigned), decltype(&Holder::ConnectSignal)>));
  EXPECT_TRUE((IS<bool (Holder::*)(Name, unsigned), decltype(&Holder::DisconnectSignal)>));
  EXPECT_TRUE((IS<Holder& (Holder::*)(const Holder&), decltype(&Holder::operator=)>));
  EXPECT_TRUE((std::is_constructible_v<Holder, const char*>));
  EXPECT_TRUE(std::is_default_constructible_v<Holder>);
  EXPECT_TRUE(std::is_copy_constructible_v<Holder>);
}

}  // namespace

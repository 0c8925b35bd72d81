// The signatures of all exported functions, written down a second time, and that none of them
// promises not to throw: exceptions pass through to the host.
#include <tq/tq.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <type_traits>

namespace {

using List = _tag_HTQPARAMLIST;
using Result = _tag_TQ_ERROR;
using Entry = const _tag_TQPARAMINFO*;
using Name = const char*;
using Holder = TQ::TQApplicationHolder;
using Lists = TQ::ParamListHolder;

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

TEST(Signatures, OfCopies) {
  EXPECT_TRUE((IS<List(List), decltype(TQCloneHandle)>));
  EXPECT_TRUE((IS<Result(List, List), decltype(TQCopyHandle)>));
}

TEST(Signatures, OfDumps) {
  EXPECT_TRUE((IS<void(List, bool), decltype(PrintHandleInfo)>));
  EXPECT_TRUE((IS<void(List, bool, char*, uint32_t), decltype(PrintHandleInfoToBuffer)>));
  EXPECT_TRUE((IS<void(std::ostream&, List, bool, int32_t), decltype(PrintHandleInfoRecurse)>));
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

// ---- the list holder ---------------------------------------------------------------------------

/// Picks one of several members of a name by its type, or does not compile. Whether the member is
/// noexcept makes no difference here.
template <typename Function>
constexpr bool HasMember(Function /*member*/) {
  return true;
}

template <typename Result, typename... Arguments>
using Const = Result (Lists::*)(Arguments...) const;
template <typename Result, typename... Arguments>
using Member = Result (Lists::*)(Arguments...);

TEST(Signatures, OfTheListHoldersLife) {
  EXPECT_TRUE(std::is_default_constructible_v<Lists>);
  EXPECT_TRUE(std::is_copy_constructible_v<Lists>);
  EXPECT_TRUE(std::is_move_constructible_v<Lists>);
  EXPECT_FALSE(std::is_nothrow_default_constructible_v<Lists>);
  EXPECT_FALSE(std::is_nothrow_copy_constructible_v<Lists>);
  EXPECT_FALSE(std::is_nothrow_move_constructible_v<Lists>);
  EXPECT_TRUE((HasMember<Member<Lists&, const Lists&>>(&Lists::operator=)));
  EXPECT_TRUE((HasMember<Member<Lists&, Lists&&>>(&Lists::operator=)));
  EXPECT_TRUE((HasMember<Member<void, Lists&>>(&Lists::swap)));
  EXPECT_TRUE((HasMember<void (*)(Lists&, Lists&)>(&Lists::swap)));
  EXPECT_TRUE((IS<Const<bool>, decltype(&Lists::operator!)>));
  EXPECT_TRUE((IS<void*(std::size_t) noexcept, decltype(Lists::operator new)>));
  EXPECT_TRUE((IS<void(void*), decltype(Lists::operator delete)>));
  EXPECT_TRUE((IS<Lists(List), decltype(Lists::FromHandle)>));
  EXPECT_TRUE((IS<Lists(List), decltype(Lists::FromRefHandle)>));
  EXPECT_TRUE((IS<Member<bool>, decltype(&Lists::NewList)>));
  EXPECT_TRUE((IS<Member<bool>, decltype(&Lists::ClearList)>));
  EXPECT_TRUE((IS<Const<Lists>, decltype(&Lists::Clone)>));
  EXPECT_TRUE((IS<Member<bool, Lists&>, decltype(&Lists::CopyDataFrom)>));
  EXPECT_TRUE((IS<Member<bool, Lists&>, decltype(&Lists::CopyDataTo)>));
}

TEST(Signatures, OfTheListHoldersQueries) {
  EXPECT_TRUE((IS<Const<bool, Name>, decltype(&Lists::Exists)>));
  EXPECT_TRUE((IS<Const<uint32_t>, decltype(&Lists::GetCount)>));
  EXPECT_TRUE((IS<Const<uint32_t>, decltype(&Lists::GetSize)>));
  EXPECT_TRUE((IS<Const<bool>, decltype(&Lists::empty)>));
  EXPECT_TRUE((IS<Const<Entry>, decltype(&Lists::GetFirst)>));
  EXPECT_TRUE((IS<Const<Entry, Entry>, decltype(&Lists::GetNext)>));
  EXPECT_TRUE((IS<Const<Entry, Name>, decltype(&Lists::GetInfo)>));
  EXPECT_TRUE((IS<Const<_tag_PARAM_TYPES, Name>, decltype(&Lists::GetType)>));
  EXPECT_TRUE((IS<Const<_tag_PARAM_TYPES, Name>, decltype(&Lists::GetArrayType)>));
  EXPECT_TRUE((IS<Const<uint32_t, Name>, decltype(&Lists::GetArraySize)>));
}

TEST(Signatures, OfTheListHoldersGetters) {
  EXPECT_TRUE((HasMember<Const<Name, Name>>(&Lists::GetString)));
  EXPECT_TRUE((HasMember<Const<Name, Name, uint32_t>>(&Lists::GetString)));
  EXPECT_TRUE((HasMember<Const<uint32_t, Name>>(&Lists::GetInt32)));
  EXPECT_TRUE((HasMember<Const<uint32_t, Name, uint32_t>>(&Lists::GetInt32)));
  EXPECT_TRUE((HasMember<Const<uint64_t, Name>>(&Lists::GetInt64)));
  EXPECT_TRUE((HasMember<Const<uint64_t, Name, uint32_t>>(&Lists::GetInt64)));
  EXPECT_TRUE((HasMember<Const<const _tag_BINARYVALUE*, Name>>(&Lists::GetBinary)));
  EXPECT_TRUE((HasMember<Const<const _tag_BINARYVALUE*, Name, uint32_t>>(&Lists::GetBinary)));
  EXPECT_TRUE((HasMember<Const<Lists, Name>>(&Lists::GetHandle)));
  EXPECT_TRUE((HasMember<Const<Lists, Name, uint32_t>>(&Lists::GetHandle)));
  EXPECT_TRUE((HasMember<Const<Lists, int>>(&Lists::GetHandle)));
  EXPECT_TRUE((IS<Const<uint32_t, Name, const char**, uint32_t, uint32_t>,
                  decltype(&Lists::GetStringArray)>));
  EXPECT_TRUE((IS<Const<uint32_t, Name, const _tag_BINARYVALUE**, uint32_t, uint32_t>,
                  decltype(&Lists::GetBinaryArray)>));
  EXPECT_TRUE((IS<Const<_tag_TQDWORDARRAY, Name>, decltype(&Lists::GetInt32Array)>));
  EXPECT_TRUE((IS<Const<_tag_TQQWORDARRAY, Name>, decltype(&Lists::GetInt64Array)>));
  EXPECT_TRUE(
      (HasMember<Const<uint32_t, Name, List*, uint32_t, uint32_t>>(&Lists::GetHandleArray)));
  EXPECT_TRUE(
      (HasMember<Const<uint32_t, Name, Lists*, uint32_t, uint32_t>>(&Lists::GetHandleArray)));
}

TEST(Signatures, OfTheListHoldersSetters) {
  EXPECT_TRUE((IS<Member<Result, Name, Name>, decltype(&Lists::SetString)>));
  EXPECT_TRUE((IS<Member<Result, Name, uint32_t>, decltype(&Lists::SetInt32)>));
  EXPECT_TRUE((IS<Member<Result, Name, uint64_t>, decltype(&Lists::SetInt64)>));
  EXPECT_TRUE((IS<Member<Result, Name, const void*, uint32_t>, decltype(&Lists::SetBinary)>));
  EXPECT_TRUE((IS<Member<Result, Name, const Lists&>, decltype(&Lists::SetHandle)>));
  EXPECT_TRUE(
      (IS<Member<Result, Name, uint32_t, const char* const*>, decltype(&Lists::SetStringArray)>));
  EXPECT_TRUE(
      (IS<Member<Result, Name, uint32_t, const uint32_t*>, decltype(&Lists::SetInt32Array)>));
  EXPECT_TRUE(
      (IS<Member<Result, Name, uint32_t, const uint64_t*>, decltype(&Lists::SetInt64Array)>));
  EXPECT_TRUE((HasMember<Member<Result, Name, uint32_t, const void* const*, const uint32_t*>>(
      &Lists::SetBinaryArray)));
  EXPECT_TRUE(
      (HasMember<Member<Result, Name, uint32_t, const _tag_BINARYITEM*>>(&Lists::SetBinaryArray)));
  EXPECT_TRUE((HasMember<Member<Result, Name, uint32_t, const List*>>(&Lists::SetHandleArray)));
  EXPECT_TRUE((HasMember<Member<Result, Name, uint32_t, const Lists*>>(&Lists::SetHandleArray)));
}

TEST(Signatures, OfTheListHoldersOverloadsPromiseNothing) {
  Lists lists;
  const Lists& constant = lists;
  List handle{};
  EXPECT_FALSE(noexcept(lists = constant));
  EXPECT_FALSE(noexcept(lists = Lists()));
  EXPECT_FALSE(noexcept(lists.swap(lists)));
  EXPECT_FALSE(noexcept(Lists::swap(lists, lists)));
  EXPECT_FALSE(noexcept(constant.GetString("")));
  EXPECT_FALSE(noexcept(constant.GetString("", 0)));
  EXPECT_FALSE(noexcept(constant.GetInt32("")));
  EXPECT_FALSE(noexcept(constant.GetInt32("", 0)));
  EXPECT_FALSE(noexcept(constant.GetInt64("")));
  EXPECT_FALSE(noexcept(constant.GetInt64("", 0)));
  EXPECT_FALSE(noexcept(constant.GetBinary("")));
  EXPECT_FALSE(noexcept(constant.GetBinary("", 0)));
  EXPECT_FALSE(noexcept(constant.GetHandle("")));
  EXPECT_FALSE(noexcept(constant.GetHandle("", 0)));
  EXPECT_FALSE(noexcept(constant.GetHandle(0)));
  EXPECT_FALSE(noexcept(constant.GetHandleArray("", &handle, 0, 0)));
  EXPECT_FALSE(noexcept(constant.GetHandleArray("", &lists, 0, 0)));
  EXPECT_FALSE(noexcept(lists.SetBinaryArray("", 0, nullptr, nullptr)));
  EXPECT_FALSE(noexcept(lists.SetBinaryArray("", 0, nullptr)));
  EXPECT_FALSE(noexcept(lists.SetHandleArray("", 0, &handle)));
  EXPECT_FALSE(noexcept(lists.SetHandleArray("", 0, &constant)));
  EXPECT_FALSE(noexcept(lists.erase(lists.begin())));
  EXPECT_FALSE(noexcept(lists.erase("")));
}

TEST(Signatures, OfTheListHoldersRemovalAndIteration) {
  using Iterator = Lists::param_iterator;
  EXPECT_TRUE((IS<Member<Result, Name>, decltype(&Lists::Remove)>));
  EXPECT_TRUE((IS<Member<Result>, decltype(&Lists::RemoveAll)>));
  EXPECT_TRUE((IS<Const<Iterator>, decltype(&Lists::begin)>));
  EXPECT_TRUE((IS<Const<Iterator>, decltype(&Lists::end)>));
  EXPECT_TRUE((IS<Const<Iterator, Name>, decltype(&Lists::find)>));
  EXPECT_TRUE((HasMember<Member<Iterator, Iterator>>(&Lists::erase)));
  EXPECT_TRUE((HasMember<Member<uint32_t, Name>>(&Lists::erase)));
  EXPECT_TRUE((IS<const Lists*, decltype(Iterator::holder)>));
  EXPECT_TRUE((IS<Entry, decltype(Iterator::info)>));
}

}  // namespace

// Sizes, offsets, values and virtual tables that callers and peers rely on, written down a second
// time: a header that was changed together with its own assertions still fails here.
#include <tq/tq.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <iterator>
#include <string>
#include <type_traits>

namespace {

TEST(ResultCodes, HaveTheirNumbers) {
  EXPECT_EQ(0, static_cast<int32_t>(TQ_ERR_OK));
  EXPECT_EQ(-1, static_cast<int32_t>(TQ_ERR_FAILED));
  EXPECT_EQ(-3, static_cast<int32_t>(TQ_ERR_NO_SUCH_SLOT));
  EXPECT_EQ(-4, static_cast<int32_t>(TQ_ERR_NO_SUCH_SIGNAL));
  EXPECT_EQ(-5, static_cast<int32_t>(TQ_ERR_NO_SESSION));
  EXPECT_EQ(-7, static_cast<int32_t>(TQ_ERR_NAME_REJECTED));
  EXPECT_TRUE((std::is_same_v<std::underlying_type_t<_tag_TQ_ERROR>, int32_t>));
}

TEST(LogLevels, AreSingleBits) {
  EXPECT_EQ(1u, static_cast<uint32_t>(TQ_LOG_CRITICAL));
  EXPECT_EQ(2u, static_cast<uint32_t>(TQ_LOG_ERROR));
  EXPECT_EQ(4u, static_cast<uint32_t>(TQ_LOG_WARNING));
  EXPECT_EQ(8u, static_cast<uint32_t>(TQ_LOG_INFO));
  EXPECT_TRUE((std::is_same_v<std::underlying_type_t<_tag_TQ_LOG_LEVEL>, uint32_t>));
}

TEST(TypeCodes, HaveTheirNumbers) {
  EXPECT_EQ(0u, static_cast<uint32_t>(PT_UNKNOWN));
  EXPECT_EQ(1u, static_cast<uint32_t>(PT_STRING));
  EXPECT_EQ(2u, static_cast<uint32_t>(PT_INT32));
  EXPECT_EQ(3u, static_cast<uint32_t>(PT_INT64));
  EXPECT_EQ(4u, static_cast<uint32_t>(PT_PARAMHANDLE));
  EXPECT_EQ(5u, static_cast<uint32_t>(PT_BINARY));
  EXPECT_EQ(0x80u, static_cast<uint32_t>(PT_ARRAY_FLAG));
  EXPECT_EQ(0xFFFFFFFFu, NO_HANDLE_INDEX);
  EXPECT_TRUE((std::is_same_v<std::underlying_type_t<_tag_PARAM_TYPES>, uint32_t>));
}

TEST(Handle, IsOnePointerPassedAsItself) {
  EXPECT_EQ(8u, sizeof(_tag_HTQPARAMLIST));
  EXPECT_TRUE((std::is_same_v<HTQPARAMLIST, _tag_HTQPARAMLIST>));
  // A class with a constructor or destructor would be passed through memory.
  EXPECT_TRUE(std::is_trivial_v<_tag_HTQPARAMLIST>);
  EXPECT_TRUE(std::is_standard_layout_v<_tag_HTQPARAMLIST>);
}

TEST(Views, AreCountAndPointerWithoutGap) {
  EXPECT_EQ(12u, sizeof(_tag_BINARYITEM));
  EXPECT_EQ(4u, offsetof(_tag_BINARYITEM, data));
  EXPECT_EQ(12u, sizeof(_tag_TQDWORDARRAY));
  EXPECT_EQ(4u, offsetof(_tag_TQDWORDARRAY, values));
  EXPECT_EQ(12u, sizeof(_tag_TQQWORDARRAY));
  EXPECT_EQ(4u, offsetof(_tag_TQQWORDARRAY, values));
}

TEST(Views, StandDirectlyOneBehindTheOtherInArrays) {
  const _tag_BINARYITEM items[2] = {{1, "a"}, {2, "bc"}};
  const auto* bytes = reinterpret_cast<const uint8_t*>(items);
  uint32_t size = 0;
  std::memcpy(&size, bytes + 12, sizeof size);
  EXPECT_EQ(2u, size);
}

TEST(BinaryValue, IsTheLengthWordWithItsBytes) {
  EXPECT_EQ(4u, offsetof(_tag_BINARYVALUE, data));
  EXPECT_EQ(1u, alignof(_tag_BINARYVALUE));
}

TEST(Entry, FindsItsValueByTheOffsetByte) {
  // The name "ab" and the 32-bit value 7, as they stand in a block.
  const uint8_t entry[12] = {7, 'a', 'b', 0, 0, 0, 0, PT_INT32, 7, 0, 0, 0};
  const auto* info = reinterpret_cast<const _tag_TQPARAMINFO*>(entry);
  EXPECT_EQ(std::string("ab"), std::string(info->name));
  EXPECT_EQ(static_cast<const void*>(entry + 7), static_cast<const void*>(info->Value()));
  EXPECT_EQ(PT_INT32, info->Value()->type);
}

TEST(Limits, HaveTheirPlaces) {
  EXPECT_EQ(292u, sizeof(_tag_TQLIMITS));
  EXPECT_EQ(0u, offsetof(_tag_TQLIMITS, size));
  EXPECT_EQ(4u, offsetof(_tag_TQLIMITS, MAX_CONNECTIONS));
  EXPECT_EQ(8u, offsetof(_tag_TQLIMITS, RESERVED_LIMIT_2));
  EXPECT_EQ(12u, offsetof(_tag_TQLIMITS, MAX_READ_SIZE));
  EXPECT_EQ(16u, offsetof(_tag_TQLIMITS, RESERVED_LIMIT_4));
  EXPECT_EQ(20u, offsetof(_tag_TQLIMITS, RESERVED_LIMIT_5));
  EXPECT_EQ(24u, offsetof(_tag_TQLIMITS, RESERVED_LIMIT_6));
  EXPECT_EQ(28u, offsetof(_tag_TQLIMITS, RESERVED_LIMIT_7));
  EXPECT_EQ(32u, offsetof(_tag_TQLIMITS, IO_TIMEOUT_MS));
  EXPECT_EQ(36u, offsetof(_tag_TQLIMITS, authBlock));
  EXPECT_EQ(256u, sizeof(_tag_TQLIMITS::authBlock));
}

TEST(ObjectCounts, HaveTheirPlaces) {
  EXPECT_EQ(48u, sizeof(TQObjectCounts));
  EXPECT_EQ(0u, offsetof(TQObjectCounts, sessions));
  EXPECT_EQ(4u, offsetof(TQObjectCounts, messages));
  EXPECT_EQ(8u, offsetof(TQObjectCounts, pendingCalls));
  EXPECT_EQ(12u, offsetof(TQObjectCounts, reserved1));
  EXPECT_EQ(16u, offsetof(TQObjectCounts, reserved2));
  EXPECT_EQ(20u, offsetof(TQObjectCounts, paramLists));
  EXPECT_EQ(24u, offsetof(TQObjectCounts, writeCalls));
  EXPECT_EQ(28u, offsetof(TQObjectCounts, readCalls));
  EXPECT_EQ(32u, offsetof(TQObjectCounts, reserved3));
  EXPECT_EQ(40u, offsetof(TQObjectCounts, reserved4));
}

TEST(RegistrationRecords, HaveTheirPlaces) {
  EXPECT_EQ(20u, sizeof(_tag_SLOT_DESCRIPTION));
  EXPECT_EQ(0u, offsetof(_tag_SLOT_DESCRIPTION, slotId));
  EXPECT_EQ(4u, offsetof(_tag_SLOT_DESCRIPTION, callback));
  EXPECT_EQ(12u, offsetof(_tag_SLOT_DESCRIPTION, context));
  EXPECT_EQ(8u, sizeof(_tag_SIGNAL_DESCRIPTION));
  EXPECT_EQ(16u, sizeof(TQSlotCallInfo));
  EXPECT_EQ(8u, offsetof(TQSlotCallInfo, context));
}

TEST(Callbacks, HaveTheirArguments) {
  EXPECT_TRUE((std::is_same_v<TQLogCallback, void (*)(uint32_t, int32_t, const char*)>));
  EXPECT_TRUE((std::is_same_v<TQSlotCallback, int (*)(_tag_HTQPARAMLIST, _tag_HTQPARAMLIST,
                                                      const TQSlotCallInfo*)>));
  EXPECT_TRUE(
      (std::is_same_v<TQNotifyCallback, _tag_TQ_ERROR (*)(const char*, unsigned, _tag_HTQPARAMLIST,
                                                          _tag_HTQPARAMLIST, void*)>));
  EXPECT_TRUE((std::is_same_v<TQConnectListener, void (*)(const char*, const char*, const char*,
                                                          const char*, int32_t, const char*)>));
  EXPECT_TRUE((std::is_same_v<TQDisconnectListener,
                              void (*)(const char*, const char*, int32_t, const char*)>));
  EXPECT_TRUE(
      (std::is_same_v<TQAuthFailedListener, void (*)(const char*, const char*, const char*)>));
  EXPECT_TRUE((std::is_same_v<TQUnknownConnectListener, void (*)(const char*, const char*)>));
}

template <typename T>
constexpr bool CARRIES_NOTHING = std::is_empty_v<T>&& std::is_trivial_v<T>;

TEST(ExceptionTypes, CarryNothingAndHaveNoBase) {
  EXPECT_TRUE(CARRIES_NOTHING<_tag_TQPARAMVALUE::DataDamaged>);
  EXPECT_TRUE(CARRIES_NOTHING<TQMemoryBufferTpl2<0>::NoDataExeption>);
  EXPECT_FALSE((std::is_base_of_v<std::exception, _tag_TQPARAMVALUE::DataDamaged>));
  EXPECT_FALSE((std::is_base_of_v<std::exception, TQMemoryBufferTpl2<0>::NoDataExeption>));
}

// ---- the growing block -------------------------------------------------------------------------

struct OpenBuffer : TQMemoryBufferTpl2<0> {
  const uint8_t* SizePlace() const { return reinterpret_cast<const uint8_t*>(&size); }
  const uint8_t* CapacityPlace() const { return reinterpret_cast<const uint8_t*>(&capacity); }
  const uint8_t* DataPlace() const { return reinterpret_cast<const uint8_t*>(&data); }
  bool IsEmpty() const { return size == 0 && capacity == 0 && data == nullptr; }
};

TEST(MemoryBuffer, HoldsSizeCapacityAndDataInThisOrder) {
  const OpenBuffer buffer;
  EXPECT_EQ(16u, sizeof(OpenBuffer));
  EXPECT_EQ(4, buffer.CapacityPlace() - buffer.SizePlace());
  EXPECT_EQ(8, buffer.DataPlace() - buffer.SizePlace());
  EXPECT_TRUE(buffer.IsEmpty());
}

TEST(MemoryBuffer, CanNeitherBeMadeNorCopiedByHosts) {
  EXPECT_FALSE(std::is_default_constructible_v<TQMemoryBufferTpl2<0>>);
  EXPECT_FALSE(std::is_copy_constructible_v<TQMemoryBufferTpl2<0>>);
  EXPECT_FALSE(std::is_copy_assignable_v<TQMemoryBufferTpl2<0>>);
  EXPECT_FALSE(std::is_copy_constructible_v<OpenBuffer>);
}

// ---- the counted base --------------------------------------------------------------------------

struct Plain : MTObjects::MTReferencedTypeBase {
  using MTReferencedTypeBase::AddRef;
  using MTReferencedTypeBase::RefCounter;
  using MTReferencedTypeBase::Release;
  bool CheckValid() const override { return true; }
  bool AskConst() const { return IsValid(); }
  bool Ask() { return IsValid(); }
};

struct OtherDestructor : Plain {
  ~OtherDestructor() override { ++*destroyed; }
  int* destroyed = nullptr;
};

struct OtherCheck final : Plain {
  bool CheckValid() const override { return false; }
};

const void* TableEntry(const MTObjects::MTReferencedTypeBase& object, std::size_t index) {
  const void* const* table = nullptr;
  std::memcpy(&table, reinterpret_cast<const void*>(&object), sizeof table);
  return table[index];
}

TEST(CountedBase, IsTheVirtualTableAndTheCounter) {
  EXPECT_EQ(16u, sizeof(MTObjects::MTReferencedTypeBase));
  EXPECT_EQ(4u, sizeof(Plain::RefCounter));
  EXPECT_TRUE((std::is_same_v<std::atomic<int32_t>, decltype(Plain::RefCounter::value)>));
  auto* object = new Plain;
  int32_t counter = -1;
  std::memcpy(&counter, reinterpret_cast<const uint8_t*>(object) + 8, sizeof counter);
  EXPECT_EQ(0, counter);
  object->AddRef();
  std::memcpy(&counter, reinterpret_cast<const uint8_t*>(object) + 8, sizeof counter);
  EXPECT_EQ(1, counter);
  object->Release();
}

TEST(CountedBase, HasDestructorThenCheckValidInItsVirtualTable) {
  const Plain plain;
  const OtherDestructor otherDestructor;
  const OtherCheck otherCheck;
  int ignored = 0;
  const_cast<OtherDestructor&>(otherDestructor).destroyed = &ignored;
  // The destructor has two entries: one destroys, one frees as well.
  EXPECT_NE(TableEntry(plain, 0), TableEntry(otherDestructor, 0));
  EXPECT_NE(TableEntry(plain, 1), TableEntry(otherDestructor, 1));
  EXPECT_EQ(TableEntry(plain, 2), TableEntry(otherDestructor, 2));
  EXPECT_NE(TableEntry(plain, 2), TableEntry(otherCheck, 2));
}

TEST(CountedBase, DestroysWithTheLastReference) {
  int destroyed = 0;
  auto* object = new OtherDestructor;
  object->destroyed = &destroyed;
  object->AddRef();
  object->AddRef();
  object->Release();
  EXPECT_EQ(0, destroyed);
  object->Release();
  EXPECT_EQ(1, destroyed);
}

TEST(CountedBase, AsksCheckValidWhetherConstOrNot) {
  Plain plain;
  OtherCheck otherCheck;
  EXPECT_TRUE(plain.Ask());
  EXPECT_TRUE(plain.AskConst());
  EXPECT_FALSE(otherCheck.Ask());
  EXPECT_FALSE(otherCheck.AskConst());
}

// ---- the list holder ---------------------------------------------------------------------------

TEST(ListHolder, IsOneHandle) {
  using Holder = TQ::ParamListHolder;
  EXPECT_EQ(8u, sizeof(Holder));
  EXPECT_EQ(alignof(_tag_HTQPARAMLIST), alignof(Holder));
  EXPECT_TRUE(std::is_standard_layout_v<Holder>);
  EXPECT_FALSE(std::is_polymorphic_v<Holder>);
  const _tag_HTQPARAMLIST list = TQCreateParamList();
  const Holder holders[2] = {Holder::FromHandle(list), Holder::FromRefHandle(list)};
  _tag_HTQPARAMLIST handles[2];
  std::memcpy(handles, reinterpret_cast<const void*>(holders), sizeof handles);
  EXPECT_EQ(list.impl, handles[0].impl);
  EXPECT_EQ(list.impl, handles[1].impl);
}

TEST(ListHolder, IsPassedThroughMemory) {
  // It gives a reference back, and so cannot travel in a register as the handle does.
  EXPECT_FALSE(std::is_trivially_copyable_v<TQ::ParamListHolder>);
  EXPECT_FALSE(std::is_trivially_destructible_v<TQ::ParamListHolder>);
}

TEST(ListHolder, TakesHandlesByItsFactoriesAloneAndGivesNoneOut) {
  EXPECT_FALSE((std::is_constructible_v<TQ::ParamListHolder, _tag_HTQPARAMLIST>));
  EXPECT_FALSE((std::is_assignable_v<TQ::ParamListHolder&, const _tag_HTQPARAMLIST&>));
  EXPECT_FALSE((std::is_convertible_v<TQ::ParamListHolder, _tag_HTQPARAMLIST>));
  EXPECT_FALSE((std::is_convertible_v<TQ::ParamListHolder, bool>));
}

TEST(ListIterator, IsTheHolderAndTheEntryInThisOrder) {
  using Iterator = TQ::ParamListHolder::param_iterator;
  EXPECT_EQ(16u, sizeof(Iterator));
  EXPECT_EQ(0u, offsetof(Iterator, holder));
  EXPECT_EQ(8u, offsetof(Iterator, info));
  EXPECT_TRUE(std::is_trivially_copyable_v<Iterator>);
  EXPECT_TRUE(std::forward_iterator<Iterator>);
  EXPECT_TRUE((std::is_base_of_v<std::forward_iterator_tag,
                                 std::iterator_traits<Iterator>::iterator_category>));
}

// ---- the application holder --------------------------------------------------------------------

TEST(ApplicationHolder, IsTheVirtualTableAndTheName) {
  EXPECT_EQ(264u, sizeof(TQ::TQApplicationHolder));
  const TQ::TQApplicationHolder holder("host:1/name");
  EXPECT_EQ(8, holder.getName() - reinterpret_cast<const char*>(&holder));
  EXPECT_STREQ("host:1/name", holder.getName());
}

TEST(ApplicationHolder, LetsTheErrorOfItsDestructorOut) {
  EXPECT_TRUE(std::has_virtual_destructor_v<TQ::TQApplicationHolder>);
  EXPECT_FALSE(std::is_nothrow_destructible_v<TQ::TQApplicationHolder>);
}

}  // namespace

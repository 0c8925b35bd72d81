// The list holder and the dumps of the shared library, as a host uses them: without a flat function
// where the holder has one, with the host's own streams, containers and algorithms.
#include <gtest/gtest.h>
#include <tq/param_list_holder.h>
#include <tq/tq.h>

#include <algorithm>
#include <cstdint>
#include <locale>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace TQ::test {
namespace {

uint32_t ListsAlive() { return DEBUG_TQObjectCount().paramLists; }

/// An order with its positions, as a host would build it.
ParamListHolder Order() {
  ParamListHolder order;
  order.NewList();
  order.SetString("customer", "ada");
  std::vector<ParamListHolder> positions(2);
  for (uint32_t i = 0; i < 2; ++i) {
    positions[i].NewList();
    positions[i].SetString("item", i == 0 ? "bolt" : "nut");
    positions[i].SetInt32("count", 12 + i);
  }
  order.SetHandleArray("positions", 2, positions.data());
  return order;
}

TEST(ListHolder, OwnsAListOfTheLibrary) {
  {
    const ParamListHolder order = Order();
    EXPECT_EQ(ListsAlive(), 3u);
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): counts a reference
    const ParamListHolder shared = order;
    EXPECT_EQ(ListsAlive(), 3u);
    EXPECT_EQ(shared.GetHandle("positions", 1).GetInt32("count"), 13u);
    EXPECT_EQ(order.GetArraySize("positions"), 2u);
  }
  EXPECT_EQ(ListsAlive(), 0u);
}

TEST(ListHolder, OutlivesTheHandleThatItWasMadeFrom) {
  const HTQPARAMLIST list = TQCreateParamList();
  const auto shared = ParamListHolder::FromHandle(list);
  {
    auto owner = ParamListHolder::FromRefHandle(list);
    owner.SetInt64("n", 5);
  }
  EXPECT_EQ(shared.GetInt64("n"), 5u);
  EXPECT_EQ(ListsAlive(), 1u);
}

TEST(ListHolder, StandsInSmartPointersContainersAndMaps) {
  {
    auto owned = std::make_unique<ParamListHolder>(Order());
    std::unique_ptr<ParamListHolder> onItsHeap(new ParamListHolder(*owned));
    std::map<std::string, ParamListHolder> orders;
    orders["first"] = *owned;
    orders["second"] = onItsHeap->Clone();
    orders["third"] = std::move(*owned);
    EXPECT_EQ(ListsAlive(), 4u);
    EXPECT_STREQ(orders["third"].GetString("customer"), "ada");
    EXPECT_STREQ(orders["second"].GetHandle(0).GetString("item"), "bolt");
  }
  EXPECT_EQ(ListsAlive(), 0u);
}

TEST(ListHolder, IsWalkedByTheHostsLoopsAndAlgorithms) {
  const ParamListHolder order = Order();
  std::string names;
  for (const _tag_TQPARAMINFO& entry : order) names.append(entry.name).append(" ");
  EXPECT_EQ(names, "customer positions ");
  const auto array = std::ranges::find_if(order, [](const _tag_TQPARAMINFO& entry) {
    return (entry.Value()->type & PT_ARRAY_FLAG) != 0;
  });
  EXPECT_EQ(array, order.find("positions"));
  EXPECT_EQ(std::count_if(order.begin(), order.end(), [](const auto&) { return true; }), 2);
}

TEST(ListHolder, RemovesInALoop) {
  ParamListHolder order = Order();
  for (auto entry = order.begin(); entry != order.end();) entry = order.erase(entry);
  EXPECT_TRUE(order.empty());
  EXPECT_EQ(ListsAlive(), 1u);
}

TEST(ListHolder, CopiesWithItsTwoAnswers) {
  ParamListHolder order = Order();
  ParamListHolder from;
  ParamListHolder to;
  EXPECT_TRUE(from.CopyDataFrom(order));
  EXPECT_FALSE(order.CopyDataTo(to));
  EXPECT_EQ(from.GetHandle("positions", 0).GetInt32("count"), 12u);
  EXPECT_EQ(to.GetHandle("positions", 1).GetInt32("count"), 13u);
  EXPECT_EQ(ListsAlive(), 5u) << "the positions are shared";
}

TEST(Dump, WritesToTheHostsStream) {
  const HTQPARAMLIST list = TQCreateParamList();
  auto target = ParamListHolder::FromRefHandle(list);
  ParamListHolder order = Order();
  target.CopyDataFrom(order);
  std::ostringstream stream;
  PrintHandleInfoRecurse(stream, list, true, 1);
  EXPECT_EQ(stream.str(),
            "  customer[PT_STRING]=ada\n"
            "  positions=ARRAY\n"
            "    [0]=      item[PT_STRING]=bolt\n"
            "      count[PT_INT32]=12\n"
            "\n"
            "    [1]=      item[PT_STRING]=nut\n"
            "      count[PT_INT32]=13\n"
            "\n");
}

/// Digits in groups of three.
class Grouping final : public std::numpunct<char> {
 protected:
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(Dump, IntoMemoryIsNotInTheHostsLocale) {
  const HTQPARAMLIST list = TQCreateParamList();
  auto owner = ParamListHolder::FromRefHandle(list);
  owner.SetInt32("n", 1234567);
  const std::locale former = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  char text[200];
  PrintHandleInfoToBuffer(list, false, text, sizeof text);
  std::locale::global(former);
  EXPECT_NE(std::string(text).find("\nn=1234567\n"), std::string::npos) << text;
}

}  // namespace
}  // namespace TQ::test

// A C++ host of the installed library: values go into a list and come out again, and the types that
// the library throws and derives from can be named and linked.
#include <tq/tq.h>

#include <cstdio>
#include <cstring>

namespace {

int failures = 0;

void Check(bool holds, const char* what) {
  if (holds) return;
  std::printf("failed: %s\n", what);
  ++failures;
}

class Counted : public MTObjects::MTReferencedTypeBase {
 protected:
  bool CheckValid() const override { return true; }
};

}  // namespace

int main() {
  const _tag_HTQPARAMLIST list = TQCreateParamList();
  Check(list.impl != nullptr, "a list is made");
  Check(TQSetStringValue(list, "name", "value") == TQ_ERR_OK, "a text is set");
  Check(TQSetInt32Value(list, "number", 42) == TQ_ERR_OK, "a number is set");
  Check(TQGetParamCount(list) == 2, "the list counts two");
  const char* text = TQGetStringValue(list, "name");
  Check(text != nullptr && std::strcmp(text, "value") == 0, "the text comes back");
  Check(TQGetInt32Value(list, "number") == 42, "the number comes back");
  Check(DEBUG_TQObjectCount().paramLists == 1, "one list is counted");
  Check(TQCloseHandle(list) == TQ_ERR_OK, "the list is closed");
  Check(DEBUG_TQObjectCount().paramLists == 0, "no list is left");

  Counted counted;
  TQ::TQApplicationHolder holder("nobody");
  Check(std::strcmp(holder.getName(), "nobody") == 0, "the holder keeps its name");
  try {
    throw _tag_TQPARAMVALUE::DataDamaged();
  } catch (const TQMemoryBufferTpl2<0>::NoDataExeption&) {
    Check(false, "the two exception types are two");
  } catch (const _tag_TQPARAMVALUE::DataDamaged&) {
  }
  return failures == 0 ? 0 : 1;
}

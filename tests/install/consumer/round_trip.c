/* A C host of the installed library: the flat headers are C11, and values go into a list and come
   out again. */
#include <tq/tq.h>

#include <stdio.h>
#include <string.h>

static int failures = 0;

static void Check(int holds, const char* what) {
  if (holds) return;
  printf("failed: %s\n", what);
  ++failures;
}

int main(void) {
  const _tag_HTQPARAMLIST list = TQCreateParamList();
  const char* text;
  Check(list.impl != NULL, "a list is made");
  Check(TQSetStringValue(list, "name", "value") == TQ_ERR_OK, "a text is set");
  Check(TQSetInt64Value(list, "number", 1ull << 40) == TQ_ERR_OK, "a number is set");
  Check(TQGetParamCount(list) == 2, "the list counts two");
  text = TQGetStringValue(list, "name");
  Check(text != NULL && strcmp(text, "value") == 0, "the text comes back");
  Check(TQGetInt64Value(list, "number") == 1ull << 40, "the number comes back");
  Check(TQCloseHandle(list) == TQ_ERR_OK, "the list is closed");
  Check(DEBUG_TQObjectCount().paramLists == 0, "no list is left");
  return failures == 0 ? 0 : 1;
}

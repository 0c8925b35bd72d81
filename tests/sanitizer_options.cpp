// The options of the sanitizers, in every test executable of a sanitizer build: compiled in and not
// from the environment, so that a test that is started by hand, and every process that it starts,
// runs under the same rules.

extern "C" {

// An allocation that is too large gives null, as it does without the sanitizer. The limit lies just
// above what a peer may announce: for what it announces beyond, the sanitizer would write gigabytes
// of its own tables.
const char* __asan_default_options() {
  return "allocator_may_return_null=1:max_allocation_size_mb=1536:detect_leaks=1";
}

const char* __ubsan_default_options() { return "print_stacktrace=1"; }

// The first race ends the test; a lock order inversion shows where both locks were taken.
const char* __tsan_default_options() {
  return "allocator_may_return_null=1:max_allocation_size_mb=1536:halt_on_error=1:"
         "second_deadlock_stack=1";
}

}  // extern "C"

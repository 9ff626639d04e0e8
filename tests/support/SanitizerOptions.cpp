// Options that the sanitizers' libraries read from a program.
extern "C" {

[[gnu::visibility("default")]] const char* __asan_default_options();
[[gnu::visibility("default")]] const char* __tsan_default_options();
[[gnu::visibility("default")]] const char* __tsan_default_suppressions();

// An allocation beyond all memory fails, as it does without a sanitizer, instead of ending the program.
const char* __asan_default_options() { return "allocator_may_return_null=1"; }

const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

// ACE locks a library's record and its framework repository in one order when it unloads the library, and in the other
// when the process ends with one thread left.
const char* __tsan_default_suppressions() { return "deadlock:ACE_OS::mutex_lock\n"; }
}

// Options that the sanitizers' libraries ask a program for.
extern "C" {

[[gnu::visibility("default")]] const char* __asan_default_options();
[[gnu::visibility("default")]] const char* __tsan_default_options();

// An allocation beyond all memory fails, as it does without a sanitizer, and does not end the program.
const char* __asan_default_options() { return "allocator_may_return_null=1"; }

const char* __tsan_default_options() { return "allocator_may_return_null=1"; }
}

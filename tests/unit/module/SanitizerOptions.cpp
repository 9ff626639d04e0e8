// Options that the thread sanitizer's library asks a program for.
extern "C" {

[[gnu::visibility("default")]] const char* __tsan_default_suppressions();

// ACE locks a library's record and its framework repository in one order when it unloads the library, and in the other
// when the process ends, with one thread left.
const char* __tsan_default_suppressions() { return "deadlock:ACE_OS::mutex_lock\n"; }
}

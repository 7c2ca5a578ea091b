// The worker that a test has started runs on while later tests mend this and that. No process does
// so: what it mends is chosen once, before its worker starts.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() { return "race:process_mending\n"; }

// What the sanitizers of a test program do without an environment variable that says otherwise.
extern "C" const char* __tsan_default_options();
extern "C" const char* __asan_default_options();

// A run waits for nobody at its end, where the product does not either.
extern "C" const char* __tsan_default_options() {
  return "atexit_sleep_ms=0";
}

// A megabyte of freed memory is kept from use, not 256: thousands of short processes would each
// touch fresh pages all the time.
extern "C" const char* __asan_default_options() {
  return "quarantine_size_mb=1";
}

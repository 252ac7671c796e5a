// ThreadSanitizer's: a run waits for nobody at its end, where the product does not either.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
  return "atexit_sleep_ms=0";
}

// What the sanitizers are told by default. A size that a damaged file asks for is refused by the allocator,
// and the library answers for it; the sanitizer would rather end the process.

// Visible, or the sanitizer library does not find it.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options();

extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

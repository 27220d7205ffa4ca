// Whether this program was built for a sanitizer: some tests are about answers, not about memory, and take
// too long there.
#ifndef ORN_TEST_SANITIZED_H
#define ORN_TEST_SANITIZED_H

namespace orn_test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool isSanitized = true;
#else
constexpr bool isSanitized = false;
#endif
#else
constexpr bool isSanitized = false;
#endif

} // namespace orn_test

#endif // ORN_TEST_SANITIZED_H

// The two failure texts every fallible operation fills before it returns false.
// Thread-local so that a worker thread can never clobber what the user sees.
#pragma once

#include <cstddef>

namespace kv {

inline constexpr std::size_t kErrorContextSize = 80;
inline constexpr std::size_t kErrorMessageSize = 1024;

extern thread_local char ErrorContext[kErrorContextSize];
extern thread_local char ErrorMessage[kErrorMessageSize];

// Fills both texts and returns false, so that `return Fail("x", "y");` reads
// as the failure it is. `message` is a printf format.
bool Fail(const char* context, const char* message, ...) __attribute__((format(printf, 2, 3)));

// Replaces only the message, keeping the context a callee set.
bool FailMessage(const char* message, ...) __attribute__((format(printf, 1, 2)));

void ClearError();

}  // namespace kv

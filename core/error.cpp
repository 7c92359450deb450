#include "core/error.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace kv {

thread_local char ErrorContext[kErrorContextSize];
thread_local char ErrorMessage[kErrorMessageSize];

bool Fail(const char* context, const char* message, ...) {
  std::snprintf(ErrorContext, sizeof ErrorContext, "%s", context ? context : "");
  va_list ap;
  va_start(ap, message);
  std::vsnprintf(ErrorMessage, sizeof ErrorMessage, message, ap);
  va_end(ap);
  return false;
}

bool FailMessage(const char* message, ...) {
  va_list ap;
  va_start(ap, message);
  std::vsnprintf(ErrorMessage, sizeof ErrorMessage, message, ap);
  va_end(ap);
  return false;
}

void ClearError() {
  ErrorContext[0] = 0;
  ErrorMessage[0] = 0;
}

}  // namespace kv

#pragma once

// The platform's assertion: always on, also in release builds. A failed assertion is a
// programming error and ends the process after printing the expression.
[[noreturn]] void vraxAssertFailed(const char* expression, const char* file, int line);

#define VRAX_ASSERT(cond) ((cond) ? static_cast<void>(0) : vraxAssertFailed(#cond, __FILE__, __LINE__))

// An allocator for tests in which the Nth allocation of the calling thread
// fails. This executable defines malloc, calloc, realloc and strdup, so every
// call of the library (and of Jansson) comes here first and is passed on to
// the allocator behind it (the C library's, or AddressSanitizer's). Only a
// thread inside an armed section counts; other threads (a scripted daemon)
// are never failed. operator new is passed on uncounted: the library's C++
// scratch containers are out of the sweep.
#pragma once

#include <cstddef>

namespace oom {

// Arms the calling thread: its nth allocation from now on returns null.
void arm(long nth);
// Disarms the calling thread.
void disarm();
// Whether the last armed section reached its failing allocation.
bool last_run_failed();
// The largest single allocation asked for in the last armed section.
size_t largest_request();

} // namespace oom

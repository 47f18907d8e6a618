#include "failing_malloc.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <new>

namespace {

thread_local long countdown = 0; // 0: disarmed
thread_local bool reached = false;
thread_local size_t largest = 0;

decltype(&::malloc) next_malloc;
decltype(&::calloc) next_calloc;
decltype(&::realloc) next_realloc;
decltype(&::free) next_free;

// dlsym may itself ask for zeroed memory before calloc is resolved.
alignas(16) char bootstrap[4096];
size_t bootstrap_used = 0;
bool resolving = false;

void resolve()
{
    if (next_malloc != nullptr || resolving)
        return;
    resolving = true;
    next_calloc = reinterpret_cast<decltype(next_calloc)>(dlsym(RTLD_NEXT, "calloc"));
    next_realloc = reinterpret_cast<decltype(next_realloc)>(dlsym(RTLD_NEXT, "realloc"));
    next_free = reinterpret_cast<decltype(next_free)>(dlsym(RTLD_NEXT, "free"));
    next_malloc = reinterpret_cast<decltype(next_malloc)>(dlsym(RTLD_NEXT, "malloc"));
    resolving = false;
}

bool fails_now(size_t size)
{
    if (countdown == 0)
        return false;
    largest = size > largest ? size : largest;
    if (--countdown != 0)
        return false;
    reached = true;
    errno = ENOMEM;
    return true;
}

bool from_bootstrap(void *p)
{
    return p >= bootstrap && p < bootstrap + sizeof bootstrap;
}

} // namespace

void oom::arm(long nth)
{
    resolve();
    reached = false;
    largest = 0;
    countdown = nth;
}

void oom::disarm() { countdown = 0; }
bool oom::last_run_failed() { return reached; }
size_t oom::largest_request() { return largest; }

extern "C" void *malloc(size_t size)
{
    resolve();
    return fails_now(size) ? nullptr : next_malloc(size);
}

extern "C" void *calloc(size_t count, size_t size)
{
    if (next_calloc == nullptr) {
        // Only dlsym gets here, before calloc itself is known.
        size_t bytes = (count * size + 15) & ~size_t(15);
        if (bootstrap_used + bytes > sizeof bootstrap)
            return nullptr;
        void *p = bootstrap + bootstrap_used;
        bootstrap_used += bytes;
        return p;
    }
    return fails_now(count * size) ? nullptr : next_calloc(count, size);
}

extern "C" void *realloc(void *pointer, size_t size)
{
    resolve();
    return fails_now(size) ? nullptr : next_realloc(pointer, size);
}

extern "C" void free(void *pointer)
{
    if (pointer == nullptr || from_bootstrap(pointer))
        return;
    resolve();
    next_free(pointer);
}

extern "C" char *strdup(const char *text)
{
    size_t size = strlen(text) + 1;
    auto *copy = static_cast<char *>(malloc(size));
    return copy != nullptr ? static_cast<char *>(memcpy(copy, text, size)) : nullptr;
}

// Uncounted, and paired with free so that the allocator behind sees one
// family of calls.
void *operator new(size_t size)
{
    resolve();
    void *p = next_malloc(size != 0 ? size : 1);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}
void *operator new[](size_t size) { return operator new(size); }
void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    resolve();
    return next_malloc(size != 0 ? size : 1);
}
void operator delete(void *p) noexcept { free(p); }
void operator delete[](void *p) noexcept { free(p); }
void operator delete(void *p, size_t) noexcept { free(p); }
void operator delete[](void *p, size_t) noexcept { free(p); }

// SPDX-License-Identifier: Apache-2.0
#include "support/alloc_counter.h"

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define ORLUNE_ALLOC_COUNTER 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORLUNE_ALLOC_COUNTER 0
#endif
#endif
#ifndef ORLUNE_ALLOC_COUNTER
#define ORLUNE_ALLOC_COUNTER 1
#endif

namespace {
thread_local int g_counting = 0;
thread_local long g_allocations = 0;
} // namespace

#if ORLUNE_ALLOC_COUNTER
extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);

extern "C" void *malloc(size_t n)
{
    g_allocations += g_counting > 0;
    return __libc_malloc(n);
}
extern "C" void *calloc(size_t n, size_t size)
{
    g_allocations += g_counting > 0;
    return __libc_calloc(n, size);
}
extern "C" void *realloc(void *p, size_t n)
{
    g_allocations += g_counting > 0;
    return __libc_realloc(p, n);
}
#endif

bool alloc_counting_available()
{
    return ORLUNE_ALLOC_COUNTER != 0;
}

alloc_count::alloc_count() : mark_(g_allocations)
{
    g_counting++;
}

alloc_count::~alloc_count()
{
    if (!paused_)
        g_counting--;
}

long alloc_count::value() const
{
    return counted_ + (paused_ ? 0 : g_allocations - mark_);
}

void alloc_count::pause()
{
    if (!paused_) {
        counted_ += g_allocations - mark_;
        paused_ = true;
        g_counting--;
    }
}

void alloc_count::resume()
{
    if (paused_) {
        paused_ = false;
        g_counting++;
        mark_ = g_allocations;
    }
}

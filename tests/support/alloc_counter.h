// SPDX-License-Identifier: Apache-2.0
// Counts heap allocations (malloc, calloc, realloc) made by the calling
// thread, for tests that prove a hot path allocates nothing. A binary gets
// the counter by linking the orlune_alloc_counter object library, which
// interposes the allocator.
#pragma once

// False under a sanitizer, which owns the allocator: skip the test then.
bool alloc_counting_available();

// Counts the calling thread's allocations for as long as it lives.
class alloc_count {
public:
    alloc_count();
    ~alloc_count();
    alloc_count(const alloc_count &) = delete;
    alloc_count &operator=(const alloc_count &) = delete;

    long value() const;
    // Pauses counting (for a call whose allocations are not the test's concern).
    void pause();
    void resume();

private:
    long counted_ = 0; // before the last resume
    long mark_;        // the thread's total at the last resume
    bool paused_ = false;
};

// SPDX-License-Identifier: Apache-2.0
// AddressSanitizer's defaults for every fuzz target. An execution frees far
// less than 16 MB, so a quarantine of that size still holds every block an
// execution freed (a use after free is still caught); the default 256 MB
// made each process touch fresh pages for most allocations and grew the heap
// that every leak check scans to several hundred megabytes, dividing the
// executions per second by two to four. ASAN_OPTIONS still overrides it.
extern "C" const char *__asan_default_options()
{
    return "quarantine_size_mb=16";
}

// Stand-in for the host kernel's main-memory query. BOOTSTRAND_MAIN_MEMORY overrides
// the machine's total RAM for tests: a byte count, or "fail" to make the query fail.
#pragma once

#include <cstdint>

// Stores the main memory size in bytes in *size; returns 0 on success, non-zero on
// failure (with errno set). `unused` receives nothing of interest.
int get_main_memory_size(std::uint64_t* size, std::uint64_t* unused);

// Every benchmark links a replaced global operator new that counts heap
// allocations, so a benchmark can show that a warm frame path makes none.
#pragma once

namespace kivbench {
// Allocations made through operator new since the process started.
long long AllocationCount();
}  // namespace kivbench

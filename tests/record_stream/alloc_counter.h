// Counts heap allocations made through operator new between Start and Stop.
#pragma once

namespace allocs {
void Start();
int Stop();  // the number of allocations since Start
}  // namespace allocs

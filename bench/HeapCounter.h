// Peak heap of one job, counted by interposing malloc and its family in the benchmark program
// (every allocation of the process: C++ new, rapidjson, SQLite, RE2, pugixml), as bytes handed out
// (malloc_usable_size), not as resident pages.
#pragma once

#include <cstddef>

namespace bench {

// Starts a measurement: the peak is reset to what is in use now.
void HeapMark();
// Bytes by which the heap in use rose above the mark at its highest point since HeapMark.
size_t HeapPeakSinceMark();

}  // namespace bench

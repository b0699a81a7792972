// SPDX-License-Identifier: MIT
#pragma once

// Hands the allocator's free pages back to the system. glibc keeps what was freed in the
// arena of the thread that allocated it, so a resident app would otherwise hold the peak of
// its catalog load, and of every panel showing, for the rest of the day.
namespace MemoryTrim {

// Keeps malloc to two arenas (one per core) instead of eight per core: each thread that
// allocates would otherwise get an arena of its own, and keep its free pages. Call first
// thing in main(), before any thread starts.
void limitArenas();
// Returns free memory now, on the calling thread.
void now();
// Returns free memory on a pool thread once no further request came for a moment; coalesces
// bursts. Any thread; needs a QCoreApplication, does nothing without one.
void soon();

} // namespace MemoryTrim

// Replaces operator new and delete: counts the objects of program and plug-in, and can refuse memory.
#pragma once

namespace fake_heap {

/// Blocks alive in the process.
long live();

/// Blocks that this thread requested since its latest refuse(), granted or not.
int asked();
/// Refuses block number `i` of this thread's next requests (1 is the next) with std::bad_alloc; 0 refuses none.
void refuse(int i);
/// Refuses number `i` and every later request of this thread, until refuse(0).
void refuse_from(int i);

}  // namespace fake_heap

// operator new and delete replaced: the program's and the plug-in's objects are counted, and memory can be refused.
#pragma once

namespace fake_heap {

/// Blocks alive in the process.
long live();

/// Blocks that this thread asked for since its latest refuse(), granted or not.
int asked();
/// Of the blocks that this thread asks for from now on, number `i` (1 is the next) is refused with std::bad_alloc;
/// 0 refuses none.
void refuse(int i);
/// Refuses number `i` and every block after it that this thread asks for, until refuse(0).
void refuse_from(int i);

}  // namespace fake_heap

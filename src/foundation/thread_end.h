#ifndef VEKMSG_FOUNDATION_THREAD_END_H
#define VEKMSG_FOUNDATION_THREAD_END_H

/// Whether the thread has the memory to note what is to go when it ends, as its first `thread_local` object
/// of a kind needs: where there is none, the C library would end the process. The memory is taken on trial,
/// much more than a note needs, and given back.
[[gnu::cold]] bool canNoteThreadEnd() noexcept;

#endif

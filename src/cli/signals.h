// The signal thread: the one thread that takes SIGTERM, SIGINT and SIGHUP
// and turns them into termination requests (support/termination.h).
#pragma once

// Blocks SIGTERM, SIGINT and SIGHUP in the calling thread and starts the
// thread that waits for them. 0 on success; -1 when the mask failed, -2
// when the thread (or the wake-up it writes to) could not be made.
int StartSignalThread();

// The archive file a backup writes: made under a temporary name beside the
// final one and given the final name only when the run ends with a whole
// archive.
#pragma once

// The archive descriptor shared by the workers; -1 when none is open.
extern int ArchiveDescriptor;

// The archive a backup writes is made under a temporary name beside the
// final one and renamed onto it only when the run ends with a whole
// archive, so an existing archive of that name is never harmed by a run
// that fails or dies. The path must be a regular file or a new name.
// 0, or -1 after a message (nothing made).
int PrepareArchiveFile(const char* path);
// Flushes the archive to disk and gives it its final name. 0, or -1 after a
// message (the temporary file is then removed).
int CommitArchiveFile();
// Removes the temporary file of a run that failed. Harmless without one.
void DiscardArchiveFile();

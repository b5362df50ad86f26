// The backup run mode: plans the backup by listing the server, runs the
// workers that save into the archive, reports the totals and keeps or
// drops the archive.
#pragma once

struct FtpSession;

// The backup run mode: the exit status (0, 1 or 2), or -1 when the archive
// or the lists cannot be made. Uses the archive PrepareArchiveFile made
// (archive/archive_file.h), or prepares it itself. Ends the process with
// TerminationStatus() after a termination request.
int BackupDriver(FtpSession* session);

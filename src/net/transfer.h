// Moving the bytes of one data transfer over the open data connection: the
// download and upload loops, bounded by --timeout and by the grace after a
// termination request.
#pragma once

struct FtpConnection;

// Moves the bytes of one data transfer in the receive direction (LIST,
// RETR): the count holds the bytes in the buffer, the callback consumes
// them. Non-zero aborts the transfer.
using DataCallback = int (*)(void* argument, char* buffer, int* count);

// The send direction (STOR): the count holds the buffer's capacity, the
// callback puts up to that many bytes at its start and sets the count (0 or
// less: end of data). *bytes points at the buffer; a callback that already
// holds the bytes in memory of its own may point it there instead, and
// then owes them unchanged until its next call or the transfer's end,
// which saves copying every byte once more. Non-zero aborts the transfer.
using SendCallback = int (*)(void* argument, char* buffer, int* count, const char** bytes);

// Maps the data record's transfer buffer on first use. 0, or -1 after a
// message.
int EnsureTransferBuffer(FtpConnection* data);
// Download: reads the data connection to its end, handing whole buffers to
// the callback. 0 when the data ended normally; -1 when the transfer failed
// (the data socket is closed either way).
int ReceiveData(FtpConnection* control, DataCallback callback, void* argument);
// Upload: writes what the callback gives until it gives no more, then
// closes the data socket (the server's end of file). 0, or -1.
int SendData(FtpConnection* control, SendCallback callback, void* argument);

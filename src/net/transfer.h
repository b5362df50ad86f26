// Moving the bytes of one data transfer over the open data connection: the
// download and upload loops, bounded by --timeout and by the grace after a
// termination request.
#pragma once

struct FtpConnection;

// Moves the bytes of one data transfer. Receive direction (LIST, RETR): the
// count holds the bytes in the buffer, the callback consumes them. Send
// direction (STOR): the count holds the buffer's capacity, the callback puts
// up to that many bytes at its start and sets the count (0 or less: end of
// data). Non-zero aborts the transfer.
using DataCallback = int (*)(void* argument, char* buffer, int* count);

// Maps the data record's transfer buffer on first use. 0, or -1 after a
// message.
int EnsureTransferBuffer(FtpConnection* data);
// Download: reads the data connection to its end, handing whole buffers to
// the callback. 0 when the data ended normally; -1 when the transfer failed
// (the data socket is closed either way).
int ReceiveData(FtpConnection* control, DataCallback callback, void* argument);
// Upload: writes what the callback gives until it gives no more, then
// closes the data socket (the server's end of file). 0, or -1.
int SendData(FtpConnection* control, DataCallback callback, void* argument);

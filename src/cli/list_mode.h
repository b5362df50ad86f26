// List mode (--list): the full path of every object directly under each
// include path, written to the --list stream one per line.
#pragma once

struct FtpSession;

// Lists every include path (or "/" without an include file). 0, or -1
// when a listing failed or the include file names nothing.
int ListMode(FtpSession* session);

// State of one listing in list mode: the part of a listing line that has
// arrived so far (a line may be split over data chunks).
struct ListPrinterContext {
  const char* include_path;
  int pending_length;
  char pending[4097];
  bool after_line_end;  // the last chunk ended inside a line end
};
// Takes one chunk of listing data (the callback of ListDirectory) and
// prints the object of every line it completes. 0 or -1.
int ListPrinter(void* context, char* data, int* count);
// Prints the listing's last line when the server ended it without a line
// end. 0, or -1 when its path is too long.
int FinishListPrinter(ListPrinterContext* context);

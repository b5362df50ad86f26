// Closing an archive entry once its data is in: where an entry's header is
// written.
#pragma once

#include "archive/writer.h"

struct ObjectFile;

// Closes the entry whose data the retrieval has written behind the old end
// block: the last block padded with zeros, a new end block behind it, and
// the header (the object's name, mode and time, and the data's size) over
// the old end block. Nothing of it counts until the header is in place; a
// write that fails leaves the cut-back to the guard. 0, or -1 after a
// message.
int CloseEntry(ArchiveAppend* append, const ObjectFile* object);

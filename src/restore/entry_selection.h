// Which objects of an archive entry a restore puts back: what the include
// file names (everything without one), less what the exclude file names.
#pragma once

struct StringList;

// The objects of the entry `name` to restore, as pairs of a path and an
// optional new location, in the order the include file gives them (the
// entry's own name alone without an include file). nullptr when the include
// and exclude files leave nothing of the entry; with -v that is said on
// standard error. The caller frees the list.
StringList* SelectEntryObjects(const char* name);

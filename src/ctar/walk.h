// Walking an archive header after header from its start, the way a
// restore reads it (list, extract); a pipe will do.
#pragma once

#include <functional>

#include "ctar/archive_input.h"
#include "ctar/entry_view.h"

namespace ctar {

// The data of one entry, taken by the sequential reader: skipped, or copied
// to out (a descriptor; -1 skips). Complains of what went wrong; a status.
int TakeData(Archive& archive, const EntryView& view, int out);

// Header after header from the start, as a restore reads them; on_entry
// must take the entry's data (TakeData) and gives a status, non-zero ending
// the walk. what names the walk on the progress line. A status.
int WalkArchive(Archive& archive, const char* what,
                const std::function<int(const EntryView&)>& on_entry);

}  // namespace ctar

// The include list: the tree of everything a backup saves, made from the
// include file's paths (or the server's root) by listing and walking.
#pragma once

#include <cstdint>

#include "backup/object_tree.h"

struct FtpSession;

// Include paths that brought nothing to save (nothing matched, or the path
// was unusable): each counts as one failed object.
extern uint64_t IncludesMissed;

// The tree of everything to back up: the special objects, each include path
// resolved by listing its directory, then every directory walked.
ObjectNode* BuildIncludeList(FtpSession* session);

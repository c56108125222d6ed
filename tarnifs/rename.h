// Rename and move. Within /Storage, and within one app folder, a rename is
// one device rename: nothing is copied, and a name that is replaced is
// replaced in that same step, so its old or its new content is always there.
// Moves between areas or between apps are answered EXDEV for now: the host
// then copies and removes by itself, through file data and unlink.
#pragma once

#include "tarnifs/mount.h"

// The FUSE rename: 0 or a negative errno; -ECANCELED after a dialog.
int tarnifs_rename(const char *from, const char *to);

// The move into an app folder. For now it carries renames within one app
// only (the rename dispatch sends it nothing else): 0 or a device error.
int movetoapps(_CONTEXT *ctx, const char *from, const char *to);

// Above this size a file's move is long and the tray is told it is busy.
constexpr uint64_t kLongMoveBytes = 3000000;

// Rename and move. Within /Storage, and within one app folder, a rename is
// one device rename: nothing is copied, and a name that is replaced is
// replaced in that same step, so its old or its new content is always there.
// Between /Storage and an app, and between apps, a move copies and then
// removes (tarnifs/move.h). Media items, whole areas and app folders answer
// EXDEV: the host then copies (and removes what may go) by itself.
#pragma once

#include "tarnifs/mount.h"

// The FUSE rename: 0 or a negative errno; -ECANCELED after a dialog.
int tarnifs_rename(const char *from, const char *to);

// The move into an app folder: a device rename within one app, a copy and
// removal from /Storage or another app. 0 or a device error.
int movetoapps(_CONTEXT *ctx, const char *from, const char *to);

// Above this size a file's move is long and the tray is told it is busy.
constexpr uint64_t kLongMoveBytes = 3000000;

// Moves that copy, between /Storage and an app folder and between two apps:
// a source is removed only after its whole copy is on the device, its size
// checked, and a file it replaces is replaced in one device step.
#pragma once

#include <string>

#include "tarnifs/mount.h"

// One end of a move: the mount's AFC connection for /Storage, or a
// house-arrest client of its own for an app folder.
struct MoveSide {
    libiusb_afc *afc = nullptr;
    bool app = false;
    std::string appId;
    // A /Media source: read from its items' device paths on the media
    // connection, and never removed (the library is read only).
    bool media = false;
};

// Opens one end. `otherAppSource`: the source of a move between two apps,
// whose client failures are logged in that move's own words. 0 or an error.
int OpenMoveSide(_CONTEXT *ctx, const char *path, MoveSide *side, const char *caller, bool otherAppSource = false);
// Ends an app's client; the result of its exit (0 for other ends).
int CloseMoveSide(MoveSide *side, const char *caller, bool otherAppSource = false);

// Carries the file or folder `from` (with everything below it) to `to`, then
// removes it. 0 or a device error; logged under `caller` ("movetostorage" or
// "movetoapps"), each step in that routine's words for where the source
// lies. A source that cannot be removed once its copy is whole and in place
// stays and is only logged: the move has succeeded. A copy that fails leaves
// no hidden partial copy behind while the device answers. The volume's free
// figure loses each copy's size and gains each removed source's. Lock held.
int MoveByCopy(_CONTEXT *ctx, const char *from, const char *to, const char *caller);

// "/Apps" into `to` in /Storage: a folder there with one folder per app,
// each app's documents moved into it (the apps and their Documents folders
// stay). 0 or a device error.
int CopyAppsArea(_CONTEXT *ctx, const char *to);

// A /Media item or folder copied (it stays), or an app's file or folder
// moved, into /Storage. 0 or a device error.
int movetostorage(_CONTEXT *ctx, const char *from, const char *to);

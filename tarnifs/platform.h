// The one place where macOS and Linux differ. Linux is what runs and is
// tested; the macOS side keeps the capability bits and the setattr_x family.
#pragma once

#define FUSE_USE_VERSION 31
#include <fuse.h>  // libfuse 3

#include <cerrno>

#ifndef ENOATTR
// Linux reports a missing extended attribute as ENODATA.
#define ENOATTR ENODATA
#endif

// The fuse context the handlers see. In a mounted file system this is
// fuse_get_context(); unit tests install their own so that handlers can be
// called directly, without a mount.
struct fuse_context *currentFuseContext();
void SetFuseContextForTesting(struct fuse_context *context);  // null: back to FUSE's own

// Ctrl-C, SIGTERM and SIGHUP end the mount as an unmount does: libfuse 3's
// own handlers would make the process report a stop by signal as a failure
// (exit status 8), where it is the ordinary way to end a foreground mount.
// Installed before FUSE starts; the session is named once it exists.
void InstallStopSignalHandlers();
void StopSignalsEndSession(struct fuse *fuse);

// How long the kernel may keep names and attributes without asking again.
// The catalogue never forgets a listed folder, and every change made through
// the mount updates or invalidates what the kernel holds, so a long time is
// safe: a folder listed again soon costs no request per entry.
constexpr double kKernelCacheSeconds = 3600.0;

// Tells the kernel to drop what it caches of `path` (attributes and data), so
// that its next question reaches the file system; does nothing outside a
// mount. Dropping cached pages waits for every read and write in flight on
// them, and those wait for tarni_mutex: so a handler holding the lock only
// notes the path, and the kernel is told when the handler lets the lock go
// (before it answers, while libfuse still knows the path as named). Those
// reads and writes may also wait for libfuse's hold on the paths above them
// (a rename or removal in progress, or one queued): so it is never called for
// a file that is open, nor from a rename.
void InvalidateKernelView(const char *path);
// The bookkeeping of TarniLock: paths noted while this thread holds the lock
// are sent by SendDeferredKernelInvalidations, called after the unlock.
void EnterLockedHandler();
void LeaveLockedHandler();
void SendDeferredKernelInvalidations();

// Linux keeps "security.*" and "system.*" attributes for the kernel's own
// use; this volume never stores them and answers "not supported".
bool IsKernelXattrName(const char *name);

// The one place where macOS and Linux differ. Linux is what runs and is
// tested; the macOS side keeps the capability bits and the setattr_x family.
#pragma once

#define FUSE_USE_VERSION 26
#include <fuse.h>

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

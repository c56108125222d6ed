// JPEG views of HEIC stills (mount option "jpeg"): each HEIC or HEIF still of
// /Media/Photo is listed as "<base>.JPG" and converted when it is first
// asked about, by a pool of workers that never hold the global lock.
// docs/jpeg-views.md says why sizes are exact and how the cache is bounded.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tarnifs/mount.h"

// Set from the mount options before FUSE starts.
extern bool gJpegViews;

// What a still is encoded with: libjpeg-turbo at this quality, chroma 4:2:0.
constexpr int kJpegViewQuality = 90;
// Converted files kept in the work folder, at most this many bytes together
// (the oldest used is dropped first). QUORVEL_JPEG_CACHE_MB overrides it.
constexpr uint64_t kJpegViewCacheBytes = 1024ull << 20;
// Stills of a folder converted ahead of the one asked for.
constexpr size_t kJpegViewPrefetch = 6;

// Whether the device file is an HEIC or HEIF still (by its extension).
bool IsHeifStillPath(const std::string &devicePath);
// The name its JPEG view is listed under: the extension replaced by "JPG".
std::string JpegViewName(const std::string &name);

// Decodes an HEIC/HEIF file (rotation and mirroring applied) and encodes it
// as a baseline JPEG with its Exif block (orientation set to 1) as APP1 and
// its ICC profile as APP2. False with *why set when it cannot.
bool ConvertHeifToJpeg(const void *heif, size_t size, std::string *jpeg, std::string *why);

// Has malloc keep the large buffers of conversions for the next one
// (about 100 MB a worker stays with the process). StartJpegViews calls it.
void KeepConversionMemory();

// The converter of this mount: its own device connection, its workers and
// the cache folder (work folder + "/jpeg"). Started at the first listing
// that shows a view (the lock is held), stopped at unmount.
void StartJpegViews(_CONTEXT *ctx);
void StopJpegViews();

// A listing showed these stills (device paths) in this order: asking for
// one converts the next few too.
void NoteJpegViewFolder(const std::vector<std::string> &devicePaths);
// The exact size of a view converted before (0 when it never was).
uint64_t KnownJpegViewSize(const std::string &devicePath);
// Converts the view now (ahead of the background work) unless it is in the
// cache, and waits for it. Never call with the global lock held on a path
// that other requests wait for: it may take a second. 0 with *size and *file
// (the cached JPEG) set, or -EIO (logged). With `pin`, the file stays in the
// cache until ReleaseJpegView, so that it can be opened or copied.
int AwaitJpegView(const std::string &devicePath, uint64_t *size, std::string *file, bool pin = false);
void ReleaseJpegView(const std::string &devicePath);

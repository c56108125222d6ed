// The information queries of a large folder listing: each entry's information
// asked on an information stream, hundreds of requests in flight, by the
// listing's own thread, which keeps the catalogue to itself. Without a stream
// (a phone that opens no more services) each entry is asked over the
// listing's own connection, one at a time: slower, the same answers.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "device/libiusb.h"
#include "tarnifs/mount.h"

// A folder with more entries than this (dot names left out) has their
// information asked on a stream; a smaller one keeps to its own connection
// and costs no extra one.
constexpr size_t kStreamedListingEntries = 64;
// Requests a stream has in flight at most; more are asked once half have been
// answered, so requests go out in bulk.
constexpr size_t kStreamInFlight = 256;

// What libiusb_afc_file_get_info answered for one entry.
struct EntryInfo {
    int result = 0;
    libiusb_file_info info{};
};

// The queries of one listing. The caller fills `folder` (empty when the names
// are whole paths) and `names` (device order; the names stay the caller's, or
// live in `name_text`), `connection`, and `stream` when it has one. An entry's
// path is made when it is asked for: a million full paths kept at once would
// cost more than the records.
struct InfoQueries {
    std::string folder;
    std::vector<const char *> names;
    std::string name_text;  // the names one after another, each with its NUL, when copied here
    libiusb_afc *connection = nullptr;
    // Once it fails, the entries left are asked over `connection`.
    libiusb_afc_info_stream *stream = nullptr;
    size_t stream_asked = 0;   // entries asked on the stream
    size_t stream_taken = 0;   // answers taken from it
    bool stream_lost = false;
};

// The answer for entry `index` (ask in increasing order, each once).
EntryInfo infoOf(InfoQueries &queries, size_t index);
// Reads and drops what the stream still owes for entries not taken, so that
// it can serve the next listing.
void finishInfoQueries(InfoQueries &queries);

// The Storage information stream of large listings: made at the first one,
// kept for the next; null (logged) when the device will not give one.
libiusb_afc_info_stream *storageInfoStream(_CONTEXT *ctx);
// Closes and forgets the Storage stream when it was lost during `queries`;
// the next large listing makes a new one.
void dropLostStorageStream(_CONTEXT *ctx, const InfoQueries &queries);
// Closes the Storage stream (when idle connections are given up, and at
// unmount before afc_handle).
void closeStorageInfoStream(_CONTEXT *ctx);

// The information queries of a large folder listing, spread over several AFC
// connections to the device so that their round trips overlap. The calling
// thread keeps the catalogue to itself: the worker threads only ask the device
// and hand back each entry's answer, taken by the caller in device order.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "device/libiusb.h"
#include "tarnifs/mount.h"

// A folder with more entries than this (dot names left out) has their
// information asked over several connections; a smaller one keeps to its own
// connection and costs no extra ones.
constexpr size_t kPooledListingEntries = 64;
// Connections a large listing asks over, its own one included.
constexpr size_t kListingConnections = 4;
// Answers the workers may hold before the caller takes them.
constexpr size_t kAnswerWindow = 65536;
// Requests an information stream has in flight at most; more are asked once
// half have been answered, so requests go out in bulk.
constexpr size_t kStreamInFlight = 256;

// What libiusb_afc_file_get_info answered for one entry.
struct EntryInfo {
    int result = 0;
    libiusb_file_info info{};
};

// The queries of one listing. The caller fills `folder` and `names` (device
// order; the names stay the caller's, or live in `name_text`) and
// `connections` (its own connection first), then starts them. An entry's path
// is made when it is asked for: a million full paths kept at once would cost
// more than the records.
struct InfoQueries {
    std::string folder;
    std::vector<const char *> names;
    std::string name_text;  // the names one after another, each with its NUL, when copied here
    std::vector<libiusb_afc *> connections;
    size_t window = kAnswerWindow;
    // When set, the caller asks on it alone, with requests in flight, and no
    // worker starts; once it fails, the entries left are asked over
    // connections[0] one at a time.
    libiusb_afc_info_stream *stream = nullptr;
    size_t stream_asked = 0;   // entries asked on the stream
    size_t stream_taken = 0;   // answers taken from it
    bool stream_lost = false;

    // Filled by the workers; the rest is the workers' bookkeeping. Answers
    // wait in a ring of `window` slots (entry i in slot i % window):
    // workers do not run further ahead of the caller than that, so a listing
    // of a million entries never holds a million answers.
    std::mutex lock;
    std::condition_variable answered_one;
    std::condition_variable taken_one;
    std::vector<EntryInfo> answers;   // guarded by lock
    std::vector<char> answered;       // guarded by lock
    size_t taken = 0;                 // guarded by lock: entries the caller has taken
    size_t waiting = 0;               // guarded by lock: workers waiting for a free slot
    std::vector<char> lost;           // per connection, guarded by lock: it reported the connection lost
    size_t asking = 0;                // guarded by lock: workers still taking entries
    std::atomic<size_t> next{0};
    std::atomic<bool> stopping{false};
    std::vector<std::thread> workers;
};

// With one connection nothing starts: each entry is asked when the caller
// wants it, exactly as a serial walk does. With more, one worker per
// connection takes the entries in turn.
void startInfoQueries(InfoQueries &queries);
// The answer for entry `index` (ask in increasing order), waiting for it when
// a worker has not delivered it yet.
EntryInfo infoOf(InfoQueries &queries, size_t index);
// Stops the workers once their current query returns and waits for them;
// answers not taken yet are dropped (a stream's are read and dropped, so
// that it can serve the next listing).
void finishInfoQueries(InfoQueries &queries);

// The extra Storage connections for a large listing: those the mount already
// keeps, topped up to kListingConnections - 1 with new ones. A connection that
// cannot be made is logged and the listing goes on with fewer.
std::vector<libiusb_afc *> storageListingConnections(_CONTEXT *ctx);
// The Storage information stream of large listings: made at the first one,
// kept for the next; null (logged) when the device will not give one.
libiusb_afc_info_stream *storageInfoStream(_CONTEXT *ctx);
// Closes and forgets the extra Storage connections (and the stream) that
// reported the connection lost during `queries`; the next large listing makes
// new ones.
void dropLostStorageConnections(_CONTEXT *ctx, const InfoQueries &queries);
// Closes every extra Storage connection and the stream (at unmount, before
// afc_handle).
void closeStorageListingConnections(_CONTEXT *ctx);

// Extra house-arrest connections into the app `app_id`, for one listing of
// its documents: up to `wanted`, fewer when the device will not give them.
std::vector<libiusb_afc *> openAppListingConnections(_CONTEXT *ctx, const char *app_id, size_t wanted);
void closeAppListingConnections(std::vector<libiusb_afc *> &connections);

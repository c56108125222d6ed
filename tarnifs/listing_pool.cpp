#include "tarnifs/listing_pool.h"

#include <algorithm>
#include <system_error>

#include "util/log.h"

namespace {

// An empty folder: the names are whole paths.
const char *folderOf(const InfoQueries &queries) { return queries.folder.empty() ? nullptr : queries.folder.c_str(); }

EntryInfo askOne(InfoQueries &queries, libiusb_afc *afc, size_t index) {
    std::string path = queries.folder.empty() ? queries.names[index] : queries.folder + "/" + queries.names[index];
    EntryInfo answer;
    answer.result = libiusb_afc_file_get_info(afc, path.c_str(), &answer.info);
    return answer;
}

// One worker: takes the next entry nobody has taken, asks the device over its
// own connection, hands the answer over, until the entries run out or the
// caller stops.
void askEntries(InfoQueries *queries, size_t connection) {
    libiusb_afc *afc = queries->connections[connection];
    for (;;) {
        if (queries->stopping.load()) break;
        size_t index = queries->next.fetch_add(1);
        if (index >= queries->names.size()) break;
        {
            // The caller takes answers in order: this one's slot is free once
            // the caller is less than a window behind.
            std::unique_lock<std::mutex> guard(queries->lock);
            ++queries->waiting;
            queries->taken_one.wait(guard, [&] { return index < queries->taken + queries->window || queries->stopping.load(); });
            --queries->waiting;
            if (queries->stopping.load()) break;
        }
        EntryInfo answer = askOne(*queries, afc, index);
        bool retire = false;
        {
            std::lock_guard<std::mutex> guard(queries->lock);
            queries->answers[index % queries->window] = answer;
            queries->answered[index % queries->window] = 1;
            if (answer.result == LIBIUSB_ERROR_CONNECTION_LOST) {
                queries->lost[connection] = 1;
                // A dead connection fails at once and would take every entry
                // left; the others take them instead. The last worker asking
                // goes on, so every entry gets an answer.
                retire = queries->asking > 1;
            }
            if (retire) --queries->asking;
        }
        queries->answered_one.notify_one();
        if (retire) return;
    }
    std::lock_guard<std::mutex> guard(queries->lock);
    --queries->asking;
}

// The next answer of the stream, asking the next entries first when fewer
// than half the requests it may have in flight are left.
EntryInfo streamAnswer(InfoQueries &queries, size_t index) {
    if (queries.stream_asked < index + kStreamInFlight / 2) {
        size_t until = std::min(queries.names.size(), index + kStreamInFlight);
        for (; queries.stream_asked < until; ++queries.stream_asked)
            libiusb_afc_info_stream_ask(queries.stream, folderOf(queries), queries.names[queries.stream_asked]);
    }
    EntryInfo answer;
    answer.result = libiusb_afc_info_stream_answer(queries.stream, &answer.info);
    ++queries.stream_taken;
    return answer;
}

} // namespace

void startInfoQueries(InfoQueries &queries) {
    if (queries.stream != nullptr || queries.connections.size() < 2) return;
    size_t slots = std::min(queries.names.size(), queries.window);
    queries.answers.assign(slots, EntryInfo());
    queries.answered.assign(slots, 0);
    queries.taken = 0;
    queries.lost.assign(queries.connections.size(), 0);
    for (size_t connection = 0; connection < queries.connections.size(); ++connection) {
        {
            std::lock_guard<std::mutex> guard(queries.lock);
            ++queries.asking;
        }
        try {
            queries.workers.emplace_back(askEntries, &queries, connection);
        } catch (const std::system_error &error) {
            // The workers already running take every entry; with none, the
            // caller asks over its own connection.
            QNLog(3, "%s worker thread not started. error : %d", "startInfoQueries", error.code().value());
            std::lock_guard<std::mutex> guard(queries.lock);
            --queries.asking;
            break;
        }
    }
}

EntryInfo infoOf(InfoQueries &queries, size_t index) {
    if (queries.stream != nullptr && !queries.stream_lost) {
        EntryInfo answer = streamAnswer(queries, index);
        if (answer.result != LIBIUSB_ERROR_CONNECTION_LOST) return answer;
        // A request that was under way may or may not have been answered:
        // asking again for information changes nothing on the device.
        QNLog(3, "%s the information stream is lost; the rest of %s is asked one entry at a time", "infoOf",
              queries.folder.c_str());
        queries.stream_lost = true;
    }
    if (queries.workers.empty()) return askOne(queries, queries.connections[0], index);
    EntryInfo answer;
    bool waited;
    {
        std::unique_lock<std::mutex> guard(queries.lock);
        size_t slot = index % queries.window;
        queries.answered_one.wait(guard, [&] { return queries.answered[slot] != 0; });
        answer = queries.answers[slot];
        queries.answered[slot] = 0;
        queries.taken = index + 1;
        waited = queries.waiting > 0;
    }
    if (waited) queries.taken_one.notify_all();
    return answer;
}

void finishInfoQueries(InfoQueries &queries) {
    // A walk that stopped early leaves answers owed: read now, they cannot be
    // taken for the next listing's.
    while (queries.stream != nullptr && !queries.stream_lost && queries.stream_taken < queries.stream_asked) {
        libiusb_file_info ignored;
        if (libiusb_afc_info_stream_answer(queries.stream, &ignored) == LIBIUSB_ERROR_CONNECTION_LOST)
            queries.stream_lost = true;
        ++queries.stream_taken;
    }
    {
        std::lock_guard<std::mutex> guard(queries.lock);
        queries.stopping = true;
    }
    queries.taken_one.notify_all();
    for (std::thread &worker : queries.workers) worker.join();
    queries.workers.clear();
}

std::vector<libiusb_afc *> storageListingConnections(_CONTEXT *ctx) {
    while (ctx->listing_afc_handles.size() + 1 < kListingConnections) {
        libiusb_afc *afc = nullptr;
        int result = libiusb_afc_init(ctx->device_handle, &afc);
        if (result != 0 || afc == nullptr) {
            // The next one would most likely be refused too.
            QNLog(3, "%s libiusb_afc_init failed. code : %d", "storageListingConnections", result);
            break;
        }
        ctx->listing_afc_handles.push_back(afc);
    }
    return ctx->listing_afc_handles;
}

libiusb_afc_info_stream *storageInfoStream(_CONTEXT *ctx) {
    if (ctx->listing_stream == nullptr) {
        int result = libiusb_afc_info_stream_open(ctx->device_handle, &ctx->listing_stream);
        if (result != 0) QNLog(3, "%s libiusb_afc_info_stream_open failed. code : %d", "storageInfoStream", result);
    }
    return ctx->listing_stream;
}

void dropLostStorageConnections(_CONTEXT *ctx, const InfoQueries &queries) {
    if (queries.stream_lost && queries.stream == ctx->listing_stream) {
        libiusb_afc_info_stream_close(ctx->listing_stream);
        ctx->listing_stream = nullptr;
    }
    // connections[0] is afc_handle, which the mount keeps whatever happens.
    for (size_t connection = 1; connection < queries.lost.size(); ++connection) {
        if (queries.lost[connection] == 0) continue;
        auto &kept = ctx->listing_afc_handles;
        auto found = std::find(kept.begin(), kept.end(), queries.connections[connection]);
        if (found == kept.end()) continue;
        libiusb_afc_exit(*found);
        kept.erase(found);
    }
}

void closeStorageListingConnections(_CONTEXT *ctx) {
    libiusb_afc_info_stream_close(ctx->listing_stream);
    ctx->listing_stream = nullptr;
    for (libiusb_afc *afc : ctx->listing_afc_handles) libiusb_afc_exit(afc);
    ctx->listing_afc_handles.clear();
}

std::vector<libiusb_afc *> openAppListingConnections(_CONTEXT *ctx, const char *app_id, size_t wanted) {
    std::vector<libiusb_afc *> connections;
    while (connections.size() < wanted) {
        libiusb_afc *afc = nullptr;
        int result = libiusb_housearrest_init(ctx->device_handle, &afc);
        if (result != 0) {
            QNLog(3, "%s libiusb_housearrest_init failed. error : %d", "openAppListingConnections", result);
            break;
        }
        result = libiusb_housearrest_openapp(afc, app_id);
        if (result != 0) {
            QNLog(3, "%s libiusb_housearrest_openapp failed. error : %d", "openAppListingConnections", result);
            libiusb_housearrest_exit(afc);
            break;
        }
        connections.push_back(afc);
    }
    return connections;
}

void closeAppListingConnections(std::vector<libiusb_afc *> &connections) {
    for (libiusb_afc *afc : connections) {
        int result = libiusb_housearrest_exit(afc);
        if (result != 0) QNLog(3, "%s libiusb_housearrest_exit failed. error : %d", "closeAppListingConnections", result);
    }
    connections.clear();
}

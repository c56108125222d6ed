#include "tarnifs/info_queries.h"

#include <algorithm>

#include "util/log.h"

namespace {

// An empty folder: the names are whole paths.
const char *folderOf(const InfoQueries &queries) { return queries.folder.empty() ? nullptr : queries.folder.c_str(); }

EntryInfo askOne(InfoQueries &queries, size_t index) {
    std::string path = queries.folder.empty() ? queries.names[index] : queries.folder + "/" + queries.names[index];
    EntryInfo answer;
    answer.result = libiusb_afc_file_get_info(queries.connection, path.c_str(), &answer.info);
    return answer;
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
    return askOne(queries, index);
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
}

libiusb_afc_info_stream *storageInfoStream(_CONTEXT *ctx) {
    if (ctx->listing_stream == nullptr) {
        int result = libiusb_afc_info_stream_open(ctx->device_handle, &ctx->listing_stream);
        if (result != 0) QNLog(3, "%s libiusb_afc_info_stream_open failed. code : %d", "storageInfoStream", result);
    }
    return ctx->listing_stream;
}

void dropLostStorageStream(_CONTEXT *ctx, const InfoQueries &queries) {
    if (queries.stream_lost && queries.stream == ctx->listing_stream) closeStorageInfoStream(ctx);
}

void closeStorageInfoStream(_CONTEXT *ctx) {
    libiusb_afc_info_stream_close(ctx->listing_stream);
    ctx->listing_stream = nullptr;
}

// Splitting what arrives on the tray pipe into messages, for `quorvel tray`
// (which prints them) and `quorvel watch` (which sums them up). A FIFO read
// may end in the middle of a message; what is incomplete stays in the stream
// for the next read. Messages from several writers arrive whole, since each
// is one write smaller than the pipe's atomic size.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tarnifs/notify.h"

namespace quorvel_tools {

enum class PipeMessageKind { BusyOn, BusyOff, Transfer, UnreadableBatch, Unknown };

struct PipeMessage {
    PipeMessageKind kind;
    _KTL_PIPE_DATA_BOX_FS_VALUE record{};  // Transfer
    size_t amount = 0;                     // UnreadableBatch: its count; Unknown: bytes skipped
};

inline bool pipeTextAt(const std::string &stream, size_t at, const char *text) {
    return stream.compare(at, strlen(text), text) == 0;
}

// True when the bytes from `at` to the end could still grow into `text`.
inline bool pipeTextCouldBecome(const std::string &stream, size_t at, const char *text) {
    size_t left = stream.size() - at;
    return left < strlen(text) && stream.compare(at, left, text, left) == 0;
}

// Appends every complete message at the front of `stream` to *out and drops it.
inline void takePipeMessages(std::string &stream, std::vector<PipeMessage> *out) {
    const char *busyOn = "-neon";
    const char *busyOff = "-neoff";
    const char *batch = "-ncdat";
    size_t at = 0;
    while (at < stream.size()) {
        if (pipeTextAt(stream, at, batch)) {
            if (stream.size() - at < kBatchHeaderBytes) break;
            uint32_t count = 0;
            memcpy(&count, stream.data() + at + kBatchCountOffset, sizeof(count));
            if (count == 0 || count > kBatchMaxRecords) {
                PipeMessage bad{PipeMessageKind::UnreadableBatch};
                bad.amount = count;
                out->push_back(bad);
                at += strlen(batch);
                continue;
            }
            size_t length = kBatchHeaderBytes + count * sizeof(_KTL_PIPE_DATA_BOX_FS_VALUE);
            if (stream.size() - at < length) break;
            for (uint32_t i = 0; i < count; ++i) {
                PipeMessage transfer{PipeMessageKind::Transfer};
                memcpy(&transfer.record, stream.data() + at + kBatchHeaderBytes + i * sizeof(transfer.record),
                       sizeof(transfer.record));
                out->push_back(transfer);
            }
            at += length;
        } else if (pipeTextAt(stream, at, busyOff)) {
            out->push_back({PipeMessageKind::BusyOff});
            at += strlen(busyOff);
        } else if (pipeTextAt(stream, at, busyOn)) {
            out->push_back({PipeMessageKind::BusyOn});
            at += strlen(busyOn);
        } else if (pipeTextCouldBecome(stream, at, busyOn) || pipeTextCouldBecome(stream, at, busyOff) ||
                   pipeTextCouldBecome(stream, at, batch)) {
            break;
        } else {
            // Not ours: skip to where the next message may begin.
            size_t next = stream.find('-', at + 1);
            if (next == std::string::npos) next = stream.size();
            PipeMessage unknown{PipeMessageKind::Unknown};
            unknown.amount = next - at;
            out->push_back(unknown);
            at = next;
        }
    }
    stream.erase(0, at);
}

} // namespace quorvel_tools

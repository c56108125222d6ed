// Information streams: an AFC connection of their own (the media root, or an
// app's documents through house-arrest) on which many file-information
// requests are sent before the first answer is read. The
// device answers a connection's requests one after another, in order, so a
// listing of a million entries costs a few thousand writes and reads instead
// of a million round trips. libimobiledevice's AFC client waits for each
// answer before it sends the next request, so the two packets involved are
// framed here.
#include <libimobiledevice/service.h>
#include <plist/plist.h>

#include <endian.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "device/device_internal.h"

namespace {

constexpr char kAfcMagic[] = "CFA6LPAA";
constexpr uint64_t kHeaderBytes = 40;
constexpr uint64_t kOpStatus = 0x01;
constexpr uint64_t kOpData = 0x02;
constexpr uint64_t kOpGetFileInfo = 0x0A;
constexpr uint64_t kOpFileOpenResult = 0x0E;
constexpr uint64_t kOpFileTellResult = 0x12;
// A file-information answer is a few short key/value pairs; a header that
// claims more than this is not one, and the stream is out of step for good.
constexpr uint64_t kLargestAnswer = 64 * 1024;
// Requests are written out once this much is waiting, and before any answer
// is read.
constexpr size_t kSendAtBytes = 64 * 1024;
constexpr unsigned kReceiveTimeoutMs = 30000;
// Room for one read: many answers at once.
constexpr size_t kReceiveRoom = 256 * 1024;

void putLittle64(std::string *out, uint64_t value) {
    uint64_t little = htole64(value);
    out->append(reinterpret_cast<const char *>(&little), sizeof little);
}

uint64_t little64At(const char *bytes) {
    uint64_t value;
    memcpy(&value, bytes, sizeof value);
    return le64toh(value);
}

} // namespace

struct libiusb_afc_info_stream {
    service_client_t service = nullptr;
    std::string unsent;              // framed requests not written yet
    std::vector<char> received;      // read into; bytes [consumed, filled) are not consumed yet
    size_t consumed = 0;
    size_t filled = 0;
    uint64_t next_packet = 0;        // the number of the next request
    uint64_t next_answer = 0;        // the number the next answer must carry
    int failure = LIBIUSB_SUCCESS;   // once set, every answer is this
};

namespace {

int fail(libiusb_afc_info_stream *stream, int result) {
    stream->failure = result;
    return result;
}

int sendWaiting(libiusb_afc_info_stream *stream) {
    size_t done = 0;
    while (done < stream->unsent.size()) {
        uint32_t sent = 0;
        uint32_t piece = static_cast<uint32_t>(std::min<size_t>(stream->unsent.size() - done, 1u << 30));
        if (service_send(stream->service, stream->unsent.data() + done, piece, &sent) != SERVICE_E_SUCCESS ||
            sent == 0)
            return fail(stream, LIBIUSB_ERROR_CONNECTION_LOST);
        done += sent;
    }
    stream->unsent.clear();
    return LIBIUSB_SUCCESS;
}

// Makes sure `bytes` unconsumed bytes are at hand, reading as much as the
// connection has (many answers at once) when they are not. The buffer is
// sized once, not per read: only an answer cut by the previous read moves.
int haveBytes(libiusb_afc_info_stream *stream, size_t bytes) {
    while (stream->filled - stream->consumed < bytes) {
        std::vector<char> &buffer = stream->received;
        size_t left = stream->filled - stream->consumed;
        if (left > 0) memmove(buffer.data(), buffer.data() + stream->consumed, left);
        stream->consumed = 0;
        stream->filled = left;
        buffer.resize(std::max({buffer.size(), bytes, kReceiveRoom}));
        uint32_t got = 0;
        service_error_t read = service_receive_with_timeout(stream->service, buffer.data() + left,
                                                            static_cast<uint32_t>(buffer.size() - left), &got,
                                                            kReceiveTimeoutMs);
        if (read != SERVICE_E_SUCCESS || got == 0) return fail(stream, LIBIUSB_ERROR_CONNECTION_LOST);
        stream->filled += got;
    }
    return LIBIUSB_SUCCESS;
}

// The pairs of a data answer, as afc_get_file_info hands them on: every
// NUL-terminated string in turn (an unterminated last one is left out).
std::vector<const char *> pairsOf(const char *data, size_t length) {
    std::vector<const char *> pairs;
    size_t start = 0;
    for (size_t at = 0; at < length; ++at) {
        if (data[at] != '\0') continue;
        pairs.push_back(data + start);
        start = at + 1;
    }
    pairs.push_back(nullptr);
    return pairs;
}

} // namespace

int parseInfoAnswer(const char *bytes, size_t available, uint64_t packet_number, size_t *length,
                    libiusb_file_info *info) {
    *length = kHeaderBytes;
    if (available < kHeaderBytes) return kInfoAnswerIncomplete;
    uint64_t entire = little64At(bytes + 8);
    uint64_t thisLength = little64At(bytes + 16);
    uint64_t packet = little64At(bytes + 24);
    uint64_t operation = little64At(bytes + 32);
    // Anything else means the stream is out of step, and nothing after it can
    // be trusted to belong to the request it seems to answer.
    if (memcmp(bytes, kAfcMagic, 8) != 0 || packet != packet_number || thisLength < kHeaderBytes ||
        entire < thisLength || entire > kHeaderBytes + kLargestAnswer)
        return kInfoAnswerOutOfStep;
    *length = entire;
    if (available < entire) return kInfoAnswerIncomplete;
    const char *body = bytes + kHeaderBytes;
    size_t bodyLength = entire - kHeaderBytes;
    // What afc_get_file_info makes of the same answer.
    if (bodyLength == 0) return operation == kOpData ? LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND : LIBIUSB_ERROR_IO;
    if (operation == kOpStatus) {
        uint64_t code = bodyLength >= 8 ? little64At(body) : 0;
        if (code > INT32_MAX) return LIBIUSB_ERROR_OTHER;
        if (code != 0) return mapNativeError(NativeSource::Afc, static_cast<int>(code));
    } else if (operation != kOpData && operation != kOpFileOpenResult && operation != kOpFileTellResult) {
        return LIBIUSB_ERROR_NOT_SUPPORTED;
    }
    std::vector<const char *> pairs = pairsOf(body, bodyLength);
    parseFileInfoPairs(pairs.data(), info);
    return LIBIUSB_SUCCESS;
}

namespace {

// House-arrest's request for an app's documents, framed as its messages are:
// the length (4 bytes, most significant first), then an XML property list.
// The answer comes framed the same way; after it the connection speaks AFC.
int vendOnStream(libiusb_afc_info_stream *stream, const char *bundle_id) {
    plist_t request = plist_new_dict();
    plist_dict_set_item(request, "Command", plist_new_string("VendDocuments"));
    plist_dict_set_item(request, "Identifier", plist_new_string(bundle_id));
    char *xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(request, &xml, &length);
    plist_free(request);
    uint32_t bigEndian = htobe32(length);
    stream->unsent.assign(reinterpret_cast<const char *>(&bigEndian), 4);
    stream->unsent.append(xml, length);
    free(xml);
    if (sendWaiting(stream) != 0 || haveBytes(stream, 4) != 0) return stream->failure;
    uint32_t answerLength;
    memcpy(&answerLength, stream->received.data() + stream->consumed, 4);
    answerLength = be32toh(answerLength);
    if (answerLength > kLargestAnswer) return fail(stream, LIBIUSB_ERROR_OTHER);
    if (haveBytes(stream, 4 + size_t{answerLength}) != 0) return stream->failure;
    plist_t reply = nullptr;
    plist_from_memory(stream->received.data() + stream->consumed + 4, answerLength, &reply);
    stream->consumed += 4 + size_t{answerLength};
    int result = vendResult(reply);
    if (reply != nullptr) plist_free(reply);
    return result;
}

// A stream on a new connection to `service_name`; for house-arrest, with the
// app's documents vended on it.
int openStream(libiusb_device_handle *handle, const char *service_name, const char *bundle_id,
               libiusb_afc_info_stream **out) {
    if (handle == nullptr || out == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    *out = nullptr;
    lockdownd_service_descriptor_t service = nullptr;
    idevice_t device = nullptr;
    int result = startDeviceService(handle, service_name, &service, &device);
    service_client_t client = nullptr;
    if (result == 0) result = service_client_new(device, service, &client) == SERVICE_E_SUCCESS ? 0 : LIBIUSB_ERROR_OTHER;
    if (service != nullptr) lockdownd_service_descriptor_free(service);
    if (result != 0) return result;
    libiusb_afc_info_stream *stream = new libiusb_afc_info_stream;
    stream->service = client;
    if (bundle_id != nullptr) result = vendOnStream(stream, bundle_id);
    if (result != 0) {
        libiusb_afc_info_stream_close(stream);
        return result;
    }
    *out = stream;
    return LIBIUSB_SUCCESS;
}

} // namespace

int libiusb_afc_info_stream_open(libiusb_device_handle *handle, libiusb_afc_info_stream **out) {
    return openStream(handle, AFC_SERVICE_NAME, nullptr, out);
}

int libiusb_afc_info_stream_open_app(libiusb_device_handle *handle, const char *bundle_id,
                                     libiusb_afc_info_stream **out) {
    if (bundle_id == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    return openStream(handle, HOUSE_ARREST_SERVICE_NAME, bundle_id, out);
}

void libiusb_afc_info_stream_close(libiusb_afc_info_stream *stream) {
    if (stream == nullptr) return;
    if (stream->service != nullptr) service_client_free(stream->service);
    delete stream;
}

int libiusb_afc_info_stream_ask(libiusb_afc_info_stream *stream, const char *folder, const char *name) {
    if (stream == nullptr || name == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    if (stream->failure != 0) return stream->failure;
    size_t folderLength = folder != nullptr ? strlen(folder) : 0;
    uint64_t length = kHeaderBytes + folderLength + (folder != nullptr ? 1 : 0) + strlen(name) + 1;
    std::string &out = stream->unsent;
    out.append(kAfcMagic, 8);
    putLittle64(&out, length);  // entire
    putLittle64(&out, length);  // this packet: the path is all there is
    putLittle64(&out, stream->next_packet++);
    putLittle64(&out, kOpGetFileInfo);
    if (folder != nullptr) {
        out.append(folder, folderLength);
        out.push_back('/');
    }
    out.append(name, strlen(name) + 1);
    return out.size() >= kSendAtBytes ? sendWaiting(stream) : LIBIUSB_SUCCESS;
}

int libiusb_afc_info_stream_answer(libiusb_afc_info_stream *stream, libiusb_file_info *info) {
    if (info != nullptr) memset(info, 0, sizeof(*info));
    if (stream == nullptr || info == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    if (stream->failure != 0) return stream->failure;
    if (stream->next_answer == stream->next_packet) return LIBIUSB_ERROR_INVALID_PARAM;  // nothing was asked
    if (!stream->unsent.empty() && sendWaiting(stream) != 0) return stream->failure;
    size_t length = kHeaderBytes;
    for (;;) {
        if (haveBytes(stream, length) != 0) return stream->failure;
        int result = parseInfoAnswer(stream->received.data() + stream->consumed, stream->filled - stream->consumed,
                                     stream->next_answer, &length, info);
        if (result == kInfoAnswerIncomplete) continue;
        if (result == kInfoAnswerOutOfStep) return fail(stream, LIBIUSB_ERROR_CONNECTION_LOST);
        stream->consumed += length;
        stream->next_answer++;
        return result;
    }
}

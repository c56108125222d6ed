// JPEG views of HEIC stills: the conversion (libheif to libjpeg-turbo, Exif
// and ICC carried over) and the converter that feeds it. One worker per core
// plus one: each takes the next still, reads it from the device over the
// converter's own connection (one reader at a time), then decodes and
// encodes it while the next worker reads. Nothing here takes the global
// lock; the handlers that wait for a view let it go first.
#include "tarnifs/jpeg_views.h"

#include <fcntl.h>
#include <libheif/heif.h>
#include <malloc.h>
#include <sys/stat.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "util/log.h"

bool gJpegViews = false;

namespace {

constexpr char kCaller[] = "JpegViews";

std::string upper(std::string text) {
    for (char &c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return text;
}

// ---- Exif: the TIFF block of the HEIF file, orientation made 1 -----------------

uint32_t readTiff(const std::string &tiff, size_t at, int bytes, bool little) {
    uint32_t value = 0;
    for (int i = 0; i < bytes; ++i) {
        uint32_t byte = static_cast<unsigned char>(tiff[at + static_cast<size_t>(i)]);
        value |= little ? byte << (8 * i) : byte << (8 * (bytes - 1 - i));
    }
    return value;
}

// The picture is stored upright in the JPEG: an Orientation tag in the first
// IFD is set to 1 (top-left), so that viewers do not turn it again.
void setUpright(std::string &tiff) {
    if (tiff.size() < 8) return;
    bool little = tiff[0] == 'I';
    uint32_t ifd = readTiff(tiff, 4, 4, little);
    if (ifd + 2 > tiff.size()) return;
    uint32_t count = readTiff(tiff, ifd, 2, little);
    for (uint32_t i = 0; i < count; ++i) {
        size_t entry = ifd + 2 + 12 * static_cast<size_t>(i);
        if (entry + 12 > tiff.size()) return;
        if (readTiff(tiff, entry, 2, little) != 0x0112 || readTiff(tiff, entry + 2, 2, little) != 3) continue;
        tiff[entry + 8] = little ? 1 : 0;
        tiff[entry + 9] = little ? 0 : 1;
        return;
    }
}

// The Exif block of the primary image as a TIFF block ("" when it has none).
// libheif hands it with the 4-byte offset of the TIFF header in front.
std::string exifOf(const heif_image_handle *handle) {
    heif_item_id id = 0;
    if (heif_image_handle_get_list_of_metadata_block_IDs(handle, "Exif", &id, 1) < 1) return std::string();
    size_t size = heif_image_handle_get_metadata_size(handle, id);
    if (size < 4 + 8) return std::string();
    std::string block(size, '\0');
    if (heif_image_handle_get_metadata(handle, id, &block[0]).code != heif_error_Ok) return std::string();
    uint32_t skip = readTiff(block, 0, 4, false);
    if (skip > size - 4 - 8) return std::string();
    std::string tiff = block.substr(4 + skip);
    if (tiff.compare(0, 2, "II") != 0 && tiff.compare(0, 2, "MM") != 0) return std::string();
    return tiff;
}

std::string segment(unsigned char marker, const std::string &payload) {
    size_t length = payload.size() + 2;
    return std::string{'\xff', static_cast<char>(marker), static_cast<char>(length >> 8),
                       static_cast<char>(length & 255)} +
           payload;
}

// ---- The converter ---------------------------------------------------------------

enum class ViewState { idle, queued, working, done, failed };

struct View {
    uint32_t id = 0;
    ViewState state = ViewState::idle;
    uint64_t size = 0;       // exact JPEG size once converted; kept when the file is dropped
    bool cached = false;     // the file is in the cache folder
    uint64_t last_use = 0;
    int waiters = 0;         // requests waiting for it: it is not dropped under them
    // Where the listing showed it, for converting what follows.
    std::shared_ptr<const std::vector<std::string>> folder;
    size_t index = 0;
};

struct Converter {
    std::mutex lock;
    std::condition_variable work;     // workers: a still is queued, or stop
    std::condition_variable changed;  // waiters: a still is done or failed
    std::unordered_map<std::string, View> views;
    std::deque<std::string> queue;
    std::vector<std::thread> workers;
    bool stopping = false;
    std::string folder;  // the cache folder
    uint64_t bound = kJpegViewCacheBytes;
    uint64_t cached_bytes = 0;
    uint64_t clock = 0;
    uint32_t next_id = 1;

    // The device side: one reader at a time on the converter's connection.
    std::mutex device_lock;
    libiusb_device_handle *device = nullptr;
    libiusb_afc *afc = nullptr;
};

Converter *gConverter = nullptr;

std::string cacheFileOf(const Converter &c, const View &view) {
    return c.folder + "/" + std::to_string(view.id) + ".jpg";
}

// Reads the whole device file. 0, or the device's error.
int readFromDevice(Converter &c, const std::string &devicePath, std::string *bytes) {
    std::lock_guard<std::mutex> device(c.device_lock);
    if (c.afc == nullptr) {
        int result = libiusb_afc_init(c.device, &c.afc);
        if (result != 0) {
            c.afc = nullptr;
            return result;
        }
    }
    uint64_t handle = 0;
    int result = libiusb_afc_file_open(c.afc, devicePath.c_str(), LIBIUSB_AFC_RDONLY, &handle);
    bytes->clear();
    constexpr uint32_t kChunk = 1u << 20;
    std::string chunk(result == 0 ? kChunk : 0, '\0');
    while (result == 0) {
        uint32_t got = 0;
        result = libiusb_afc_file_read(c.afc, handle, &chunk[0], kChunk, bytes->size(), &got);
        if (result != 0 || got == 0) break;
        bytes->append(chunk, 0, got);
    }
    if (handle != 0) libiusb_afc_file_close(c.afc, handle);
    if (result == LIBIUSB_ERROR_CONNECTION_LOST) {
        libiusb_afc_exit(c.afc);  // a fresh connection for the next still
        c.afc = nullptr;
    }
    return result;
}

bool writePrivateFile(const std::string &path, const std::string &bytes) {
    std::string part = path + ".part";
    int fd = open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    bool whole = write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    close(fd);
    if (!whole || rename(part.c_str(), path.c_str()) != 0) {
        unlink(part.c_str());
        return false;
    }
    return true;
}

// Drops the least recently used files until the cache is within its bound;
// `keep` (just made) and the files requests wait for or hold stay. Lock
// held. An open view keeps its bytes: its handle holds the file.
void trimCache(Converter &c, const std::string &keep) {
    while (c.cached_bytes > c.bound) {
        View *oldest = nullptr;
        for (auto &entry : c.views)
            if (entry.second.cached && entry.second.waiters == 0 && entry.first != keep &&
                (oldest == nullptr || entry.second.last_use < oldest->last_use))
                oldest = &entry.second;
        if (oldest == nullptr) return;
        unlink(cacheFileOf(c, *oldest).c_str());
        oldest->cached = false;
        if (oldest->state == ViewState::done) oldest->state = ViewState::idle;
        c.cached_bytes -= std::min(c.cached_bytes, oldest->size);
    }
}

void convertOne(Converter &c, const std::string &devicePath) {
    std::string heif, jpeg, why;
    int read = readFromDevice(c, devicePath, &heif);
    bool converted = read == 0 && ConvertHeifToJpeg(heif.data(), heif.size(), &jpeg, &why);
    if (read != 0) QNLog(3, "%s %s could not be read from the device. ret : %d", kCaller, devicePath.c_str(), read);
    else if (!converted) QNLog(3, "%s %s could not be converted: %s", kCaller, devicePath.c_str(), why.c_str());

    std::string file;
    {
        std::lock_guard<std::mutex> guard(c.lock);
        file = cacheFileOf(c, c.views[devicePath]);
    }
    bool written = converted && writePrivateFile(file, jpeg);
    if (converted && !written) QNLog(3, "%s %s could not be kept. errno : %d", kCaller, file.c_str(), errno);

    std::lock_guard<std::mutex> guard(c.lock);
    View &view = c.views[devicePath];
    if (written) {
        view.state = ViewState::done;
        view.size = jpeg.size();
        view.cached = true;
        view.last_use = ++c.clock;
        c.cached_bytes += jpeg.size();
        trimCache(c, devicePath);
    } else {
        view.state = ViewState::failed;
    }
    c.changed.notify_all();
}

void workerLoop(Converter *c) {
    std::unique_lock<std::mutex> guard(c->lock);
    for (;;) {
        c->work.wait(guard, [c] { return c->stopping || !c->queue.empty(); });
        if (c->stopping) return;
        std::string devicePath = c->queue.front();
        c->queue.pop_front();
        View &view = c->views[devicePath];
        if (view.state != ViewState::queued) continue;  // asked for twice: done already
        view.state = ViewState::working;
        guard.unlock();
        convertOne(*c, devicePath);
        guard.lock();
    }
}

// Queues a still unless it is converted, cached or under way. Lock held.
void enqueue(Converter &c, const std::string &devicePath, bool first) {
    View &view = c.views[devicePath];
    if (view.state == ViewState::done || view.state == ViewState::working) return;
    if (view.state == ViewState::queued) {
        if (!first) return;
        c.queue.erase(std::remove(c.queue.begin(), c.queue.end(), devicePath), c.queue.end());
    }
    if (view.id == 0) view.id = c.next_id++;
    view.state = ViewState::queued;
    if (first) c.queue.push_front(devicePath);
    else c.queue.push_back(devicePath);
    c.work.notify_one();
}

// Whether the still's colour coding is JPEG's own: BT.601 matrix, full
// range (what libheif assumes when the file says nothing), no alpha.
bool jpegReadyPlanes(const heif_image_handle *handle) {
    if (heif_image_handle_has_alpha_channel(handle) || heif_image_handle_get_luma_bits_per_pixel(handle) != 8 ||
        heif_image_handle_get_chroma_bits_per_pixel(handle) != 8)
        return false;
    heif_color_profile_nclx *nclx = nullptr;
    if (heif_image_handle_get_nclx_color_profile(handle, &nclx).code != heif_error_Ok || nclx == nullptr) return true;
    bool ready = (nclx->matrix_coefficients == heif_matrix_coefficients_ITU_R_BT_601_6 ||
                  nclx->matrix_coefficients == heif_matrix_coefficients_ITU_R_BT_470_6_System_B_G) &&
                 nclx->full_range_flag != 0;
    heif_nclx_color_profile_free(nclx);
    return ready;
}

// Encodes decoded 8-bit 4:2:0 planes as they are. False when the image is
// not such planes or the encoder fails.
bool encodePlanes(const heif_image *image, tjhandle *encoder, unsigned char **encoded, unsigned long *encodedSize) {
    if (heif_image_get_colorspace(image) != heif_colorspace_YCbCr || heif_image_get_chroma_format(image) != heif_chroma_420)
        return false;
    const heif_channel channels[3] = {heif_channel_Y, heif_channel_Cb, heif_channel_Cr};
    const unsigned char *planes[3];
    int strides[3];
    for (int i = 0; i < 3; ++i) {
        if (heif_image_get_bits_per_pixel_range(image, channels[i]) != 8) return false;
        planes[i] = heif_image_get_plane_readonly(image, channels[i], &strides[i]);
        if (planes[i] == nullptr) return false;
    }
    if (*encoder == nullptr) *encoder = tjInitCompress();
    return *encoder != nullptr &&
           tjCompressFromYUVPlanes(*encoder, planes, heif_image_get_width(image, heif_channel_Y), strides,
                                   heif_image_get_height(image, heif_channel_Y), TJSAMP_420, encoded, encodedSize,
                                   kJpegViewQuality, 0) == 0;
}

} // namespace

bool IsHeifStillPath(const std::string &devicePath) {
    size_t dot = devicePath.rfind('.');
    size_t slash = devicePath.rfind('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return false;
    std::string extension = upper(devicePath.substr(dot + 1));
    return extension == "HEIC" || extension == "HEIF";
}

std::string JpegViewName(const std::string &name) {
    size_t dot = name.rfind('.');
    return (dot == std::string::npos ? name : name.substr(0, dot)) + ".JPG";
}

bool ConvertHeifToJpeg(const void *heif, size_t size, std::string *jpeg, std::string *why) {
    heif_context *context = heif_context_alloc();
    heif_image_handle *handle = nullptr;
    heif_image *image = nullptr;
    tjhandle encoder = nullptr;
    unsigned char *encoded = nullptr;
    unsigned long encodedSize = 0;
    bool done = false;
    heif_error error = heif_context_read_from_memory_without_copy(context, heif, size, nullptr);
    if (error.code == heif_error_Ok) error = heif_context_get_primary_image_handle(context, &handle);
    // The irot/imir transforms are applied while decoding: the pixels come
    // upright. Stills coded as JPEG codes them (8-bit 4:2:0, BT.601 full
    // range) go from the decoder's planes straight to the encoder, without
    // a round trip through RGB, which costs as much as the JPEG encoding.
    if (error.code == heif_error_Ok && jpegReadyPlanes(handle)) {
        error = heif_decode_image(handle, &image, heif_colorspace_YCbCr, heif_chroma_420, nullptr);
        if (error.code == heif_error_Ok && encodePlanes(image, &encoder, &encoded, &encodedSize)) {
            done = true;
        } else if (image != nullptr) {
            heif_image_release(image);
            image = nullptr;
        }
    }
    if (error.code == heif_error_Ok && !done)
        error = heif_decode_image(handle, &image, heif_colorspace_RGB, heif_chroma_interleaved_RGB, nullptr);
    if (error.code != heif_error_Ok) {
        *why = error.message != nullptr ? error.message : "libheif error";
    } else if (!done) {
        int width = heif_image_get_width(image, heif_channel_interleaved);
        int height = heif_image_get_height(image, heif_channel_interleaved);
        int stride = 0;
        const uint8_t *pixels = heif_image_get_plane_readonly(image, heif_channel_interleaved, &stride);
        if (encoder == nullptr) encoder = tjInitCompress();
        if (pixels == nullptr || encoder == nullptr ||
            tjCompress2(encoder, pixels, width, stride, height, TJPF_RGB, &encoded, &encodedSize, TJSAMP_420,
                        kJpegViewQuality, 0) != 0) {
            *why = encoder != nullptr ? tjGetErrorStr2(encoder) : "libjpeg-turbo did not start";
        } else {
            done = true;
        }
    }
    if (done) {
        std::string body(reinterpret_cast<const char *>(encoded), encodedSize);
        // After the start of image, the Exif block comes first (APP1), as
        // Exif readers expect, in place of the JFIF header the encoder wrote.
        size_t at = 2;
        if (body.size() > 6 && static_cast<unsigned char>(body[2]) == 0xff && static_cast<unsigned char>(body[3]) == 0xe0)
            at = 4 + ((static_cast<size_t>(static_cast<unsigned char>(body[4])) << 8) | static_cast<unsigned char>(body[5]));
        std::string out = body.substr(0, 2);
        std::string tiff = exifOf(handle);
        if (!tiff.empty() && tiff.size() + 6 + 2 <= 65535) {
            setUpright(tiff);
            out += segment(0xe1, std::string("Exif\0\0", 6) + tiff);
        }
        size_t iccSize = heif_image_handle_get_raw_color_profile_size(handle);
        std::string icc(iccSize, '\0');
        if (iccSize > 0 && heif_image_handle_get_raw_color_profile(handle, &icc[0]).code == heif_error_Ok) {
            // ICC_PROFILE chunks of at most 65519 bytes, numbered from 1.
            constexpr size_t kChunk = 65519;
            size_t chunks = (iccSize + kChunk - 1) / kChunk;
            for (size_t i = 0; i < chunks && chunks < 256; ++i)
                out += segment(0xe2, std::string("ICC_PROFILE\0", 12) + static_cast<char>(i + 1) +
                                         static_cast<char>(chunks) + icc.substr(i * kChunk, kChunk));
        }
        out += body.substr(at);
        *jpeg = std::move(out);
    }
    if (encoded != nullptr) tjFree(encoded);
    if (encoder != nullptr) tjDestroy(encoder);
    if (image != nullptr) heif_image_release(image);
    if (handle != nullptr) heif_image_handle_release(handle);
    heif_context_free(context);
    return done;
}

void KeepConversionMemory() {
    // Each still needs tens of megabytes of planes and buffers. Left to
    // itself malloc maps them afresh from the kernel for every still and
    // gives them back after, and faulting in those pages costs a quarter
    // of a conversion: kept in the workers' heaps instead, they are reused.
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    mallopt(M_TRIM_THRESHOLD, 128 << 20);
}

void StartJpegViews(_CONTEXT *ctx) {
    if (gConverter != nullptr || ctx == nullptr || ctx->work_dir[0] == '\0') return;
    Converter *c = new Converter();
    c->folder = std::string(ctx->work_dir) + "/jpeg";
    mkdir(c->folder.c_str(), 0700);
    c->device = ctx->device_handle;
    // Made here, under the lock the other device sessions are made under;
    // a worker makes a new one only after this one is lost.
    if (c->device != nullptr && libiusb_afc_init(c->device, &c->afc) != 0) c->afc = nullptr;
    if (const char *megabytes = getenv("QUORVEL_JPEG_CACHE_MB"))
        c->bound = strtoull(megabytes, nullptr, 10) << 20;
    KeepConversionMemory();
    unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    // One more than the cores: while every core converts, one worker reads
    // the next still from the device.
    for (unsigned i = 0; i <= cores; ++i) c->workers.emplace_back(workerLoop, c);
    gConverter = c;
}

void StopJpegViews() {
    Converter *c = gConverter;
    if (c == nullptr) return;
    {
        std::lock_guard<std::mutex> guard(c->lock);
        c->stopping = true;
        c->work.notify_all();
        c->changed.notify_all();
    }
    for (std::thread &worker : c->workers) worker.join();
    if (c->afc != nullptr) libiusb_afc_exit(c->afc);
    gConverter = nullptr;
    delete c;
}

void NoteJpegViewFolder(const std::vector<std::string> &devicePaths) {
    Converter *c = gConverter;
    if (c == nullptr || devicePaths.empty()) return;
    auto folder = std::make_shared<const std::vector<std::string>>(devicePaths);
    std::lock_guard<std::mutex> guard(c->lock);
    for (size_t i = 0; i < devicePaths.size(); ++i) {
        View &view = c->views[devicePaths[i]];
        view.folder = folder;
        view.index = i;
    }
}

uint64_t KnownJpegViewSize(const std::string &devicePath) {
    Converter *c = gConverter;
    if (c == nullptr) return 0;
    std::lock_guard<std::mutex> guard(c->lock);
    auto found = c->views.find(devicePath);
    return found != c->views.end() ? found->second.size : 0;
}

int AwaitJpegView(const std::string &devicePath, uint64_t *size, std::string *file, bool pin) {
    Converter *c = gConverter;
    if (c == nullptr) return -EIO;
    std::unique_lock<std::mutex> guard(c->lock);
    View &asked = c->views[devicePath];
    if (asked.state == ViewState::failed) asked.state = ViewState::idle;  // tried again when asked again
    if (!asked.cached) enqueue(*c, devicePath, true);
    // The next stills of its folder are likely asked for next (cp -r, a
    // viewer's "next", rsync's list of files): converted meanwhile.
    if (asked.folder != nullptr) {
        auto folder = asked.folder;
        for (size_t i = asked.index + 1; i < folder->size() && i <= asked.index + kJpegViewPrefetch; ++i)
            if (!c->views[(*folder)[i]].cached) enqueue(*c, (*folder)[i], false);
    }
    View &view = c->views[devicePath];
    view.waiters++;
    for (;;) {
        if (view.cached || c->stopping || view.state == ViewState::failed) break;
        // Dropped from the cache before this request came to wait for it.
        if (view.state == ViewState::idle) enqueue(*c, devicePath, true);
        c->changed.wait(guard);
    }
    if (!view.cached) {
        view.waiters--;
        return -EIO;
    }
    view.last_use = ++c->clock;
    *size = view.size;
    *file = cacheFileOf(*c, view);
    if (!pin) {
        view.waiters--;
        trimCache(*c, std::string());  // what waiters kept past the bound
    }
    return 0;
}

void ReleaseJpegView(const std::string &devicePath) {
    Converter *c = gConverter;
    if (c == nullptr) return;
    std::lock_guard<std::mutex> guard(c->lock);
    View &view = c->views[devicePath];
    if (view.waiters > 0) view.waiters--;
    trimCache(*c, std::string());
}

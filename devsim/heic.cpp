// Real HEIC stills for the simulated photo library: encoded with libheif's
// HEVC encoder (x265), with an Exif block as a phone writes one (camera,
// date taken, GPS, orientation) and, for turned pictures, the irot/imir
// boxes that make viewers show them upright.
#include <libheif/heif.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "devsim/media_library.h"

namespace devsim {

namespace {

// ---- A big-endian TIFF block, the body of Exif ------------------------------

struct TiffEntry {
  uint16_t tag;
  uint16_t type;  // 1 BYTE, 2 ASCII, 3 SHORT, 4 LONG, 5 RATIONAL
  uint32_t count;
  std::string value;  // already big-endian
};

std::string be16(uint16_t v) { return std::string{static_cast<char>(v >> 8), static_cast<char>(v & 255)}; }
std::string be32(uint32_t v) { return be16(static_cast<uint16_t>(v >> 16)) + be16(static_cast<uint16_t>(v & 0xffff)); }

TiffEntry ascii(uint16_t tag, const std::string& text) {
  return {tag, 2, static_cast<uint32_t>(text.size() + 1), text + std::string(1, '\0')};
}
TiffEntry rationals(uint16_t tag, const std::vector<std::pair<uint32_t, uint32_t>>& values) {
  std::string bytes;
  for (const auto& [numerator, denominator] : values) bytes += be32(numerator) + be32(denominator);
  return {tag, 5, static_cast<uint32_t>(values.size()), bytes};
}

size_t ifdSize(const std::vector<TiffEntry>& entries) {
  size_t size = 2 + 12 * entries.size() + 4;
  for (const TiffEntry& e : entries)
    if (e.value.size() > 4) size += (e.value.size() + 1) & ~size_t{1};
  return size;
}

// One IFD placed at `offset` of the block, its long values right behind it.
std::string ifdAt(const std::vector<TiffEntry>& entries, uint32_t offset) {
  std::string table = be16(static_cast<uint16_t>(entries.size()));
  std::string data;
  const uint32_t dataStart = offset + static_cast<uint32_t>(2 + 12 * entries.size() + 4);
  for (const TiffEntry& e : entries) {
    table += be16(e.tag) + be16(e.type) + be32(e.count);
    if (e.value.size() <= 4) {
      table += e.value + std::string(4 - e.value.size(), '\0');
    } else {
      table += be32(dataStart + static_cast<uint32_t>(data.size()));
      data += e.value;
      if (data.size() % 2 != 0) data += '\0';
    }
  }
  return table + be32(0) + data;
}

std::string exifBlock(const HeicStill& still) {
  const std::string date = still.date_taken;
  const uint32_t latitude = static_cast<uint32_t>(still.latitude_millionths);
  const uint32_t longitude = static_cast<uint32_t>(still.longitude_millionths);
  std::vector<TiffEntry> exif = {ascii(0x9003, date), ascii(0x9004, date)};
  std::vector<TiffEntry> gps = {
      {0x0000, 1, 4, std::string("\x02\x02\x00\x00", 4)},
      ascii(0x0001, "N"),
      rationals(0x0002, {{latitude, 1000000}, {0, 1}, {0, 1}}),
      ascii(0x0003, "E"),
      rationals(0x0004, {{longitude, 1000000}, {0, 1}, {0, 1}}),
  };
  std::vector<TiffEntry> main = {
      ascii(0x010F, "Apple"),
      ascii(0x0110, still.model),
      {0x0112, 3, 1, be16(static_cast<uint16_t>(still.orientation))},
      {0x8769, 4, 1, be32(0)},  // Exif IFD, placed below
      {0x8825, 4, 1, be32(0)},  // GPS IFD
  };
  const uint32_t mainAt = 8;
  const uint32_t exifAt = mainAt + static_cast<uint32_t>(ifdSize(main));
  const uint32_t gpsAt = exifAt + static_cast<uint32_t>(ifdSize(exif));
  main[3].value = be32(exifAt);
  main[4].value = be32(gpsAt);
  return std::string("MM\0\x2a", 4) + be32(mainAt) + ifdAt(main, mainAt) + ifdAt(exif, exifAt) + ifdAt(gps, gpsAt);
}

// A small ICC profile (version 2.1, display class, RGB to XYZ) whose only
// tag is its description, as phones attach Display P3: readers show the
// description, which is all the copies are checked by.
std::string iccProfile(const std::string& description) {
  std::string desc = std::string("desc") + be32(0) + be32(static_cast<uint32_t>(description.size() + 1)) +
                     description + std::string(1, '\0') + be32(0) + be32(0) + std::string(2 + 1 + 67, '\0');
  while (desc.size() % 4 != 0) desc += '\0';
  const uint32_t tagsAt = 128 + 4 + 12;
  std::string header = be32(static_cast<uint32_t>(tagsAt + desc.size())) + be32(0) + be32(0x02100000) + "mntr" +
                       "RGB " + "XYZ " + std::string(12, '\0') + "acsp" + std::string(24, '\0') + be32(0) +
                       be32(0x0000F6D6) + be32(0x00010000) + be32(0x0000D32D) + std::string(48, '\0');
  return header + be32(1) + "desc" + be32(128 + 4 + 12) + be32(static_cast<uint32_t>(desc.size())) + desc;
}

heif_error appendTo(heif_context*, const void* data, size_t size, void* userdata) {
  static_cast<std::string*>(userdata)->append(static_cast<const char*>(data), size);
  return heif_error{heif_error_Ok, heif_suberror_Unspecified, "ok"};
}

}  // namespace

std::string make_heic(const HeicStill& still) {
  const int width = std::max(still.width, 2), height = std::max(still.height, 2);
  // A gradient whose colours follow the seed, with a little texture so that
  // large pictures compress to the sizes a camera's do; a dark block in the
  // top-left corner shows which way up the stored picture is.
  std::vector<uint8_t> rgb(static_cast<size_t>(width) * static_cast<size_t>(height) * 3);
  uint32_t noise = still.seed * 2654435761u + 1;
  const uint32_t r0 = (still.seed * 97u) & 255, g0 = (still.seed * 57u + 80) & 255, b0 = (still.seed * 31u + 160) & 255;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      noise = noise * 1103515245u + 12345u;
      const int grain = still.texture ? static_cast<int>((noise >> 16) % 20) - 10 : 0;
      const uint32_t fx = static_cast<uint32_t>(x) * 255 / static_cast<uint32_t>(width);
      const uint32_t fy = static_cast<uint32_t>(y) * 255 / static_cast<uint32_t>(height);
      const bool corner = x < width / 4 && y < height / 4;
      const int colour[3] = {static_cast<int>((r0 + fx) & 255), static_cast<int>((g0 + fy) & 255),
                             static_cast<int>((b0 + (fx + fy) / 2) & 255)};
      for (int c = 0; c < 3; ++c) {
        const int value = corner ? colour[c] / 4 : colour[c] + grain;
        rgb[(static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) * 3 + c] =
            static_cast<uint8_t>(std::min(255, std::max(0, value)));
      }
    }
  }
  // Coded as a phone codes it: YCbCr 4:2:0 (BT.601, full range), each
  // chroma sample the mean of its 2x2 block.
  heif_image* image = nullptr;
  if (heif_image_create(width, height, heif_colorspace_YCbCr, heif_chroma_420, &image).code != heif_error_Ok)
    return std::string();
  const int chromaWidth = (width + 1) / 2, chromaHeight = (height + 1) / 2;
  heif_image_add_plane(image, heif_channel_Y, width, height, 8);
  heif_image_add_plane(image, heif_channel_Cb, chromaWidth, chromaHeight, 8);
  heif_image_add_plane(image, heif_channel_Cr, chromaWidth, chromaHeight, 8);
  int strides[3] = {0, 0, 0};
  uint8_t* planes[3] = {heif_image_get_plane(image, heif_channel_Y, &strides[0]),
                        heif_image_get_plane(image, heif_channel_Cb, &strides[1]),
                        heif_image_get_plane(image, heif_channel_Cr, &strides[2])};
  auto clamp = [](double v) { return static_cast<uint8_t>(std::min(255.0, std::max(0.0, v + 0.5))); };
  auto pixel = [&](int x, int y) { return &rgb[(static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) * 3]; };
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const uint8_t* p = pixel(x, y);
      planes[0][static_cast<size_t>(y) * static_cast<size_t>(strides[0]) + static_cast<size_t>(x)] =
          clamp(0.299 * p[0] + 0.587 * p[1] + 0.114 * p[2]);
    }
  for (int cy = 0; cy < chromaHeight; ++cy)
    for (int cx = 0; cx < chromaWidth; ++cx) {
      double sum[3] = {0, 0, 0};
      int count = 0;
      for (int y = cy * 2; y < std::min(height, cy * 2 + 2); ++y)
        for (int x = cx * 2; x < std::min(width, cx * 2 + 2); ++x, ++count)
          for (int c = 0; c < 3; ++c) sum[c] += pixel(x, y)[c];
      const double r = sum[0] / count, g = sum[1] / count, b = sum[2] / count;
      planes[1][static_cast<size_t>(cy) * static_cast<size_t>(strides[1]) + static_cast<size_t>(cx)] =
          clamp(128 - 0.168736 * r - 0.331264 * g + 0.5 * b);
      planes[2][static_cast<size_t>(cy) * static_cast<size_t>(strides[2]) + static_cast<size_t>(cx)] =
          clamp(128 + 0.5 * r - 0.418688 * g - 0.081312 * b);
    }

  if (!still.icc_description.empty()) {
    const std::string icc = iccProfile(still.icc_description);
    heif_image_set_raw_color_profile(image, "prof", icc.data(), icc.size());
  }

  heif_context* context = heif_context_alloc();
  heif_encoder* encoder = nullptr;
  std::string out;
  if (heif_context_get_encoder_for_format(context, heif_compression_HEVC, &encoder).code == heif_error_Ok) {
    heif_encoder_set_lossy_quality(encoder, still.quality);
    // Large pictures are for benchmarks: encode them quickly.
    if (static_cast<int64_t>(width) * height > 1000000) heif_encoder_set_parameter_string(encoder, "preset", "ultrafast");
    heif_encoding_options* options = heif_encoding_options_alloc();
    options->image_orientation = static_cast<heif_orientation>(still.orientation);
    heif_image_handle* handle = nullptr;
    if (heif_context_encode_image(context, image, encoder, options, &handle).code == heif_error_Ok) {
      const std::string exif = exifBlock(still);
      heif_context_add_exif_metadata(context, handle, exif.data(), static_cast<int>(exif.size()));
      heif_writer writer{1, appendTo};
      if (heif_context_write(context, &writer, &out).code != heif_error_Ok) out.clear();
      heif_image_handle_release(handle);
    }
    heif_encoding_options_free(options);
    heif_encoder_release(encoder);
  }
  heif_context_free(context);
  heif_image_release(image);
  return out;
}

}  // namespace devsim

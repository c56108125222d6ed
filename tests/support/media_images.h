// Device images holding a media library, for the /Media end-to-end tests
// (their programs link the library writer devsim uses).
#pragma once

#include <string>
#include <vector>

#include "devsim/media_library.h"
#include "tests/support/mount_fixture.h"

inline devsim::MediaAlbum mediaAlbum(int64_t pk, std::optional<std::string> title, int kind = 2, int trashed = 0) {
    devsim::MediaAlbum made;
    made.pk = pk;
    made.title = std::move(title);
    made.kind = kind;
    made.trashed = trashed;
    return made;
}

// A photo of `size` seeded bytes in `albums`, its dates `dates`, +100 and
// +200 (created, modified, moment; seconds since 2001) plus the seed.
inline devsim::MediaPhoto mediaPhoto(const std::string &directory, const std::string &file,
                                     std::vector<int64_t> albums, unsigned seed, size_t size, int64_t dates) {
    devsim::MediaPhoto made;
    made.directory = directory;
    made.filename = file;
    made.original_filename = file;
    made.bytes = randomBytes(size, seed);
    made.albums = std::move(albums);
    made.date_created = dates + seed;
    made.modification_date = dates + 100 + seed;
    made.moment_date = dates + 200 + seed;
    return made;
}

// What `cp` makes of `from` at `to`: its bytes, "" when cp failed.
inline std::string copiedBy(const std::string &from, const std::string &to) {
    int status = -1;
    runProgram({"cp", from, to}, &status);
    return status == 0 ? readLocal(to) : "";
}

// Writes a device image for `phone` holding `library` into `dir`; "" or
// what went wrong.
inline std::string writeMediaImage(const std::string &dir, const DevsimImage &phone,
                                   const devsim::MediaLibrary &library) {
    std::string error;
    if (!write_devsim_image(dir, phone, &error)) return error;
    if (!devsim::write_media_library(dir + "/media", library, error)) return error.empty() ? "no library" : error;
    return "";
}

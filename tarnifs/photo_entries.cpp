// Photo entries: one row of a photo query becomes one file of a photo folder,
// named by the name the picture was taken with, sized and dated, and checked
// on the device first. A live photo's video is the same row made a second
// time with "JPG" read as "MOV". With the "jpeg" option an HEIC still is
// shown as its JPEG view instead.
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tarnifs/jpeg_views.h"
#include "tarnifs/media.h"
#include "tarnifs/names.h"
#include "util/log.h"

std::vector<std::string> gListedJpegViews;

std::string DevicePathOfPhoto(const PhotoRow &row, bool is_cloud, int subtype) {
    std::string devicePath;
    if (is_cloud) {
        // Cloud resources carry the full device path; what follows the media
        // root is relative to the media connection.
        if (row.path.size() <= kMediaRootLength) return std::string();
        devicePath = row.path.substr(kMediaRootLength);
    } else {
        devicePath = "/" + row.path + "/" + row.file_name;
    }
    if (subtype == 2) devicePath = replaceAll(devicePath, "JPG", "MOV");
    return devicePath;
}

int GetPhotoFromDevice(_CONTEXT *ctx, const char *path, fuse_fill_dir_t filler, const PhotoRow &row, void *buf,
                       bool is_cloud, int subtype, int32_t *last_master, const DeviceFileAnswer &answer) {
    _KTL_OBJECT *parent = FindObject(path);
    if (parent == nullptr) return -2;
    if (answer.result != 0) {
        QNLog(3, "%s file : (%s) get info failed. ret ; %d", "GetPhotoFromDevice", row.file_name.c_str(), answer.result);
        return -1;
    }
    uint64_t deviceSize = answer.info.size;
    if (is_cloud) {
        if (row.db_size == 0 || deviceSize != static_cast<uint64_t>(row.db_size)) return -1;
        int32_t master = static_cast<int32_t>(row.column5);
        if (last_master != nullptr) {
            // Rows come ordered by master: a repeat follows the one listed.
            if (master == *last_master) return -1;
            *last_master = master;
        }
    } else {
        if (row.db_size == 0 || deviceSize == 0) return -1;
        if (deviceSize != static_cast<uint64_t>(row.db_size))
            QNLog(3, "%s file : (%s), database file size : %lld, local file size : %lld", "GetPhotoFromDevice",
                  row.file_name.c_str(), static_cast<long long>(row.db_size), static_cast<long long>(deviceSize));
    }

    const std::string &recorded = is_cloud ? row.file_name : row.original_name;
    std::vector<char> converted(std::max<size_t>(2048, recorded.size() + 1), '\0');
    if (getUTF8MACName(recorded.c_str(), converted.data()) < 0) {
        QNLog(3, "%s getUTF8MACName failed.", "GetPhotoFromDevice");
        return -1;
    }
    std::string name = converted.data();
    if (subtype == 2) name = replaceAll(name, "JPG", "MOV");
    std::string devicePath = DevicePathOfPhoto(row, is_cloud, subtype);
    bool jpegView = gJpegViews && subtype != 2 && IsHeifStillPath(devicePath);
    if (jpegView) name = JpegViewName(name);
    if (!IsUsableEntryName(name.c_str())) {
        QNLog(3, "%s file : (%s) has no usable name, row skipped.", "GetPhotoFromDevice", row.file_name.c_str());
        return -1;
    }

    std::string candidate = FreeEntryPath(path, name, true);
    _KTL_OBJECT *object = GetObjectWithFileName(candidate.c_str());
    object->mode = KTL_MODE_FILE;
    if (Extras(object).device_path == nullptr) EditExtras(object).device_path = CopyString(devicePath.c_str());
    object->type = KTL_TYPE_DEVICE_FILE;
    time_t now = time(nullptr);
    if (row.moment_date != 0)
        object->birth_time = row.moment_date;
    else if (!is_cloud && row.column5 != 0)
        object->birth_time = static_cast<int32_t>(row.column5);
    else
        object->birth_time = now;
    object->modify_time = row.modification_date != 0 ? row.modification_date : now;
    object->access_time = object->modify_time;
    object->size = is_cloud ? static_cast<uint64_t>(row.db_size) : deviceSize;
    if (jpegView) {
        // Its size is the JPEG's, known exactly once converted (see
        // docs/jpeg-views.md); until then the listing gives no attributes.
        StartJpegViews(ctx);
        object->size = KnownJpegViewSize(Extras(object).device_path);
        EditExtras(object).jpeg_view = object->size != 0 ? 2 : 1;
        gListedJpegViews.push_back(Extras(object).device_path);
    }
    LinkChildObject(parent, object);
    if (filler != nullptr) filler(buf, object->file_name, nullptr, 0, static_cast<enum fuse_fill_dir_flags>(0));
    return 0;
}

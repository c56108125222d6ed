// CPU time of one HEIC-to-JPEG conversion as the JPEG views make it, per
// file given, with no device or mount in the way: what bench/jpeg_views.sh
// measures through the link, taken apart. Usage: jpeg_convert FILE.HEIC...
#include <ctime>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "tarnifs/jpeg_views.h"

namespace {

double cpuSeconds() {
    timespec now;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

} // namespace

int main(int argc, char **argv) {
    KeepConversionMemory();  // as the mount's converter does
    double total = 0;
    for (int i = 1; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary);
        std::stringstream bytes;
        bytes << in.rdbuf();
        std::string heif = bytes.str(), jpeg, why;
        double start = cpuSeconds();
        bool converted = ConvertHeifToJpeg(heif.data(), heif.size(), &jpeg, &why);
        double spent = cpuSeconds() - start;
        total += spent;
        if (!converted) {
            fprintf(stderr, "%s: %s\n", argv[i], why.c_str());
            return 1;
        }
        printf("%s: %zu bytes of HEIC to %zu of JPEG in %.3f s of CPU\n", argv[i], heif.size(), jpeg.size(), spent);
    }
    if (argc > 2) printf("mean %.3f s of CPU per file\n", total / (argc - 1));
    return 0;
}

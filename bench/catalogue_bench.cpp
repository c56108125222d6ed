// Lookup cost of the catalogue on 100,000 paths, a third of them with
// decomposed names (as a host delivers them) and a third composed, and the
// memory each record costs (record, key, name and map node).
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tarnifs/mount.h"
#include "tarnifs/names.h"

namespace {

constexpr int kPaths = 100000;

std::string nameFor(int i) {
    switch (i % 3) {
    case 0: return "track " + std::to_string(i) + ".m4a";
    case 1: return "cafe\xCC\x81 " + std::to_string(i) + ".jpg";  // decomposed é
    default: return "Beyonc\xC3\xA9 " + std::to_string(i);       // composed é
    }
}

struct Catalogue {
    std::vector<std::string> paths;
    std::vector<std::string> otherSpelling;  // the same names, composed <-> decomposed
    size_t bytesPerRecord = 0;

    Catalogue() {
        static _CONTEXT context;
        static struct fuse_context fuse {};
        fuse.private_data = &context;
        SetFuseContextForTesting(&fuse);
        gEncodedPath = static_cast<char *>(calloc(kEncodedPathSize, 1));
        setenv("QUORVEL_LOG_DIR", "/tmp", 1);

        for (int i = 0; i < kPaths; ++i) {
            // 100 folders of 1000 entries, like a large Storage area.
            std::string folder = "/Storage/folder" + std::to_string(i / 1000);
            std::string name = nameFor(i);
            paths.push_back(folder + "/" + name);
            std::string swapped = name;
            size_t at = swapped.find("e\xCC\x81");
            if (at != std::string::npos) swapped.replace(at, 3, "\xC3\xA9");
            else if ((at = swapped.find("\xC3\xA9")) != std::string::npos) swapped.replace(at, 2, "e\xCC\x81");
            otherSpelling.push_back(folder + "/" + swapped);
        }
        size_t before = mallinfo2().uordblks;
        for (const std::string &path : paths) GetObjectWithFileName(path.c_str());
        bytesPerRecord = (mallinfo2().uordblks - before) / kPaths;
    }
};

Catalogue &catalogue() {
    static Catalogue instance;
    return instance;
}

void BM_GetObject_existing(benchmark::State &state) {
    Catalogue &c = catalogue();
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(GetObject(c.paths[i].c_str()));
        i = (i + 7919) % kPaths;
    }
    state.counters["bytes_per_record"] = static_cast<double>(c.bytesPerRecord);
    state.counters["record_struct_bytes"] = sizeof(_KTL_OBJECT);
}

void BM_FindObject_asStored(benchmark::State &state) {
    Catalogue &c = catalogue();
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(FindObject(c.paths[i].c_str()));
        i = (i + 7919) % kPaths;
    }
}

void BM_FindObject_otherSpelling(benchmark::State &state) {
    Catalogue &c = catalogue();
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(FindObject(c.otherSpelling[i].c_str()));
        i = (i + 7919) % kPaths;
    }
}

BENCHMARK(BM_GetObject_existing);
BENCHMARK(BM_FindObject_asStored);
BENCHMARK(BM_FindObject_otherSpelling);

} // namespace

BENCHMARK_MAIN();

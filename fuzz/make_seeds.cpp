// Writes the import fuzzers' seed files: the test songs of each format from the test
// writers, into OUT/xm, OUT/mod, OUT/s3m and OUT/it (the folders must exist).
#include <cstdio>
#include <string>

#include "song/tracker_writers.h"

namespace {

bool write_file(const std::string& path, const tw_bytes& bytes) {
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) return false;
    bool ok = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return fclose(f) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: make_seeds OUT\n");
        return 1;
    }
    std::string out = argv[1];
    const struct {
        const char* path;
        tw_bytes bytes;
    } seeds[] = {
        {"/xm/rich.xm", tw_rich_file("xm")},
        {"/xm/tone.xm", tw_write_xm(tw_tone_song(49, 0))},
        {"/mod/rich.mod", tw_rich_file("mod")},
        {"/s3m/rich.s3m", tw_rich_file("s3m")},
        {"/s3m/tone.s3m", tw_write_s3m(tw_tone_song(0x40, 11025))},
        {"/it/rich.it", tw_rich_file("it")},
        {"/it/samples.it", tw_rich_file("it-samples")},
        {"/it/tone.it", tw_write_it(tw_tone_song(60, 22050), false)},
    };
    for (const auto& seed : seeds) {
        if (!write_file(out + seed.path, seed.bytes)) {
            fprintf(stderr, "make_seeds: cannot write %s%s\n", out.c_str(), seed.path);
            return 1;
        }
    }
    return 0;
}

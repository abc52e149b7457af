// The reader targets (fuzz_harness.h): what each fuzzer does with one input.
#include <cstring>

#include "engine/file.h"
#include "engine/memory.h"
#include "engine/profile.h"
#include "fuzz_harness.h"
#include "image/jpeg.h"
#include "psynth/psynth_modules.h"
#include "psynth/sample_file.h"
#include "psynth/vorbis_player.h"
#include "song/import.h"
#include "song/module_file.h"
#include "song/song_file.h"

namespace {

// Loads the file at `path` into a new Sampler (through the RAW path when `raw_format` ≥ 0)
// and plays notes on it.
void load_and_play_sample(const char* path, int raw_format, int channels) {
    zelfon_song song;
    if (!path || !zelfon_fuzz_song_init(&song)) return;
    int mod = psynth_add_synth(-1, psynth_sampler, nullptr, 0, 0, 0, song.bpm, song.speed, song.net);
    if (mod >= 0) {
        psynth_do_command(mod, PS_CMD_SETUP_FINISHED, song.net);
        if (raw_format >= 0) {
            psynth_sample_load_raw(path, raw_format, channels, mod, PSYNTH_SAMPLE_SLOT_INSTRUMENT, song.net);
        } else {
            psynth_sample_load(path, mod, PSYNTH_SAMPLE_SLOT_INSTRUMENT, 0, song.net);
        }
        zelfon_fuzz_play_module(mod, &song);
    }
    zelfon_song_close(&song);
}

// A sample file whose first bytes choose the reader `type` (other inputs are skipped).
int run_sample(const uint8_t* data, size_t size, psynth_sample_file_type type) {
    if (psynth_sample_file_type_of(data, size) != type) return 0;
    load_and_play_sample(zelfon_fuzz_input_file(data, size), -1, 1);
    return 0;
}

int run_sample_wav(const uint8_t* data, size_t size) { return run_sample(data, size, PSYNTH_SAMPLE_FILE_WAV); }
int run_sample_aiff(const uint8_t* data, size_t size) { return run_sample(data, size, PSYNTH_SAMPLE_FILE_AIFF); }
int run_sample_aifc(const uint8_t* data, size_t size) { return run_sample(data, size, PSYNTH_SAMPLE_FILE_AIFC); }
int run_sample_xi(const uint8_t* data, size_t size) { return run_sample(data, size, PSYNTH_SAMPLE_FILE_XI); }

// The RAW path: the first byte picks the data format and the channel count, the rest is the file.
int run_sample_raw(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    load_and_play_sample(zelfon_fuzz_input_file(data + 1, size - 1), data[0] & 3, data[0] & 4 ? 2 : 1);
    return 0;
}

// A JPEG image through the RAW path (its brightness becomes an 8-bit sample).
int run_sample_jpeg(const uint8_t* data, size_t size) {
    if (!image_jpeg_signature(data, size)) return 0;
    load_and_play_sample(zelfon_fuzz_input_file(data, size), PSYNTH_SAMPLE_RAW_INT8, 1);
    return 0;
}

// The song reader, then the song it made (what a file leaves behind after an error plays too).
int run_song(const uint8_t* data, size_t size) {
    const char* path = zelfon_fuzz_input_file(data, size);
    zelfon_song song;
    if (!path || !zelfon_fuzz_song_init(&song)) return 0;
    zelfon_load_song(path, &song);
    zelfon_fuzz_render(&song);
    zelfon_song_close(&song);
    return 0;
}

// The module file reader (position and links taken from the file), then notes on the module.
int run_module(const uint8_t* data, size_t size) {
    const char* path = zelfon_fuzz_input_file(data, size);
    zelfon_song song;
    if (!path || !zelfon_fuzz_song_init(&song)) return 0;
    int mod = zelfon_load_synth(-1, 0, 0, path, ZELFON_SYNTH_POS_AND_LINKS, &song);
    if (mod >= 0) zelfon_fuzz_play_module(mod, &song);
    zelfon_song_close(&song);
    return 0;
}

// An Ogg Vorbis file into the Vorbis player, then notes on it.
int run_vorbis(const uint8_t* data, size_t size) {
    const char* path = zelfon_fuzz_input_file(data, size);
    zelfon_song song;
    if (!path || !zelfon_fuzz_song_init(&song)) return 0;
    int mod = psynth_add_synth(-1, psynth_vorbis_player, nullptr, 0, 0, 0, song.bpm, song.speed, song.net);
    if (mod >= 0) {
        psynth_do_command(mod, PS_CMD_SETUP_FINISHED, song.net);
        psynth_vorbis_player_load(mod, path, song.net);
        zelfon_fuzz_play_module(mod, &song);
    }
    zelfon_song_close(&song);
    return 0;
}

// The configuration reader: every key read back as text and number, a key changed and one
// removed, then a song played at the sampling rate the file asks for ("frequency"), as the
// program opens its sound at that rate.
int run_profile(const uint8_t* data, size_t size) {
    const char* path = zelfon_fuzz_input_file(data, size);
    if (!path) return 0;
    profile_data profile;
    profile_new(&profile);
    profile_load(path, &profile);
    for (int i = 0; i < profile.num; i++) {
        profile_get_str_value(profile.keys[i].key, "", &profile);
        profile_get_int_value(profile.keys[i].key, 0, &profile);
    }
    profile_set_str_value("zoom", "2", &profile);
    if (profile.num > 0) profile_remove_key(profile.keys[0].key, &profile);
    int rate = profile_get_int_value("frequency", 44100, &profile);
    profile_close(&profile);

    zelfon_song song;
    if (zelfon_song_init(0, rate, &song)) return 0;
    int mod = psynth_add_synth(-1, psynth_generator, nullptr, 0, 0, 0, song.bpm, song.speed, song.net);
    if (mod >= 0) {
        psynth_do_command(mod, PS_CMD_SETUP_FINISHED, song.net);
        zelfon_fuzz_play_module(mod, &song);
    }
    zelfon_song_close(&song);
    return 0;
}

// The TAR archive reader of disk 0: the input is registered as the archive; its member
// "song.zelfon" is read whole and measured, then loaded and played as a song.
constexpr const char* kMember = "0:/song.zelfon";

void read_member() {
    int h = v3_open(kMember, "rb");
    if (!h) return;
    while (v3_getc(h) != -1) {
    }
    v3_seek(h, 0, V3_SEEK_END);
    v3_tell(h);
    v3_close(h);
    v3_get_file_size(kMember);
}

int run_tar(const uint8_t* data, size_t size) {
    void* block = mem_new_dynamic(size ? size : 1, "fuzz_tar");
    if (!block) return 0;
    memcpy(block, data, size);
    int archive = v3_open_in_memory(block, size);
    if (!archive) {
        mem_free(block);
        return 0;
    }
    v3_set_archive(archive);
    read_member();
    zelfon_song song;
    if (zelfon_fuzz_song_init(&song)) {
        zelfon_load_song(kMember, &song);
        zelfon_fuzz_render(&song);
        zelfon_song_close(&song);
    }
    v3_set_archive(0);
    mem_free(v3_get_memory_data(archive));
    v3_close(archive);
    return 0;
}

// A tracker module of `format` (other inputs are skipped), imported and played.
int run_import(const uint8_t* data, size_t size, zelfon_import_format format) {
    if (zelfon_import_format_of(data, size) != format) return 0;
    zelfon_song song;
    if (!zelfon_fuzz_song_init(&song)) return 0;
    zelfon_import_report report;
    if (zelfon_import_song_from_memory(data, size, &song, &report) == 0) zelfon_fuzz_render(&song);
    zelfon_song_close(&song);
    return 0;
}

int run_import_xm(const uint8_t* data, size_t size) { return run_import(data, size, ZELFON_IMPORT_FORMAT_XM); }
int run_import_mod(const uint8_t* data, size_t size) { return run_import(data, size, ZELFON_IMPORT_FORMAT_MOD); }
int run_import_s3m(const uint8_t* data, size_t size) { return run_import(data, size, ZELFON_IMPORT_FORMAT_S3M); }
int run_import_it(const uint8_t* data, size_t size) { return run_import(data, size, ZELFON_IMPORT_FORMAT_IT); }

const struct {
    const char* name;
    int (*run)(const uint8_t* data, size_t size);
} kReaders[] = {
    {"song", run_song},
    {"module", run_module},
    {"sample_wav", run_sample_wav},
    {"sample_aiff", run_sample_aiff},
    {"sample_aifc", run_sample_aifc},
    {"sample_xi", run_sample_xi},
    {"sample_raw", run_sample_raw},
    {"sample_jpeg", run_sample_jpeg},
    {"vorbis", run_vorbis},
    {"profile", run_profile},
    {"tar", run_tar},
    {"import_xm", run_import_xm},
    {"import_mod", run_import_mod},
    {"import_s3m", run_import_s3m},
    {"import_it", run_import_it},
};

}  // namespace

int zelfon_fuzz_run(const char* name, const uint8_t* data, size_t size) {
    for (const auto& reader : kReaders) {
        if (strcmp(reader.name, name) != 0) continue;
        zelfon_fuzz_start();
        return reader.run(data, size);
    }
    return -1;
}

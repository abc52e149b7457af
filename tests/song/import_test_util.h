// The import tests' fixture: imports written files into the song, finds the Samplers and
// their chunks, reads the timeline line by line, measures the frequency of a rendered note
// by its zero crossings and sweeps every cut of a file.
#pragma once

#include <cmath>
#include <cstring>
#include <vector>

#include "psynth/psynth_modules.h"
#include "psynth/sampler.h"
#include "song/import.h"
#include "song_test_util.h"
#include "tracker_writers.h"

class ImportTest : public SongFixture {
public:
    int import(const tw_bytes& file) { return zelfon_import_song_from_memory(file.data(), file.size(), &song, &report); }

    // Module numbers of the Samplers, in the order they were made.
    std::vector<int> samplers() {
        std::vector<int> out;
        for (int m = 1; m < song.net->slots; m++) {
            if (psynth_module_data<void>(m, song.net, psynth_sampler)) out.push_back(m);
        }
        return out;
    }
    const psynth_sampler_instrument* instrument(int mod) {
        return (const psynth_sampler_instrument*)psynth_get_chunk(mod, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, song.net);
    }
    const psynth_sampler_sample* header(int mod, int k) {
        return (const psynth_sampler_sample*)psynth_get_chunk(mod, psynth_sampler_header_chunk(k), song.net);
    }
    // The frames of sample k, 8-bit ones as they are (−128..127).
    std::vector<int16_t> frames(int mod, int k) {
        const psynth_sampler_sample* h = header(mod, k);
        const void* data = psynth_get_chunk(mod, psynth_sampler_data_chunk(k), song.net);
        std::vector<int16_t> out;
        if (!h || !data) return out;
        bool wide = psynth_sampler_storage_flags(h->type) == PSYNTH_SAMPLER_STORAGE_INT16;
        for (uint32_t i = 0; i < h->length; i++) out.push_back(wide ? ((const int16_t*)data)[i] : ((const int8_t*)data)[i]);
        return out;
    }
    bool linked_to_output(int mod) {
        const psynth_module* out = &song.net->modules[0];
        for (int i = 0; i < out->input_links_capacity; i++) {
            if (out->input_links[i] == mod) return true;
        }
        return false;
    }

    // The pattern slot that starts at `line`, the parent before clones; −1 when none.
    int slot_at(int line, bool clone = false) {
        for (int i = 0; i < song.pats_capacity; i++) {
            bool is_clone = song.pats_info[i].flags & ZELFON_PATTERN_FLAG_CLONE;
            if (song.pats[i] && song.pats_info[i].x == line && is_clone == clone) return i;
        }
        return -1;
    }
    // The cell the timeline holds at `line` on `track`.
    zelfon_cell cell(int line, int track) {
        for (int i = 0; i < song.pats_capacity; i++) {
            const zelfon_pattern* p = song.pats[i];
            int x = song.pats_info[i].x;
            if (p && line >= x && line < x + p->lines && track < p->channels) return p->data[(line - x) * p->data_xsize + track];
        }
        return zelfon_cell{};
    }
    // The cell at `line` on `track` is `want`, field for field.
    void expect_cell(int line, int track, zelfon_cell want) {
        zelfon_cell got = cell(line, track);
        EXPECT_EQ(memcmp(&got, &want, sizeof(got)), 0)
            << "line " << line << " track " << track << ": note " << (int)got.note << " vel " << (int)got.vel << " module "
            << got.module << " effect " << (int)got.effect << " ctl " << (int)got.ctl << " value " << got.value;
    }
    // Places and lengths of the timeline's patterns in play order, as "x+lines" or "x+lines c".
    std::vector<std::string> timeline() {
        zelfon_sort_patterns(&song);
        std::vector<std::string> out;
        for (int i = 0; i < song.sorted_pats_count; i++) {
            int slot = song.sorted_pats[i];
            bool clone = song.pats_info[slot].flags & ZELFON_PATTERN_FLAG_CLONE;
            out.push_back(std::to_string(song.pats_info[slot].x) + "+" + std::to_string(song.pats[slot]->lines) + (clone ? " c" : ""));
        }
        return out;
    }

    // The frequency of what the left output plays over `seconds` seconds from the start.
    double note_frequency(int seconds) {
        play(0);
        std::vector<int16_t> out = render(44100 * seconds, 1001);
        int rising = 0;
        for (size_t i = 2; i < out.size(); i += 2) {
            if (out[i - 2] < 0 && out[i] >= 0) rising++;
        }
        return (double)rising / seconds;
    }

    // Every cut of the file imports cleanly: a valid song or an error with its reason.
    void sweep_truncations(const tw_bytes& file) {
        for (size_t size = 0; size <= file.size(); size++) {
            tw_bytes cut(file.begin(), file.begin() + size);
            int code = zelfon_import_song_from_memory(cut.data(), cut.size(), &song, &report);
            if (code != 0) {
                ASSERT_GT(code, 0) << "cut at " << size;
                ASSERT_NE(report.error[0], 0) << "cut at " << size;
            } else {
                ASSERT_TRUE(song.loaded) << "cut at " << size;
            }
        }
    }

    zelfon_import_report report{};
};

// The controller field of a cell that sets the Sampler's local panning.
constexpr uint8_t kPanCtl = PSYNTH_SAMPLER_LOCAL_CTL_PAN + 1;

// The velocity field of a cell for a format volume on a sample of `sample_volume`.
inline int expected_vel(int volume, int sample_volume) {
    int velocity = (volume * 256 + sample_volume / 2) / sample_volume;
    return (velocity > 256 ? 256 : velocity) / 2 + 1;
}

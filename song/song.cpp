// The song record's life: creation with its sound net, pattern table, icons and
// playback state, and the matching clean-up.
#include <cstring>
#include <new>
#include <thread>

#include "engine/memory.h"
#include "song/devices.h"
#include "song/edit.h"
#include "song/song.h"

bool zelfon_cell_is_empty(const zelfon_cell* cell) {
    // Only the module's low byte counts, so a module that is a multiple of 256 reads as none.
    return cell->note == 0 && cell->vel == 0 && (cell->module & 0xFF) == 0 && cell->effect == 0 &&
           cell->ctl == 0 && cell->value == 0;
}

int zelfon_song_init(int psynth_flags, int sampling_rate, zelfon_song* song) {
    new (song) zelfon_song();
    song->bpm = ZELFON_BPM_DEFAULT;
    song->speed = ZELFON_SPEED_DEFAULT;
    song->lines_per_beat = 4;
    song->midi_kbd_module = -1;
    song->midi_kbd_port = -1;
    song->looped_pattern = -1;
    song->next_looped_pattern = -1;
    song->playing_pats[0] = -1;
    song->last_bpm = -1;
    song->play_bpm = song->start_bpm = ZELFON_BPM_DEFAULT;
    song->play_speed = song->start_speed = ZELFON_SPEED_DEFAULT;
    song->last_speed = -1;

    song->net = (psynth_net*)mem_new(MEM_DYNAMIC, sizeof(psynth_net), "zelfon_song_init");
    song->track_sets = (zelfon_track_set*)mem_new(MEM_DYNAMIC, sizeof(zelfon_track_set) * ZELFON_TRACK_SETS, "zelfon_song_init");
    song->live_tracks = (zelfon_track_set*)mem_new(MEM_DYNAMIC, sizeof(zelfon_track_set), "zelfon_song_init");
    void* live_ring = mem_new(MEM_DYNAMIC, sizeof(zelfon_live_cell_ring), "zelfon_song_init");
    void* midi_ring = mem_new(MEM_DYNAMIC, sizeof(zelfon_midi_event_ring), "zelfon_song_init");
    if (live_ring) song->live_ring = new (live_ring) zelfon_live_cell_ring();
    if (midi_ring) song->midi_ring = new (midi_ring) zelfon_midi_event_ring();
    mem_zero(song->track_sets);
    mem_zero(song->live_tracks);
    if (!song->net || !song->track_sets || !song->live_tracks || !live_ring || !midi_ring) {
        mem_free(song->net);
        song->net = nullptr;
        zelfon_song_close(song);
        return 1;
    }
    psynth_init(psynth_flags, sampling_rate, song->bpm, song->speed, song->net);
    song->net->global_volume = 80;
    if (zelfon_icons_init(song)) {
        zelfon_song_close(song);
        return 1;
    }
    zelfon_open_midi_keyboard(song);
    zelfon_edit_init_history(zelfon_edit_profile_undo_size(), song);
    song->loaded = 1;
    return 0;
}

int zelfon_set_render_threads(int threads, zelfon_song* song) {
    if (!song->net) return 0;
    if (threads <= 0) threads = (int)std::thread::hardware_concurrency();
    tarvik_mutex_lock(&song->net->mutex);
    int in_force = psynth_set_render_threads(threads, song->net);
    tarvik_mutex_unlock(&song->net->mutex);
    return in_force;
}

void zelfon_song_close(zelfon_song* song) {
    song->loaded = 0;
    zelfon_edit_close_history(song);
    zelfon_remove_all_patterns(song);
    mem_free(song->pats);
    mem_free(song->pats_info);
    mem_free(song->sorted_pats);
    mem_free(song->editor_pats);
    song->pats = nullptr;
    song->pats_info = nullptr;
    song->pats_capacity = 0;
    song->pats_free_from = 0;
    song->sorted_pats = nullptr;
    song->sorted_pats_count = 0;
    song->editor_pats = nullptr;
    song->editor_pats_count = 0;
    zelfon_icons_close(song);
    if (song->net) {
        psynth_close(song->net);
        mem_free(song->net);
        song->net = nullptr;
    }
    mem_free(song->track_sets);
    mem_free(song->live_tracks);
    mem_free(song->live_ring);
    mem_free(song->midi_ring);
    song->track_sets = nullptr;
    song->live_tracks = nullptr;
    song->live_ring = nullptr;
    song->midi_ring = nullptr;
    mem_free(song->name);
    song->name = nullptr;
}

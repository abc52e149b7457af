// The playback engine: the render request is cut into pieces, each piece into steps
// that end at tick boundaries; at each tick the lines advance, the cells of the
// patterns under the current line become module events at that frame, per-tick
// effects run, and then the net renders the piece.
//
// Time is kept in 1/256 frame so that a tick of T/256 frames never drifts: tick k after
// play starts at frame ceil(k·T/256), whatever the sizes of the requests.
#include "song/playback.h"

#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "engine/log.h"
#include "engine/memory.h"
#include "engine/random.h"
#include "psynth/psynth_net.h"

constexpr int kFrameFracBits = 8;  // tick lengths and the accumulator are in 1/256 frame
constexpr int kSemitone = 256;     // pitch units per semitone
constexpr int kStopWaitMs = 2000;

// Where a cell plays: the track's state, its voice id and its note bookkeeping.
struct track_target {
    zelfon_track_state* state;
    uint32_t* sounding;        // bit per track
    uint16_t* track_module;    // per track
    int track;
    int id;                    // slot << 16 | track
    int slot;                  // pattern slot, −1 for live input
};

// ---- Event helpers ----

static bool module_exists(int mod, const psynth_net* net) {
    return mod >= 0 && mod < net->slots && (net->modules[mod].flags & PSYNTH_FLAG_EXISTS);
}

static void send_event(int mod, int command, int id, int offset, int note, int velocity, int pitch,
                       psynth_net* net) {
    psynth_event event;
    event.command = command;
    event.id = id;
    event.offset = offset;
    event.note = (int16_t)note;
    event.velocity = (uint16_t)velocity;
    event.pitch = pitch;
    psynth_add_event(mod, &event, net);
}

static void send_to_every_module(int command, int offset, psynth_net* net) {
    for (int m = 0; m < net->slots; m++) {
        if (module_exists(m, net)) send_event(m, command, -1, offset, 0, 0, 0, net);
    }
}

static void send_speed_if_changed(int offset, zelfon_song* song) {
    if (song->play_bpm == song->last_bpm && song->play_speed == song->last_speed) return;
    song->last_bpm = song->play_bpm;
    song->last_speed = song->play_speed;
    psynth_net* net = song->net;
    psynth_event event = {};
    event.command = PS_CMD_SPEED_CHANGED;
    event.id = -1;
    event.offset = offset;
    psynth_event_set_speed(&event, psynth_tick_length(net->sampling_rate, song->play_bpm), song->play_speed);
    for (int m = 0; m < net->slots; m++) {
        if (module_exists(m, net) && (net->modules[m].flags & PSYNTH_FLAG_GET_SPEED_CHANGES)) {
            psynth_add_event(m, &event, net);
        }
    }
}

static int cap_pitch(int pitch) { return pitch > ZELFON_PITCH_C0 ? ZELFON_PITCH_C0 : pitch; }

static int note_pitch(int semitone, const psynth_module* mod) {
    return cap_pitch((120 - semitone - mod->relative_note) * kSemitone - mod->finetune);
}

static void release_track(const track_target* t, int offset, psynth_net* net) {
    uint32_t bit = 1u << t->track;
    if (*t->sounding & bit) {
        send_event(t->track_module[t->track], PS_CMD_NOTE_OFF, t->id, offset, 0, 0, 0, net);
        *t->sounding &= ~bit;
    }
}

// ---- Cells ----

static void forget_live_notes(zelfon_song* song) { song->live_voices = 0; }

// Note probability effects: returns false when the note is dropped; may change the velocity.
static bool note_survives(zelfon_cell* cell, zelfon_song* song) {
    if (cell->effect != 0x20 && cell->effect != 0x21) return true;
    int r = tarvik_random(&song->random_seed);
    if (r >= cell->value) return false;
    if (cell->effect == 0x21) {
        cell->vel = (uint8_t)(cell->vel == 0 ? (r >> 8) + 1 : ((r * (cell->vel - 1)) >> 15) + 1);
    }
    return true;
}

static void play_note(const zelfon_cell* cell, int mod, const track_target* t, int offset, zelfon_song* song) {
    psynth_net* net = song->net;
    const psynth_module* m = &net->modules[mod];
    zelfon_track_state* ts = t->state;
    int pitch, note;
    if (cell->note == ZELFON_NOTE_PITCH) {
        pitch = cell->value - m->relative_note * kSemitone - m->finetune;
        note = (ZELFON_PITCH_C0 - pitch) / kSemitone;
    } else {
        note = cell->note - 1;
        pitch = note_pitch(note, m);
    }
    int velocity = cell->vel ? (cell->vel - 1) * 2 : 256;
    uint32_t bit = 1u << t->track;
    if ((*t->sounding & bit) && t->track_module[t->track] != mod) release_track(t, offset, net);
    send_event(mod, PS_CMD_NOTE_ON, t->id, offset, note, velocity, pitch, net);
    t->track_module[t->track] = (uint16_t)mod;
    *t->sounding |= bit;
    ts->pitch = pitch;
    ts->note = (int16_t)note;
    ts->velocity = velocity;
}

static void apply_effect(const zelfon_cell* cell, int mod, const track_target* t, int offset, zelfon_song* song) {
    psynth_net* net = song->net;
    zelfon_track_state* ts = t->state;
    int x = cell->value;
    switch (cell->effect) {
    case 0x01:
    case 0x02:
    case 0x03:
        ts->flags |= ZELFON_TRACK_SLIDE;
        if (x) ts->slide_speed = (uint16_t)(x * 4);
        if (cell->effect == 0x01) ts->slide_target = -ZELFON_PITCH_C0;
        if (cell->effect == 0x02) ts->slide_target = ZELFON_PITCH_C0;
        if (cell->effect == 0x03 && cell->note >= 1 && cell->note <= 127) {
            ts->slide_target = (int16_t)note_pitch(cell->note - 1, &net->modules[mod]);
        }
        break;
    case 0x07:
        send_event(mod, PS_CMD_SET_SAMPLE_OFFSET2, t->id, offset, 0, x, 0, net);
        break;
    case 0x08:
        ts->arpeggio = (uint16_t)x;
        break;
    case 0x09:
        send_event(mod, PS_CMD_SET_SAMPLE_OFFSET, t->id, offset, 0, 0, x * 256, net);
        break;
    case 0x0A:
        ts->velocity_slide = (int16_t)((x & 255) ? -(x & 255) : (x >> 8));
        break;
    case 0x0F:
        if (x > 31) {
            song->play_bpm = x < ZELFON_BPM_MAX ? x : ZELFON_BPM_MAX;
        } else {
            song->play_speed = (x & 255) ? (x & 255) : 1;
        }
        break;
    case 0x11:
    case 0x12: {
        if (x) ts->slide_speed = (uint16_t)(x * 4);
        int step = ts->slide_speed;
        if (cell->effect == 0x11) {
            ts->pitch -= step;
            if (ts->pitch < -ZELFON_PITCH_C0) ts->pitch = -ZELFON_PITCH_C0;
        } else {
            ts->pitch += step;
            if (ts->pitch > ZELFON_PITCH_C0) ts->pitch = ZELFON_PITCH_C0;
        }
        send_event(mod, PS_CMD_SET_FREQ, t->id, offset, ts->note, ts->velocity, cap_pitch(ts->pitch), net);
        break;
    }
    case 0x19:
        if (x & 31) {
            ts->flags |= ZELFON_TRACK_RETRIGGER;
            // The first count includes the tick it is set on; a replay counts from the next one.
            ts->countdown = (x & 31) + ((ts->flags & ZELFON_TRACK_REPLAYING) ? 0 : 1);
        }
        break;
    case 0x1C:
        ts->flags |= ZELFON_TRACK_CUT;
        ts->countdown = (x & 31) + 1;
        break;
    default:
        break;
    }
}

// Plays one cell on a track at `offset` within the piece.
static void process_cell(zelfon_cell cell, const track_target* t, int offset, zelfon_song* song) {
    psynth_net* net = song->net;
    zelfon_track_state* ts = t->state;
    int mod = cell.module ? cell.module - 1 : t->track_module[t->track];

    if (!note_survives(&cell, song)) {
        cell.note = 0;
        cell.vel = 0;
    }
    ts->flags &= ZELFON_TRACK_ARPEGGIO_WAS_ON | ZELFON_TRACK_REPLAYING;
    ts->arpeggio = 0;
    ts->velocity_slide = 0;
    if (cell.effect == 0x1D && cell.value != 0 && !(ts->flags & ZELFON_TRACK_REPLAYING)) {
        ts->flags |= ZELFON_TRACK_DELAY;
        ts->countdown = (cell.value & 31) + 1;
        return;
    }

    bool plays_note = (cell.note >= 1 && cell.note <= 127) || cell.note == ZELFON_NOTE_PITCH;
    bool exists = module_exists(mod, net);
    if (plays_note && cell.effect != 0x03 && exists) {
        play_note(&cell, mod, t, offset, song);
    } else if (cell.note == ZELFON_NOTE_OFF) {
        release_track(t, offset, net);
    } else if (cell.note == ZELFON_NOTE_ALL_OFF) {
        send_to_every_module(PS_CMD_ALL_NOTES_OFF, offset, net);
    } else if (cell.note == ZELFON_NOTE_CLEAN) {
        send_to_every_module(PS_CMD_CLEAN, offset, net);
        forget_live_notes(song);
    }
    if (!exists) return;

    if (cell.vel && (!plays_note || cell.effect == 0x03)) {
        ts->velocity = (cell.vel - 1) * 2;
        send_event(mod, PS_CMD_SET_VELOCITY, t->id, offset, ts->note, ts->velocity, 0, net);
    }
    if (cell.ctl) {
        bool global = !plays_note && cell.module != 0;
        send_event(mod, global ? PS_CMD_SET_GLOBAL_CONTROLLER : PS_CMD_SET_LOCAL_CONTROLLER,
                   t->id, offset, cell.ctl - 1, cell.value, 0, net);
    }
    if (cell.effect) apply_effect(&cell, mod, t, offset, song);
}

// ---- Track-state sets and the playing list ----

static track_target pattern_target(int slot, int track, zelfon_song* song) {
    zelfon_pattern_info* info = &song->pats_info[slot];
    track_target t;
    t.state = &song->track_sets[info->track_set].tracks[track];
    t.sounding = &info->sounding_tracks;
    t.track_module = info->track_module;
    t.track = track;
    t.id = (slot << 16) | track;
    t.slot = slot;
    return t;
}

static track_target live_target(int track, zelfon_song* song) {
    track_target t;
    t.state = &song->live_tracks->tracks[track];
    t.sounding = &song->live_sounding_tracks;
    t.track_module = song->live_track_module;
    t.track = track;
    t.id = (ZELFON_LIVE_SLOT << 16) | track;
    t.slot = -1;
    return t;
}

static int pattern_tracks(const zelfon_pattern* pat) {
    return pat->channels < ZELFON_MAX_TRACKS ? pat->channels : ZELFON_MAX_TRACKS;
}

static bool pattern_holds_line(int slot, int line, const zelfon_song* song) {
    const zelfon_pattern* pat = song->pats[slot];
    int x = song->pats_info[slot].x;
    return pat && line >= x && line < x + pat->lines;
}

// Gives the pattern a free track-state set (searched onward from the last one given).
static bool start_pattern(int slot, zelfon_song* song) {
    int count = 0;
    while (song->playing_pats[count] >= 0) count++;
    if (count >= ZELFON_MAX_PLAYING_PATTERNS) return false;
    for (int k = 1; k <= ZELFON_TRACK_SETS; k++) {
        int set = (song->last_track_set + k) % ZELFON_TRACK_SETS;
        if (song->track_set_used[set]) continue;
        song->track_set_used[set] = 1;
        song->last_track_set = set;
        memset(&song->track_sets[set], 0, sizeof(zelfon_track_set));
        song->pats_info[slot].track_set = set;
        song->pats_info[slot].sounding_tracks = 0;
        song->playing_pats[count] = slot;
        song->playing_pats[count + 1] = -1;
        return true;
    }
    return false;
}

// Releases a playing pattern's sounding tracks and its track-state set.
static void end_pattern(int slot, int offset, zelfon_song* song) {
    zelfon_pattern_info* info = &song->pats_info[slot];
    if (info->track_set < 0) return;
    if (song->pats[slot]) {
        for (int t = 0; t < ZELFON_MAX_TRACKS; t++) {
            track_target target = pattern_target(slot, t, song);
            release_track(&target, offset, song->net);
        }
    }
    song->track_set_used[info->track_set] = 0;
    info->track_set = -1;
    info->sounding_tracks = 0;
}

static void end_all_patterns(int offset, zelfon_song* song) {
    for (int i = 0; song->playing_pats[i] >= 0; i++) end_pattern(song->playing_pats[i], offset, song);
    song->playing_pats[0] = -1;
}

static void rebuild_playing_list(int offset, zelfon_song* song) {
    end_all_patterns(offset, song);
    int i = 0;
    for (; i < song->sorted_pats_count; i++) {
        int slot = song->sorted_pats[i];
        if (song->pats_info[slot].x > song->line) break;
        if (pattern_holds_line(slot, song->line, song)) start_pattern(slot, song);
    }
    song->next_sorted_pat = i;
}

static void update_playing_list(int offset, zelfon_song* song) {
    int kept = 0;
    for (int i = 0; song->playing_pats[i] >= 0; i++) {
        int slot = song->playing_pats[i];
        if (pattern_holds_line(slot, song->line, song)) {
            song->playing_pats[kept++] = slot;
        } else {
            end_pattern(slot, offset, song);
        }
    }
    song->playing_pats[kept] = -1;
    while (song->next_sorted_pat < song->sorted_pats_count) {
        int slot = song->sorted_pats[song->next_sorted_pat];
        if (song->pats_info[slot].x > song->line) break;
        if (pattern_holds_line(slot, song->line, song)) start_pattern(slot, song);
        song->next_sorted_pat++;
    }
}

// ---- Ticks and lines ----

// Handles the end of the song and pattern loops; returns true when the line moved.
static bool jump_if_needed(zelfon_song* song) {
    int looped = song->looped_pattern;
    if (looped >= 0 && looped < song->pats_capacity && song->pats[looped]) {
        const zelfon_pattern_info* info = &song->pats_info[looped];
        if (song->line >= info->x + song->pats[looped]->lines || song->line < info->x) {
            int next = song->next_looped_pattern;
            if (next >= 0 && next != looped && next < song->pats_capacity && song->pats[next]) {
                song->looped_pattern = next;
                song->next_looped_pattern = -1;
            }
            song->line = song->pats_info[song->looped_pattern].x;
            return true;
        }
        return false;
    }
    if (song->line >= song->song_lines) {
        if (song->stop_at_end) {
            song->past_end = 1;
            return false;
        }
        song->line = 0;
        song->play_bpm = song->bpm;
        song->play_speed = song->speed ? song->speed : 1;
        return true;
    }
    return false;
}

static void process_line(int offset, zelfon_song* song) {
    bool jump = song->jump_pending != 0;
    song->jump_pending = 0;
    if (jump_if_needed(song)) jump = true;
    if (song->past_end) return;
    if (jump) {
        rebuild_playing_list(offset, song);
    } else {
        update_playing_list(offset, song);
    }
    uint32_t muted = song->muted_tracks.load(std::memory_order_relaxed);
    for (int i = 0; song->playing_pats[i] >= 0; i++) {
        int slot = song->playing_pats[i];
        const zelfon_pattern* pat = song->pats[slot];
        int row = song->line - song->pats_info[slot].x;
        for (int t = 0; t < pattern_tracks(pat); t++) {
            const zelfon_cell& cell = pat->data[row * pat->data_xsize + t];
            bool releases = cell.note == ZELFON_NOTE_OFF || cell.note == ZELFON_NOTE_ALL_OFF || cell.note == ZELFON_NOTE_CLEAN;
            if ((muted >> t & 1) && !releases) continue;
            track_target target = pattern_target(slot, t, song);
            process_cell(cell, &target, offset, song);
        }
    }
}

// The cell a track replays when its countdown ends, or null when there is none.
static const zelfon_cell* replay_cell(const track_target* t, zelfon_song* song) {
    if (t->slot < 0) return &song->live_cells[t->track];
    const zelfon_pattern* pat = song->pats[t->slot];
    if (!pattern_holds_line(t->slot, song->line, song) || t->track >= pattern_tracks(pat)) return nullptr;
    return &pat->data[(song->line - song->pats_info[t->slot].x) * pat->data_xsize + t->track];
}

static void run_track_tick(const track_target* t, int offset, zelfon_song* song) {
    psynth_net* net = song->net;
    zelfon_track_state* ts = t->state;
    int mod = t->track_module[t->track];
    if (!module_exists(mod, net)) return;

    if (ts->flags & ZELFON_TRACK_SLIDE) {
        if (ts->pitch < ts->slide_target) {
            ts->pitch += ts->slide_speed;
            if (ts->pitch > ts->slide_target) ts->pitch = ts->slide_target;
        } else if (ts->pitch > ts->slide_target) {
            ts->pitch -= ts->slide_speed;
            if (ts->pitch < ts->slide_target) ts->pitch = ts->slide_target;
        }
    }
    int pitch = ts->pitch;
    bool arpeggio = false;
    if (ts->arpeggio) {
        int phase = song->tick % 3;
        if (phase == 1) pitch -= (ts->arpeggio >> 8) * kSemitone;
        if (phase == 2) pitch -= (ts->arpeggio & 255) * kSemitone;
        ts->flags |= ZELFON_TRACK_ARPEGGIO_WAS_ON;
        arpeggio = true;
    } else if (ts->flags & ZELFON_TRACK_ARPEGGIO_WAS_ON) {
        ts->flags &= (uint8_t)~ZELFON_TRACK_ARPEGGIO_WAS_ON;
        arpeggio = true;  // back to the base pitch, once
    }
    if ((ts->flags & ZELFON_TRACK_SLIDE) || arpeggio) {
        send_event(mod, PS_CMD_SET_FREQ, t->id, offset, ts->note, ts->velocity, cap_pitch(pitch), net);
    }
    if (ts->velocity_slide) {
        ts->velocity += ts->velocity_slide;
        ts->velocity = ts->velocity < 0 ? 0 : ts->velocity > 256 ? 256 : ts->velocity;
        send_event(mod, PS_CMD_SET_VELOCITY, t->id, offset, ts->note, ts->velocity, 0, net);
    }
    if (ts->countdown > 0 && --ts->countdown == 0) {
        uint8_t deferred = ts->flags & (ZELFON_TRACK_RETRIGGER | ZELFON_TRACK_CUT | ZELFON_TRACK_DELAY);
        const zelfon_cell* cell = deferred ? replay_cell(t, song) : nullptr;
        if (cell) {
            zelfon_cell replay = *cell;
            if (deferred & ZELFON_TRACK_CUT) replay = zelfon_cell{ZELFON_NOTE_OFF, 0, 0, 0, 0, 0};
            ts->flags |= ZELFON_TRACK_REPLAYING;
            process_cell(replay, t, offset, song);
            t->state->flags &= (uint8_t)~ZELFON_TRACK_REPLAYING;
        }
    }
}

static void run_tick(int offset, zelfon_song* song) {
    if (song->playing) {
        if (++song->tick >= song->play_speed) {
            song->tick = 0;
            song->line++;
            process_line(offset, song);
        }
        if (!song->past_end) {
            for (int i = 0; song->playing_pats[i] >= 0; i++) {
                int slot = song->playing_pats[i];
                if (!song->pats[slot]) continue;
                for (int t = 0; t < pattern_tracks(song->pats[slot]); t++) {
                    track_target target = pattern_target(slot, t, song);
                    run_track_tick(&target, offset, song);
                }
            }
        }
    }
    for (int t = 0; t < ZELFON_MAX_TRACKS; t++) {
        track_target target = live_target(t, song);
        run_track_tick(&target, offset, song);
    }
}

// ---- Transport and live input on the render thread ----

static void start_playing(zelfon_song* song) {
    song->playing = 1;
    song->line = song->start_line - 1;
    song->play_bpm = song->start_bpm;
    song->play_speed = song->start_speed ? song->start_speed : 1;
    song->tick = song->play_speed - 1;
    song->tick_accumulator = psynth_tick_length(song->net->sampling_rate, song->play_bpm);
    song->jump_pending = 1;
    song->past_end = 0;
}

static void stop_playing(int offset, zelfon_song* song) {
    song->playing = 0;
    song->looped_pattern = -1;
    song->next_looped_pattern = -1;
    send_to_every_module(PS_CMD_ALL_NOTES_OFF, offset, song->net);
    for (int i = 0; song->playing_pats[i] >= 0; i++) {
        zelfon_pattern_info* info = &song->pats_info[song->playing_pats[i]];
        info->track_set = -1;
        info->sounding_tracks = 0;
    }
    song->playing_pats[0] = -1;
    song->live_voices = 0;
    memset(song->track_sets, 0, sizeof(zelfon_track_set) * ZELFON_TRACK_SETS);
    memset(song->track_set_used, 0, sizeof(song->track_set_used));
    memset(song->live_tracks, 0, sizeof(zelfon_track_set));
    song->live_sounding_tracks = 0;
}

static void play_live_cell(const zelfon_cell* cell, int track, int offset, zelfon_song* song) {
    if (track < 0 || track >= ZELFON_MAX_TRACKS) return;
    song->live_cells[track] = *cell;
    track_target target = live_target(track, song);
    process_cell(*cell, &target, offset, song);
    if (cell->note == ZELFON_NOTE_PLAY) start_playing(song);
    if (cell->note == ZELFON_NOTE_STOP) stop_playing(offset, song);
}

static int live_voice_with_key(int key, const zelfon_song* song) {
    for (int v = 0; v < ZELFON_LIVE_VOICES; v++) {
        if ((song->live_voices & (1u << v)) && song->live_voice_keys[v] == key) return v;
    }
    return -1;
}

static void release_live_voice(int voice, int offset, zelfon_song* song) {
    zelfon_cell off = {ZELFON_NOTE_OFF, 0, 0, 0, 0, 0};
    play_live_cell(&off, voice, offset, song);
    song->live_voices &= ~(1u << voice);
}

static void play_live_midi(const zelfon_live_midi_event* e, int offset, zelfon_song* song) {
    int voice = live_voice_with_key(e->key, song);
    if (e->flags & ZELFON_LIVE_NOTE_ON) {
        if (voice >= 0) release_live_voice(voice, offset, song);
        for (voice = 0; voice < ZELFON_LIVE_VOICES && (song->live_voices & (1u << voice)); voice++) {}
        if (voice >= ZELFON_LIVE_VOICES) return;  // eight keys held already
        song->live_voices |= 1u << voice;
        song->live_voice_keys[voice] = e->key;
        zelfon_cell cell = {(uint8_t)(e->key + 1), (uint8_t)(e->velocity + 1), (uint16_t)(e->module + 1), 0, 0, 0};
        play_live_cell(&cell, voice, offset, song);
    } else if (e->flags & ZELFON_LIVE_NOTE_OFF) {
        if (voice >= 0) release_live_voice(voice, offset, song);
    } else if ((e->flags & ZELFON_LIVE_PITCH) && voice >= 0) {
        zelfon_cell cell = {ZELFON_NOTE_PITCH, 0, (uint16_t)(e->module + 1), 0, 0, (uint16_t)e->pitch};
        play_live_cell(&cell, voice, offset, song);
    }
}

static bool is_due(tarvik_ticks t, tarvik_ticks now) { return (int32_t)(t - now) <= 0; }

// Single-producer push: returns 0, or 1 when the ring is full (the entry is dropped).
template <class Ring, class Entry>
static int ring_push(Ring* ring, const Entry& entry) {
    int w = ring->write.load(std::memory_order_relaxed);
    int next = (w + 1) % ZELFON_RING_SIZE;
    if (next == ring->read.load(std::memory_order_acquire)) return 1;
    ring->entries[w] = entry;
    ring->write.store(next, std::memory_order_release);
    return 0;
}

// Single-consumer drain of the entries whose time has come, oldest first (with `all`,
// of every entry whatever its time).
template <class Ring, class Play>
static void ring_take_due(Ring* ring, tarvik_ticks now, Play play, bool all = false) {
    for (;;) {
        int r = ring->read.load(std::memory_order_relaxed);
        if (r == ring->write.load(std::memory_order_acquire)) return;
        if (!all && !is_due(ring->entries[r].t, now)) return;
        play(ring->entries[r]);
        ring->read.store((r + 1) % ZELFON_RING_SIZE, std::memory_order_release);
    }
}

static void take_live_input(tarvik_ticks now, int offset, zelfon_song* song) {
    ring_take_due(song->live_ring, now,
                  [&](const zelfon_live_cell& e) { play_live_cell(&e.cell, e.track, offset, song); });
    ring_take_due(song->midi_ring, now, [&](const zelfon_live_midi_event& e) { play_live_midi(&e, offset, song); });
}

// ---- Rendering ----

static tarvik_ticks ticks_after(tarvik_ticks start, int frames, int rate) {
    if (rate <= 0) return start;
    return start + (tarvik_ticks)((int64_t)frames * tarvik_time_ticks_per_second() / rate);
}

// Advances time over one piece, queuing the events of every tick that falls in it.
static void play_piece(int frames, tarvik_ticks piece_time, zelfon_song* song) {
    const int rate = song->net->sampling_rate;
    int pos = 0;
    while (pos < frames) {
        take_live_input(ticks_after(piece_time, pos, rate), pos, song);
        send_speed_if_changed(pos, song);
        int tick_length = psynth_tick_length(rate, song->play_bpm);
        if (tick_length < 1) tick_length = 1;
        while (song->tick_accumulator >= tick_length) {
            song->tick_accumulator -= tick_length;
            run_tick(pos, song);
            send_speed_if_changed(pos, song);
            tick_length = psynth_tick_length(rate, song->play_bpm);
            if (tick_length < 1) tick_length = 1;
        }
        // The step ends at the next tick boundary or at the end of the piece.
        int step = (tick_length - song->tick_accumulator + (1 << kFrameFracBits) - 1) >> kFrameFracBits;
        if (step > frames - pos) step = frames - pos;
        song->tick_accumulator += step << kFrameFracBits;
        pos += step;
    }
}

// The Output module's buffer feeding request channel c (a mono mix feeds every channel; no
// buffer gives silence).
static const psynth_sample* channel_source(const psynth_module* out, int c) {
    static const psynth_sample kSilence[PSYNTH_BUFFER_SIZE] = {};
    int source = c < out->input_channels ? c : out->input_channels - 1;
    return source >= 0 && out->input_buffers[source] ? out->input_buffers[source] : kSilence;
}

// Frames from .. to of the Output module's channels into `dest` (the request's frame 0),
// interleaved by the request's channel count; stereo, the common case, runs as one loop
// over both channels that vectorises. The render pass writes every frame of the mix, so
// frames before its start are read as the zeros they are.
template <class T, class Convert>
static void write_frames(T* dest, int channels, const psynth_module* out, int from, int to, Convert convert) {
    if (channels == 2) {
        const psynth_sample* left = channel_source(out, 0);
        const psynth_sample* right = channel_source(out, 1);
        for (int i = from; i < to; i++) {
            dest[2 * i] = convert(left[i]);
            dest[2 * i + 1] = convert(right[i]);
        }
        return;
    }
    for (int c = 0; c < channels; c++) {
        const psynth_sample* buf = channel_source(out, c);
        for (int i = from; i < to; i++) dest[(size_t)i * channels + c] = convert(buf[i]);
    }
}

#if defined(__SSE2__)
// Frames from .. of two channels as interleaved 16-bit samples, eight frames at a time (the
// rest is left to write_frames): three saturating doublings are × 8 saturated to
// −32768 .. 32767, and −32768 is then raised to −32767. Returns the first frame not written.
static int write_int16_stereo_vectors(int16_t* dest, const psynth_sample* left, const psynth_sample* right, int from,
                                      int to) {
    static_assert(ZELFON_INT16_SCALE == 8, "three doublings");
    const __m128i floor = _mm_set1_epi16(-ZELFON_INT16_MAX);
    auto scale = [&](const psynth_sample* p) {
        __m128i v = _mm_loadu_si128((const __m128i*)p);
        v = _mm_adds_epi16(v, v);
        v = _mm_adds_epi16(v, v);
        v = _mm_adds_epi16(v, v);
        return _mm_max_epi16(v, floor);
    };
    int i = from;
    for (; i + 8 <= to; i += 8) {
        const __m128i l = scale(left + i), r = scale(right + i);
        _mm_storeu_si128((__m128i*)(dest + 2 * i), _mm_unpacklo_epi16(l, r));
        _mm_storeu_si128((__m128i*)(dest + 2 * i + 8), _mm_unpackhi_epi16(l, r));
    }
    return i;
}
#endif

// Where a pass's mix goes: the request's buffer, from its frame `first`.
struct output_target {
    const zelfon_render_request* request;
    int first;
};

// The net's output hook: frames from .. to of the mix into the request's format.
static void write_output(void* data, int from, int to, const psynth_net* net) {
    const output_target* target = (const output_target*)data;
    const zelfon_render_request* request = target->request;
    const psynth_module* out = &net->modules[0];
    const size_t first = (size_t)target->first * (size_t)request->channels;
    if (request->type == ZELFON_SAMPLE_FLOAT32) {
        write_frames((float*)request->out + first, request->channels, out, from, to, zelfon_sample_to_float);
    } else {
        int16_t* dest = (int16_t*)request->out + first;
#if defined(__SSE2__)
        if (request->channels == 2) from = write_int16_stereo_vectors(dest, channel_source(out, 0), channel_source(out, 1), from, to);
#endif
        write_frames(dest, request->channels, out, from, to, zelfon_sample_to_int16);
    }
}

int zelfon_render(const zelfon_render_request* request, zelfon_song* song) {
    if (!song || !song->net || !song->loaded || !song->net->modules) return 0;
    if (!request->out || request->channels <= 0 || request->frames <= 0) return 1;
    psynth_net* net = song->net;
    psynth_begin_device_buffer(request->out_time, net);
    for (int first = 0; first < request->frames; first += ZELFON_RENDER_PIECE) {
        int frames = request->frames - first;
        if (frames > ZELFON_RENDER_PIECE) frames = ZELFON_RENDER_PIECE;
        tarvik_ticks piece_time = ticks_after(request->out_time, first, net->sampling_rate);
        output_target target = {request, first};
        tarvik_mutex_lock(&net->mutex);
        play_piece(frames, piece_time, song);
        psynth_set_render_params(frames, piece_time, song->line, song->tick, song->playing, net);
        psynth_set_output_hook(write_output, &target, net);
        psynth_render_all(net);
        psynth_set_output_hook(nullptr, nullptr, net);
        if (song->piece_hook) song->piece_hook(song->piece_hook_data, frames, song);
        psynth_clear_events(net);
        tarvik_mutex_unlock(&net->mutex);
    }
    return 1;
}

// ---- Export ----

// With no render thread: what waits in the live rings is taken now, and playing stops.
static void take_rings_and_stop(zelfon_song* song) {
    ring_take_due(
        song->live_ring, 0, [&](const zelfon_live_cell& e) { play_live_cell(&e.cell, e.track, 0, song); }, true);
    ring_take_due(
        song->midi_ring, 0, [&](const zelfon_live_midi_event& e) { play_live_midi(&e, 0, song); }, true);
    stop_playing(0, song);
}

void zelfon_stop_without_sound(zelfon_song* song) {
    if (!song || !song->net || !song->net->modules || !song->live_ring || !song->midi_ring) return;
    tarvik_mutex_lock(&song->net->mutex);
    take_rings_and_stop(song);
    forget_live_notes(song);
    tarvik_mutex_unlock(&song->net->mutex);
}

void zelfon_reset_transport_for_export(zelfon_song* song) {
    if (!song || !song->net || !song->net->modules || !song->live_ring || !song->midi_ring) return;
    tarvik_mutex_lock(&song->net->mutex);
    // The stop or clean cell just posted (and anything else waiting) is taken now: left in
    // the ring it would reach the export's first piece and could stop the export itself.
    take_rings_and_stop(song);
    // Every export starts from the same state, whatever played before it.
    send_to_every_module(PS_CMD_CLEAN, 0, song->net);
    forget_live_notes(song);
    song->random_seed = 0;
    song->last_bpm = -1;
    song->last_speed = -1;
    zelfon_sort_patterns(song);
    song->start_line = 0;
    song->start_bpm = song->bpm;
    song->start_speed = song->speed;
    start_playing(song);
    tarvik_mutex_unlock(&song->net->mutex);
}

// ---- Interface thread ----

static int post_live_cell(const zelfon_cell* cell, int track, zelfon_song* song) {
    return ring_push(song->live_ring, zelfon_live_cell{*cell, track, tarvik_time_ticks()});
}

int zelfon_send_live_cell(const zelfon_cell* cell, int track, zelfon_song* song) {
    if (!song->live_ring || track < 0 || track >= ZELFON_MAX_TRACKS) return 1;
    return post_live_cell(cell, track, song);
}

int zelfon_handle_midi_event(const zelfon_live_midi_event* event, zelfon_song* song) {
    return song->midi_ring ? ring_push(song->midi_ring, *event) : 1;
}

static void post_transport(int note, zelfon_song* song) {
    zelfon_cell cell = {(uint8_t)note, 0, 0, 0, 0, 0};
    if (song->live_ring && post_live_cell(&cell, 0, song)) {
        tarvik_log("zelfon: live ring full, transport command %d dropped\n", note);
    }
}

// Tempo in force at `line`, from the song's tempo changes before it. Re-sorting the
// play order moves what the render thread reads, hence the net's mutex.
static void tempo_at_line(int line, int* bpm, int* speed, zelfon_song* song) {
    *bpm = song->bpm;
    *speed = song->speed ? song->speed : 1;
    tarvik_mutex_lock(&song->net->mutex);
    zelfon_sort_patterns(song);
    tarvik_mutex_unlock(&song->net->mutex);
    if (line <= 0 || song->song_lines <= 0) return;
    zelfon_tempo_change* changes = nullptr;
    int count = 0;
    if (zelfon_get_song_tempo_changes(&changes, &count, song) == 0) {
        const zelfon_tempo_change* c =
            zelfon_tempo_at(changes, count, line < song->song_lines ? line : song->song_lines - 1);
        *bpm = c->bpm;
        *speed = c->speed;
    }
    mem_free(changes);
}

void zelfon_play(int line, zelfon_song* song) {
    tempo_at_line(line, &song->start_bpm, &song->start_speed, song);
    song->start_line = line;
    song->looped_pattern = -1;
    song->next_looped_pattern = -1;
    post_transport(ZELFON_NOTE_PLAY, song);
}

void zelfon_play_pattern(int slot, zelfon_song* song) {
    if (slot < 0 || slot >= song->pats_capacity || !song->pats[slot]) return;
    int line = song->pats_info[slot].x;
    tempo_at_line(line, &song->start_bpm, &song->start_speed, song);
    song->start_line = line;
    song->looped_pattern = slot;
    song->next_looped_pattern = -1;
    post_transport(ZELFON_NOTE_PLAY, song);
}

void zelfon_set_next_looped_pattern(int slot, zelfon_song* song) { song->next_looped_pattern = slot; }

void zelfon_set_stop_at_end(int stop_at_end, zelfon_song* song) { song->stop_at_end = stop_at_end; }

int zelfon_stop(zelfon_song* song) {
    bool was_playing = song->playing != 0;
    post_transport(was_playing ? ZELFON_NOTE_STOP : ZELFON_NOTE_CLEAN, song);
    int waited = 0;
    while (song->playing && waited < kStopWaitMs) {
        tarvik_sleep_ms(1);
        waited++;
    }
    if (song->playing) {
        tarvik_log("zelfon_stop(): no render thread took the stop; stopped without it\n");
        song->playing = 0;
    }
    forget_live_notes(song);
    return was_playing ? 0 : 1;
}

// ---- The editors' changes ----

void zelfon_playback_drop_pattern(int slot, zelfon_song* song) {
    int kept = 0;
    for (int i = 0; song->playing_pats[i] >= 0; i++) {
        if (song->playing_pats[i] == slot) end_pattern(slot, 0, song);
        else song->playing_pats[kept++] = song->playing_pats[i];
    }
    song->playing_pats[kept] = -1;
}

void zelfon_playback_places_changed(zelfon_song* song) {
    zelfon_sort_patterns(song);
    // Patterns that now start at or before the current line wait for their next pass; the
    // playing list drops those the line left at the next line.
    int next = 0;
    while (next < song->sorted_pats_count && song->pats_info[song->sorted_pats[next]].x <= song->line) next++;
    song->next_sorted_pat = next;
}

// The song: a table of patterns (tracks × lines of event cells) placed on a timeline,
// the sound net they play, and the transport state of the playback engine.
//
// Conventions: song functions take the song last and ignore pattern slot numbers that
// are negative, beyond the table or empty. Functions that allocate return −1 (slot
// numbers) or non-zero on failure and leave the table as it was. The GUI thread edits
// the song with the net's mutex held; the render thread alone runs playback
// (song/playback.cpp).
#pragma once

#include <atomic>
#include <cstdint>

#include "engine/thread.h"
#include "engine/undo.h"
#include "psynth/psynth_net.h"

constexpr int ZELFON_MAX_TRACKS = 32;  // the largest track count the pattern editor allows
constexpr int ZELFON_PATTERN_SLOTS_STEP = 16;
constexpr int ZELFON_PATTERN_DEFAULT_YSIZE = 32;
constexpr int ZELFON_MAX_PLAYING_PATTERNS = 64;
constexpr int ZELFON_TRACK_SETS = 64;
constexpr int ZELFON_RING_SIZE = 128;
constexpr int ZELFON_LIVE_VOICES = 8;
constexpr int ZELFON_LIVE_SLOT = 0xFFFF;  // slot part of live-input voice ids
constexpr int ZELFON_ICON_SIZE = 16;
constexpr int ZELFON_ICON_ATLAS_WIDTH = 256;
constexpr int ZELFON_ICONS_STEP = 16;     // icons in the first atlas
constexpr int ZELFON_BPM_DEFAULT = 125;
constexpr int ZELFON_SPEED_DEFAULT = 6;
constexpr int ZELFON_BPM_MIN = 32;
constexpr int ZELFON_BPM_MAX = 16000;
constexpr int ZELFON_PITCH_C0 = 30720;    // pitch of C0; smaller is higher
// Timeline positions (line x, vertical y) lie within −max..max, so that a pattern's end
// (x + lines) and the song length in lines always fit an int.
constexpr int ZELFON_TIMELINE_POSITION_MAX = 1 << 30;

// Special notes of a cell.
enum : int {
    ZELFON_NOTE_OFF = 128,
    ZELFON_NOTE_ALL_OFF = 129,
    ZELFON_NOTE_CLEAN = 130,  // stop and clean every module
    ZELFON_NOTE_STOP = 131,   // transport: stop
    ZELFON_NOTE_PLAY = 132,   // transport: play
    ZELFON_NOTE_PITCH = 133,  // live input: the pitch is in the value
};

// One cell of a pattern (also the unit of the live ring and of the song file).
struct zelfon_cell {
    uint8_t note;      // 0 none, 1..127 semitone note−1 from C0, or a special note
    uint8_t vel;       // 0 none (full), v = 1..129 means velocity (v−1)·2
    uint16_t module;   // 0 none (the track's module), m = module m−1
    uint8_t effect;
    uint8_t ctl;       // 0 none, c = controller c−1
    uint16_t value;
};
static_assert(sizeof(zelfon_cell) == 8, "a cell is 8 bytes");

// Empty: no note, velocity, effect, controller or value, and module's low byte 0.
bool zelfon_cell_is_empty(const zelfon_cell* cell);

// The shared data of a pattern; clones refer to the same record.
struct zelfon_pattern {
    zelfon_cell* data;  // data_ysize lines of data_xsize cells
    int data_xsize;     // row stride in cells
    int data_ysize;
    int channels;       // tracks in use
    int lines;          // lines in use
    int ysize;          // height on the timeline
    uint16_t icon[ZELFON_ICON_SIZE];  // bit 15 of a row is its leftmost pixel
    uint8_t fg[3];
    uint8_t bg[3];
    int icon_num;       // −1 while none is allocated
};

enum : uint32_t { ZELFON_PATTERN_FLAG_CLONE = 1 };

// Per-slot data, not shared by clones.
struct zelfon_pattern_info {
    uint32_t flags;
    int parent;  // parent's slot, for clones
    int x;       // start line on the timeline (may be negative)
    int y;
    // Playback state, cleared when a pattern is created or cloned:
    uint32_t sounding_tracks;               // bit t: track t's note is sounding
    uint16_t track_module[ZELFON_MAX_TRACKS];  // module that track t's last note went to
    int track_set;                          // track-state set used while it plays, −1 = none
};

// The playback state of one track.
enum : uint8_t {
    ZELFON_TRACK_SLIDE = 0x01,
    ZELFON_TRACK_ARPEGGIO_WAS_ON = 0x02,
    ZELFON_TRACK_RETRIGGER = 0x04,
    ZELFON_TRACK_CUT = 0x08,
    ZELFON_TRACK_DELAY = 0x10,
    ZELFON_TRACK_REPLAYING = 0x20,
};

struct zelfon_track_state {
    int pitch;  // 1/256 semitone, 0 is 120 semitones above C0
    int16_t slide_target;
    uint16_t slide_speed;
    int velocity;  // 0..256
    int16_t velocity_slide;
    uint16_t arpeggio;
    uint8_t flags;
    int countdown;  // ticks before the deferred action
    int16_t note;   // semitone of the last note (0 = C0), for re-pitching events
};

struct zelfon_track_set {
    zelfon_track_state tracks[ZELFON_MAX_TRACKS];
};

// A live cell from the interface thread: the cell, its live track and when it is due.
struct zelfon_live_cell {
    zelfon_cell cell;
    int track;
    tarvik_ticks t;
};

// A live note from the MIDI keyboard (16 bytes).
struct zelfon_live_midi_event {
    uint8_t key;
    uint8_t velocity;
    uint16_t module;
    uint32_t flags;
    int32_t pitch;
    tarvik_ticks t;
};
static_assert(sizeof(zelfon_live_midi_event) == 16, "a live MIDI event is 16 bytes");

// Single-producer, single-consumer rings: the interface thread writes, the sound thread reads.
struct zelfon_live_cell_ring {
    zelfon_live_cell entries[ZELFON_RING_SIZE];
    std::atomic<int> write;
    std::atomic<int> read;
};

struct zelfon_midi_event_ring {
    zelfon_live_midi_event entries[ZELFON_RING_SIZE];
    std::atomic<int> write;
    std::atomic<int> read;
};

// Running-status parser of the MIDI keyboard's raw bytes (interface thread).
struct zelfon_midi_parser {
    uint8_t status;  // running status, 0 = none
    uint8_t data[2];
    uint8_t count;   // data bytes gathered for `status`
};

struct zelfon_song {
    char* name;  // owned, null until set
    uint16_t bpm;
    uint8_t speed;  // ticks per line
    uint8_t lines_per_beat;  // editor highlight, not saved
    psynth_net* net;         // owned

    // Pattern slot table: both arrays hold pats_capacity entries.
    zelfon_pattern** pats;
    zelfon_pattern_info* pats_info;
    int pats_capacity;
    int pats_free_from;  // no slot below this one is empty (whatever empties a slot lowers it)

    // Play order: occupied slots sorted by x, then by x + lines.
    int* sorted_pats;
    int sorted_pats_count;
    int song_lines;

    // The editors' list of pattern references and current pattern (kept right by hole removal).
    int* editor_pats;
    int editor_pats_count;
    int current_pattern;

    // The editing history (song/edit.h), created with the song and again after every load;
    // its user data is this record. GUI thread.
    undo history;

    // Icons: a 256 × 16·k pixel atlas and one usage byte per icon number.
    uint8_t* icons_atlas;
    uint8_t* icons_usage;
    int icons_count;
    int icons_free_from;  // no icon number below this one is free

    int midi_kbd_module;
    int midi_kbd_channel;  // 1-based
    int midi_kbd_port;     // "Keyboard" port of the net's MIDI client, −1 = closed
    int midi_kbd_listed;   // the MIDI system listed the keyboard's device at the last watch
    zelfon_midi_parser midi_kbd_parser;
    // Told of every note the MIDI keyboard plays, after it went to the live ring (the editor
    // records them). Interface thread, from zelfon_poll_midi_keyboard. Null: nobody listens.
    void (*midi_note_hook)(void* hook_data, int key, int velocity, int on);
    // Told of every controller change the MIDI keyboard sends (any channel 0..15), after the
    // learned controllers it moves were posted to the live ring.
    void (*midi_cc_hook)(void* hook_data, int channel, int cc, int value);
    void* midi_note_hook_data;

    // Transport (sound thread unless noted; the play functions write the start fields
    // before posting the play command).
    std::atomic<int> playing;
    int line;
    int tick;
    int tick_accumulator;  // 1/256 frame since the last tick
    int play_bpm;          // tempo while playing (effect 0x0F changes these, not the song's)
    int play_speed;
    int start_line;        // where the next play command starts
    int start_bpm;
    int start_speed;
    int jump_pending;      // rebuild the playing list at the next line
    int past_end;          // ran past the end with stop_at_end set
    int stop_at_end;       // set by the interface thread
    int looped_pattern;    // −1 = none
    int next_looped_pattern;
    int next_sorted_pat;   // index in the play order of the next pattern to start
    int playing_pats[ZELFON_MAX_PLAYING_PATTERNS + 1];  // ended by −1
    zelfon_track_set* track_sets;  // ZELFON_TRACK_SETS sets
    uint8_t track_set_used[ZELFON_TRACK_SETS];
    int last_track_set;
    zelfon_track_set* live_tracks;
    uint16_t live_track_module[ZELFON_MAX_TRACKS];
    uint32_t live_sounding_tracks;
    zelfon_cell live_cells[ZELFON_MAX_TRACKS];  // last cell of each live track, for replays
    uint32_t live_voices;  // bit v: live voice v holds a key
    int live_voice_keys[ZELFON_LIVE_VOICES];
    int last_bpm;
    int last_speed;
    uint32_t random_seed;
    zelfon_live_cell_ring* live_ring;
    zelfon_midi_event_ring* midi_ring;
    int loaded;  // 1 once the song may be rendered
    // Tracks the editor muted (bit t: track t of every pattern), a session setting that is
    // not saved: their cells are skipped but for note-offs, so sounding notes still end.
    std::atomic<uint32_t> muted_tracks;

    // Called after every net pass of zelfon_render, with the net's outputs of the piece
    // still in place (export appends them to its files). Null when nobody listens.
    void (*piece_hook)(void* hook_data, int frames, zelfon_song* song);
    void* piece_hook_data;
};

// ---- Song life (song.cpp) ----

// Creates an empty song with a new sound net (psynth flags as for psynth_init).
// Returns 0, or non-zero when memory ran out. GUI thread.
int zelfon_song_init(int psynth_flags, int sampling_rate, zelfon_song* song);
// Frees the song, its patterns and its net. GUI thread, playback stopped.
void zelfon_song_close(zelfon_song* song);
// Renders the song's net with `threads` threads (0: one per core); playback and export use
// them for pieces of 256 frames or more. Returns the count in force. GUI thread; takes the
// net's mutex.
int zelfon_set_render_threads(int threads, zelfon_song* song);

// ---- Pattern table (patterns.cpp) ----

// First empty slot (creating or growing the table by 16). −1 when memory ran out.
int zelfon_get_free_pattern_num(zelfon_song* song);
// A new pattern in slot `num` (a pattern already there is removed first) with cleared cells
// and an icon drawn from `seed`; lines ≥ 1, channels 1..ZELFON_MAX_TRACKS. Returns num, −1 on failure.
int new_pattern_with_num(int num, int lines, int channels, int x, int y, uint32_t seed, zelfon_song* song);
// Fills a new pattern record: size, the default look and an icon drawn from `seed`; no
// cells (data null) and no icon number yet.
void zelfon_init_pattern_record(zelfon_pattern* pat, int lines, int channels, uint32_t seed);
// Grows the table (by 16s) until `slot` exists, and the play order's room with it, for the
// editors while a render may run: the arrays are allocated first and swapped in under the
// net's mutex. Returns 0, non-zero when memory ran out (nothing changed).
int zelfon_reserve_pattern_slot(int slot, zelfon_song* song);
// A clone of the pattern in `slot` (sharing its cells) at x, y. Returns its slot or −1.
int zelfon_clone_pattern(int slot, int x, int y, zelfon_song* song);
// Empties a clone's slot; a parent takes its record and every clone with it.
void zelfon_remove_pattern(int slot, zelfon_song* song);
// Removes every pattern (the table stays).
void zelfon_remove_all_patterns(zelfon_song* song);
// Tracks in use; storage grows (restrided) but never shrinks. Returns 0, non-zero on failure.
int zelfon_set_pattern_channels(int slot, int channels, zelfon_song* song);
// The cell at (track, line) or null when outside the pattern's storage.
zelfon_cell* zelfon_get_cell(int slot, int track, int line, zelfon_song* song);
// Closes the holes of empty slots; with holes_out, returns a new block of (position, count)
// pairs (room for 16 at a time) and its length in bytes through holes_size, or null and 0 when
// there are no holes. Returns 0, non-zero on failure (the table is then unchanged).
int zelfon_optimize_patterns_and_save_holes(int** holes_out, int* holes_size, zelfon_song* song);
// Re-inserts the holes saved by the function above, growing the table as needed (left as it
// was, with a log line, when memory ran out).
void zelfon_restore_holes(const int* holes, int holes_size, zelfon_song* song);
// Rebuilds the play order and the song length in lines.
void zelfon_sort_patterns(zelfon_song* song);
// Logs one line per slot: "%03d x:%04d y:%04d " then "EMPTY " / "CLONE (parent %d) ".
void zelfon_dump_patterns(zelfon_song* song);

// ---- Tempo (tempo.cpp) ----

// The tempo in force from `line` on, until the next change.
struct zelfon_tempo_change {
    int line;
    uint16_t bpm;
    uint8_t speed;  // ticks per line, at least 1
};
// The song's tempo over the timeline as a list of changes in line order (a new block owned by
// the caller, `*count` entries): the first is line 0 with the song's own tempo as the
// patterns' tempo effects there leave it, each later one a line whose effects change BPM or
// speed. Only changes are kept, so a song of any length costs what its effects cost.
// Returns 0, non-zero when memory ran out (then `*changes` is null and `*count` 0).
int zelfon_get_song_tempo_changes(zelfon_tempo_change** changes, int* count, zelfon_song* song);
// The entry of `changes` in force at `line` (the last one at or before it).
const zelfon_tempo_change* zelfon_tempo_at(const zelfon_tempo_change* changes, int count, int line);
// Song length in frames at `sampling_rate`, following every tempo change. Sorts first. −1 when memory ran out.
int64_t zelfon_get_song_length_frames(int sampling_rate, zelfon_song* song);

// ---- Icons (icons.cpp) ----

// Creates the usage table and atlas for 16 icons. Returns 0, non-zero when memory ran out.
int zelfon_icons_init(zelfon_song* song);
// Frees the usage table and the atlas.
void zelfon_icons_close(zelfon_song* song);
// Marks and returns the first unused icon number, doubling the atlas when all are used. −1 on failure.
int zelfon_get_free_icon_number(zelfon_song* song);
// Marks an icon number unused; numbers outside the table are ignored.
void zelfon_release_icon_number(int icon_num, zelfon_song* song);
// Draws the pattern's icon into the atlas, allocating its number on first drawing.
void zelfon_draw_pattern_icon(int slot, zelfon_song* song);
// A random left-right symmetric 16×16 icon from `seed`.
void zelfon_make_random_icon(uint16_t icon[ZELFON_ICON_SIZE], uint32_t seed);

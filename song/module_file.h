// Module files ("ZSYN", extension "zelsynth"): one module of the sound net with its
// settings, controller values and data chunks, for saving single modules and for the module
// clipboard. The chunks of one module (from "SFFF" to "SEND") are shared with song files,
// so this unit also writes them for songs and collects them while a song is read.
//
// Error convention: savers return 0 on success and 1 on failure (unused slot, file not
// opened or not fully written); loaders return the new module number or −1, and log why.
// All functions are for the GUI thread; the loaders take the net's mutex while they change it.
#pragma once

#include <cstdint>

#include "song/chunks.h"
#include "song/song.h"

constexpr const char* ZELFON_SYNTH_FILE_EXTENSION = "zelsynth";
constexpr const char* ZELFON_PASTEBOARD_FILE = "3:/pasteboard.zelsynth";

// Flags of the module-file savers and loaders.
enum : int { ZELFON_SYNTH_POS_AND_LINKS = 1 };  // save or take position and links

// Optional parts of a module's chunks (settings, controllers and data chunks are always there).
enum : int {
    ZELFON_SYNTH_PART_POSITION = 1,      // "SXXX", "SYYY"
    ZELFON_SYNTH_PART_INPUT_LINKS = 2,   // "SLNK"
    ZELFON_SYNTH_PART_OUTPUT_LINKS = 4,  // "SLNk"
};

// Writes the chunks of module `mod_num`, "SFFF" to "SEND", with the optional `parts`.
// Returns 0, or 1 at the first chunk that cannot be written.
int zelfon_write_synth_chunks(int mod_num, int parts, int fd, zelfon_song* song);

// Module settings collected from the chunks before their "SEND".
struct zelfon_pending_synth {
    uint32_t flags;
    int has_name;
    char name[PSYNTH_NAME_SIZE];
    char type[PSYNTH_NAME_SIZE];
    int finetune;
    int relative_note;
    int x, y;
    int has_color;
    uint8_t color[3];
    char* midi_name;  // owned, null when none
    int midi_channel;
    int midi_bank;
    int midi_program;
    int* input_links;  // owned, input_links_count entries
    int input_links_count;
    int* output_links;
    int output_links_count;
    int ctl_values[PSYNTH_MAX_CTLS];
    int ctl_count;     // values beyond the room for controllers are dropped
    void** chunks;     // owned chunk table of chunks_count entries, or null
    int* chunk_flags;
    int* chunk_rates;
    int chunks_count;
    int chunk_selected;  // entry that "CHDT", "CHFF" and "CHFR" fill, −1 = none
    uint8_t midi_learn_cc[PSYNTH_MAX_CTLS];  // from "SMLC"; PSYNTH_MIDI_UNBOUND when none
    uint8_t midi_learn_channel[PSYNTH_MAX_CTLS];
};

// Clears the record to its defaults (position x, y; no MIDI bank or program).
void zelfon_pending_synth_init(int x, int y, zelfon_pending_synth* p);
// Frees what the record owns and clears it as zelfon_pending_synth_init does.
void zelfon_pending_synth_reset(int x, int y, zelfon_pending_synth* p);
// Takes the reader's current chunk when it belongs to a module; position and link chunks
// only with `take_position_links`. Returns −1 when the chunk is not taken (the caller decides),
// 0 when taken, or the loader's error code 4, 5 or 6 when a chunk table cannot be allocated.
int zelfon_pending_synth_take(zelfon_chunk_reader* reader, int take_position_links, zelfon_pending_synth* p);
// Creates the module in `slot` (−1: the first free one) with the collected type, name,
// flags and position. Returns the module number or −1. Net mutex held.
int zelfon_pending_synth_add(int slot, const zelfon_pending_synth* p, zelfon_song* song);
// Applies the collected settings to module `mod_num` (not its links): finetune, relative
// note, colour, controller values, the data chunk table (moved out of `p`), MIDI out, then
// SETUP_FINISHED. Net mutex held.
void zelfon_pending_synth_configure(int mod_num, zelfon_pending_synth* p, zelfon_song* song);

// Writes module `mod_num` as a module file to an open file; with ZELFON_SYNTH_POS_AND_LINKS
// also its position and links. Returns 0 on success, 1 on failure.
int zelfon_save_synth_to_fd(int mod_num, int fd, int flags, zelfon_song* song);
// The same into a file at `path`, replaced only when fully written. Returns 1 when the slot
// is unused or the file cannot be written.
int zelfon_save_synth(int mod_num, const char* path, int flags, zelfon_song* song);
// Reads a module file from an open file into `slot` (−1: a new slot; a module there is
// replaced). Position and links come from the file with ZELFON_SYNTH_POS_AND_LINKS, else
// the module goes to x, y unlinked. Returns the module number or −1.
int zelfon_load_synth_from_fd(int slot, int x, int y, int fd, int flags, zelfon_song* song);
// The same from the file at `path`; −1 also when it cannot be opened.
int zelfon_load_synth(int slot, int x, int y, const char* path, int flags, zelfon_song* song);

// Copies module `mod_num` with its position and links to the module clipboard. 0 or 1.
int zelfon_copy_synth_to_pasteboard(int mod_num, zelfon_song* song);
// Adds the module on the clipboard in a new slot at x, y, unlinked. Module number or −1.
int zelfon_paste_synth_from_pasteboard(int x, int y, zelfon_song* song);

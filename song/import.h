// Songs from other trackers: XM, MOD (4 to 32 channels), S3M and IT files become a song
// of Samplers linked to Output, with the patterns on the timeline in play order. What has
// no counterpart here is counted in a report, one line per kind, for the user to read.
//
// Error convention: the importers return 0 on success, −1 when the file cannot be opened,
// or one of the ZELFON_IMPORT_* codes below with a one-line reason in the report's
// `error`. They never print; the caller shows the report. GUI thread: an import stops
// playback and holds the sound stream off the song while it rebuilds it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "song/song.h"

enum : int {
    ZELFON_IMPORT_OK = 0,
    ZELFON_IMPORT_CANT_OPEN = -1,
    ZELFON_IMPORT_NOT_RECOGNIZED = 1,  // none of the four formats
    ZELFON_IMPORT_DAMAGED = 2,         // cut short or inconsistent
    ZELFON_IMPORT_TOO_LARGE = 3,       // counts or sizes beyond what any real file holds
    ZELFON_IMPORT_NO_MEMORY = 4,
    ZELFON_IMPORT_SONG_FAILED = 5,     // a pattern or module of the song could not be made
};

enum zelfon_import_format : int {
    ZELFON_IMPORT_FORMAT_NONE = 0,
    ZELFON_IMPORT_FORMAT_XM,
    ZELFON_IMPORT_FORMAT_MOD,
    ZELFON_IMPORT_FORMAT_S3M,
    ZELFON_IMPORT_FORMAT_IT,
};

// What could not be carried over, by kind (zelfon_import_loss_text names each).
enum zelfon_import_loss : int {
    ZELFON_LOSS_VIBRATO = 0,        // vibrato and fine vibrato effects
    ZELFON_LOSS_TREMOLO,
    ZELFON_LOSS_TREMOR,
    ZELFON_LOSS_PANBRELLO,
    ZELFON_LOSS_GLOBAL_VOLUME,      // global volume changes during the song
    ZELFON_LOSS_CHANNEL_VOLUME,     // channel volumes and their slides
    ZELFON_LOSS_PANNING_SLIDE,
    ZELFON_LOSS_PATTERN_DELAY,
    ZELFON_LOSS_TEMPO_SLIDE,
    ZELFON_LOSS_ENVELOPE_POSITION,
    ZELFON_LOSS_WAVEFORM,           // vibrato/tremolo waveforms, glissando, finetune changes
    ZELFON_LOSS_FILTER,             // filters, resonance and the Amiga LED filter
    ZELFON_LOSS_MIDI,               // MIDI macros
    ZELFON_LOSS_SOUND_CONTROL,      // surround, new-note actions and other sound controls
    ZELFON_LOSS_OTHER_EFFECT,       // any other effect without a counterpart
    ZELFON_LOSS_SECOND_EFFECT,      // an effect dropped because its cell already holds one
    ZELFON_LOSS_PANNING_IN_CELL,    // a panning dropped because its cell holds an effect
    ZELFON_LOSS_RETRIGGER_VOLUME,   // volume changes of a multi retrigger
    ZELFON_LOSS_NOTE_CUT,           // note cuts on a new note and note fades, played as note-offs
    ZELFON_LOSS_HIGH_OFFSET,        // sample offsets beyond 65535 frames
    ZELFON_LOSS_LOUD_VOLUME,        // volumes above the sample's own, played at the sample's
    ZELFON_LOSS_FLOW,               // a jump back to a later order: the song restarts from the start
    ZELFON_LOSS_SONG_CUT,           // the unrolled song grew too long and was cut
    ZELFON_LOSS_MISSING_PATTERN,    // orders naming patterns the file does not hold
    ZELFON_LOSS_CHANNELS,           // channels beyond the 32 tracks a pattern has
    ZELFON_LOSS_SAMPLES,            // samples beyond the 16 of an instrument, or unusable ones
    ZELFON_LOSS_SAMPLE_CUT,         // sample data cut short by the end of the file
    ZELFON_LOSS_STEREO,             // stereo samples, of which the left channel is kept
    ZELFON_LOSS_SUSTAIN_LOOP,       // sample sustain loops
    ZELFON_LOSS_ENVELOPE,           // envelope points beyond 12 or 512 ticks, sustain loops, pitch envelopes
    ZELFON_LOSS_NOTE_MAP,           // note transpositions in an instrument's note map
    ZELFON_LOSS_UNUSUAL_FLAG,       // flags the song's player does not follow (IT's old-effects mode)
    ZELFON_LOSS_KINDS
};

constexpr int ZELFON_IMPORT_ERROR_SIZE = 160;

// The outcome of an import: a summary of what was made, and the losses.
struct zelfon_import_report {
    int format;                        // zelfon_import_format
    char error[ZELFON_IMPORT_ERROR_SIZE];  // "" on success
    int channels;                      // tracks of the song's patterns
    int patterns;                      // patterns made (clones not counted)
    int clones;
    int instruments;                   // Samplers made
    int samples;
    int lines;                         // song length in lines
    int losses[ZELFON_LOSS_KINDS];     // count of each kind of loss
};

// Imports the tracker file at `path` (a v3 path) into `song`, made by zelfon_song_init.
// A file that cannot be read leaves the song untouched; once it is read, the song's
// patterns and modules are replaced and the song is marked loaded (holding what was made
// when building it failed midway). Returns 0 or an error code; the report is always filled.
int zelfon_import_song(const char* path, zelfon_song* song, zelfon_import_report* report);
// The same from `size` bytes in memory (for the fuzzers and tests).
int zelfon_import_song_from_memory(const uint8_t* data, size_t size, zelfon_song* song,
                                   zelfon_import_report* report);

// The format the first bytes of a file (at most `size`) show, or NONE. Any thread.
zelfon_import_format zelfon_import_format_of(const uint8_t* data, size_t size);
// "XM", "MOD", "S3M", "IT" or "?". Any thread.
const char* zelfon_import_format_name(int format);
// The user's words for a kind of loss. Any thread.
const char* zelfon_import_loss_text(int kind);
// Writes one line per kind of loss that occurred ("12 x vibrato effects\n"), cut to fit
// `size` bytes; returns the number of such lines. Any thread.
int zelfon_import_report_losses(const zelfon_import_report* report, char* out, size_t size);

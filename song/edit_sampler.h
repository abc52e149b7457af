// The Sampler editor's actions: editing a sample's frames (cut, copy, paste, crop,
// reverse, normalize, fades, resampling), its header (loop, volume, panning, pitch, name),
// the instrument (note map, envelopes, vibrato, fade-out), loading and recording samples.
// Each one is an undoable edit in the song's one history (song/edit.h): the chunks it
// changes are kept as they were, and undo and redo swap them back.
//
// Arguments: `mod` a Sampler module, `slot` one of its samples (0..15); a selection is
// `start` and `length` in frames within the sample. The sample arithmetic itself lives in
// psynth/sample_edit.h and the file formats in psynth/sample_file.h.
//
// Error convention: as song/edit.h: ZELFON_EDIT_OK, or NO_MODULE (no Sampler there),
// NO_SAMPLE (the slot holds no playable sample), OUTSIDE (a selection or value beyond its
// range), NO_MEMORY, LOAD_FAILED (psynth_sample_load_error() tells why) - and nothing
// changed. An edit that changes nothing records nothing. Consecutive changes of one
// header's fields, one loop, one envelope point or the vibrato in one group merge.
//
// Threads: the GUI thread. New frames and records are made outside the lock; they go in,
// and the old ones out, under the module's mutex, so the sound thread skips at most a block.
// Loads read their file's values under it (psynth_sample_load): the module is silent meanwhile.
#pragma once

#include <cstdint>

#include "psynth/sampler.h"
#include "song/edit.h"

// A piece of a sample on the editor's clipboard, in one memory-manager block: the sample's
// header (length = the clip's frames; format, channels and loop kind as the sample's) and
// rate, the frames after it.
struct zelfon_sample_clip {
    psynth_sampler_sample header;
    int32_t rate;
    int32_t reserved;
};
inline uint8_t* zelfon_sample_clip_frames(zelfon_sample_clip* c) { return (uint8_t*)(c + 1); }

enum : int {
    ZELFON_SAMPLER_ENV_VOLUME = 0,
    ZELFON_SAMPLER_ENV_PANNING = 1,
};

// ---- Frames (edit_sampler.cpp) ----
// A clip of the selection (a new block the caller frees with mem_free), or null.
zelfon_sample_clip* zelfon_sample_copy(int mod, int slot, int start, int length, const zelfon_song* song);
// Removes the selection; with `clip` non-null it is copied there first (a new block).
int zelfon_edit_sample_cut(int mod, int slot, int start, int length, zelfon_sample_clip** clip, zelfon_song* song);
// Replaces `replace` frames at `at` (0: inserts) with the clip, converted to the sample's
// format and channels; into an empty slot the clip becomes a new sample of its own.
int zelfon_edit_sample_paste(int mod, int slot, int at, int replace, const zelfon_sample_clip* clip, zelfon_song* song);
// Keeps only the selection.
int zelfon_edit_sample_crop(int mod, int slot, int start, int length, zelfon_song* song);
// Reverses the selection.
int zelfon_edit_sample_reverse(int mod, int slot, int start, int length, zelfon_song* song);
// Scales the selection to full scale (psynth_sample_normalize); silence stays as it is.
int zelfon_edit_sample_normalize(int mod, int slot, int start, int length, zelfon_song* song);
// Fades the selection in from silence, or out to silence (psynth_sample_fade).
int zelfon_edit_sample_fade(int mod, int slot, int start, int length, int fade_in, zelfon_song* song);
// "Change base sampling frequency": the frames stay, the chunk's rate becomes `rate` and the
// relative note and finetune rise by the ratio new ÷ old (the sample sounds as if recorded at `rate`).
int zelfon_edit_sample_set_rate(int mod, int slot, int rate, zelfon_song* song);
// "Resample (with new frequency)": the frames are resampled from the chunk's rate to `rate`;
// relative note and finetune change so that the pitch stays (within 1 cent), loops scale.
int zelfon_edit_sample_resample_rate(int mod, int slot, int rate, zelfon_song* song);
// "Resample (with new length)": the same to `frames` frames; the rate scales with the length.
int zelfon_edit_sample_resample_length(int mod, int slot, int frames, zelfon_song* song);

// ---- Sample header ----
// Loop from `start` for `length` frames of kind PSYNTH_SAMPLER_LOOP_OFF, _FORWARD or _PINGPONG.
int zelfon_edit_sample_loop(int mod, int slot, int start, int length, int type, zelfon_song* song);
// Volume 0..64, panning 0..255, relative note −96..95 semitones, finetune −128..127 (1/128 semitone).
int zelfon_edit_sample_header(int mod, int slot, int volume, int panning, int relative_note, int finetune,
                              zelfon_song* song);
// The sample's name (cut to 22 bytes).
int zelfon_edit_sample_name(int mod, int slot, const char* name, zelfon_song* song);

// ---- Instrument ----
// Notes first..last (0..95) play sample `sample`.
int zelfon_edit_sampler_note_map(int mod, int first, int last, int sample, zelfon_song* song);
// Adds an envelope point (x 0..511 ticks, y 0..64) in x order (not on an existing x; 12 at
// most); markers after it move with their points. Returns the code; *index gets its place.
int zelfon_edit_sampler_env_add(int mod, int env, int x, int y, int* index, zelfon_song* song);
// Moves point `point` to x (kept between its neighbours; the first point stays at 0), y 0..64.
int zelfon_edit_sampler_env_move(int mod, int env, int point, int x, int y, zelfon_song* song);
// Removes point `point` (never the first, which holds x = 0); markers follow.
int zelfon_edit_sampler_env_remove(int mod, int env, int point, zelfon_song* song);
// The envelope's switches (PSYNTH_SAMPLER_ENV_ON | _SUSTAIN | _LOOP) and its sustain, loop
// start and loop end points (indices of existing points; loop start ≤ loop end).
int zelfon_edit_sampler_env_markers(int mod, int env, int type, int sustain, int loop_start, int loop_end,
                                    zelfon_song* song);
// Auto-vibrato: type 0 sine, 1 ramp down, 2 square, 3 none; sweep, depth, rate 0..255.
int zelfon_edit_sampler_vibrato(int mod, int type, int sweep, int depth, int rate, zelfon_song* song);
// Fade-out after note-off, 0..65535.
int zelfon_edit_sampler_fadeout(int mod, int fadeout, zelfon_song* song);
// The instrument's volume 0..64, panning 0..255, relative note −96..95 and finetune −128..127.
int zelfon_edit_sampler_instrument(int mod, int volume, int panning, int relative_note, int finetune,
                                   zelfon_song* song);

// ---- Files and new samples ----
// "Load sample (WAV/AIFF/RAW)" into `slot`, or with slot −1 "Load sample (XI/WAV/AIFF/RAW)"
// for the whole instrument (psynth_sample_load; `flags` its PSYNTH_SAMPLE_LOAD_* bits).
// LOAD_FAILED when it failed: psynth_sample_not_recognized() then says the RAW path may
// follow, and whatever the failed whole-instrument load left is recorded too.
int zelfon_edit_sampler_load(int mod, int slot, const char* path, int flags, zelfon_song* song);
// The RAW path: the file as headerless data (psynth_sample_raw_format, 1 or 2 channels), or
// a JPEG image's brightness.
int zelfon_edit_sampler_load_raw(int mod, int slot, const char* path, int format, int channels, zelfon_song* song);
// The new-sample dialog: a silent sample "zlsmp" of `frames` frames, bits 8, 16 or 32 (float),
// 1 or 2 channels, at `rate` (slot −1: a new instrument).
int zelfon_edit_sample_new(int mod, int slot, int frames, int bits, int channels, int rate, zelfon_song* song);
// "Save sample (WAV)" and the instrument as XI (psynth_sample_save_wav / _save_xi). Not edits.
int zelfon_sampler_save_wav(int mod, int slot, const char* path, const zelfon_song* song);
int zelfon_sampler_save_xi(int mod, const char* path, const zelfon_song* song);

// ---- Recording ----
// A take goes from the module's 65536-frame ring (psynth_sampler_record) into the file
// "3:/sampler_<mod>_recording" (16-bit frames), so that it may last longer than the ring.
// Arms (on: a new take, its file emptied) or stops recording the module's inputs.
int zelfon_sampler_record(int mod, int on, int every_second_frame, zelfon_song* song);
// Appends what the render recorded since the last call to the take's file; call it more
// often than the ring fills (every second at 44100 Hz). Frames the ring lost meanwhile are
// left out ("Sample recording error: frames lost\n"). NO_SAMPLE when not recording,
// LOAD_FAILED when the file cannot be written ("Sample recording error: can't write to file\n").
int zelfon_sampler_record_drain(int mod, zelfon_song* song);
// Ends the take: it is drained, and its frames become a 16-bit sample "recording" in `slot`
// at `rate` (the net's rate, halved when every second frame was kept); the ring is disarmed
// and the file removed. NO_SAMPLE when nothing was recorded.
int zelfon_edit_sample_from_recording(int mod, int slot, int rate, zelfon_song* song);

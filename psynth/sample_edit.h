// The sample editor's arithmetic on a Sampler sample's frames (8-bit, 16-bit or float,
// mono or stereo, interleaved): reversing, normalizing, fades, format conversion,
// resampling through libsamplerate, and the pitch that a sample's relative note and
// finetune give. The functions work on blocks the caller owns (copies made for an edit),
// never on chunks the render reads.
//
// Error convention: functions returning int give 0 on success and 1 on failure.
// Threads: any.
#pragma once

#include <cstdint>

// Frames of one sample: `format` a PSYNTH_SAMPLER_FORMAT_*, `channels` 1 or 2.
struct psynth_sample_frames {
    uint8_t* data;
    int format;
    int channels;
    int64_t frames;
};

constexpr int PSYNTH_SAMPLE_PERIODS_PER_SEMITONE = 64;  // the Sampler's pitch steps
constexpr int PSYNTH_SAMPLE_PERIODS_PER_OCTAVE = 768;

// Bytes of one value of a format (1, 2, 4), 0 for an unknown one.
int psynth_sample_value_bytes(int format);
// Bytes of one frame.
int psynth_sample_frame_bytes(const psynth_sample_frames& s);

// Reverses the order of the frames start .. start + length − 1.
void psynth_sample_reverse(const psynth_sample_frames& s, int64_t start, int64_t length);
// Scales the frames so that the largest magnitude among them reaches full scale (127,
// 32767, 1.0): value × full ÷ peak, rounded to nearest, ties away from zero. Returns 0,
// or 1 (nothing changed) when they are silent.
int psynth_sample_normalize(const psynth_sample_frames& s, int64_t start, int64_t length);
// A straight fade over `length` frames: frame i is multiplied by i ÷ (length − 1) fading
// in, (length − 1 − i) ÷ (length − 1) fading out (integers truncated toward zero); one
// frame fades to silence.
void psynth_sample_fade(const psynth_sample_frames& s, int64_t start, int64_t length, bool fade_in);
// Copies `frames` frames from `from` at `from_frame` into `to` at `to_frame`, converting
// the format (8-bit ↔ 16-bit by shifting by 8 bits, integers ↔ floats by 1/128 and
// 1/32768, floats rounded to nearest and clamped) and the channels (mono is copied to both
// sides; stereo becomes the mean of its sides, truncated toward zero).
void psynth_sample_convert(const psynth_sample_frames& from, int64_t from_frame, const psynth_sample_frames& to,
                           int64_t to_frame, int64_t frames);
// Resamples all of `in` into all of `out` (same format and channels) with libsamplerate's
// best sinc converter at the ratio out.frames ÷ in.frames. Returns 0, or 1 when the
// library fails or memory runs out.
int psynth_sample_resample(const psynth_sample_frames& in, const psynth_sample_frames& out);

// The pitch a sample's relative note and finetune give, in periods (1/64 semitone) upwards.
int psynth_sample_pitch_periods(int relative_note, int finetune);
// The relative note and (even) finetune nearest to `periods`: finetune −64 .. 62; the
// note kept within −96 .. 95.
void psynth_sample_set_pitch_periods(int periods, int8_t* relative_note, int8_t* finetune);
// The periods by which a sample whose frames were stretched by `ratio` (new ÷ old) must
// rise to sound at the same pitch: 768 × log2(ratio), rounded to nearest.
int psynth_sample_periods_for_ratio(double ratio);

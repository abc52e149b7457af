// Sample files for the Sampler: WAV, AIFF, AIFC and XI instruments read into its chunks,
// headerless RAW data and JPEG images for files no reader recognises, and one sample
// written back out as WAV. Every reader ends in psynth_sample_create (the chunk records
// are in sampler.h). Files go through the virtual file layer (engine/file.h).
//
// Besides PCM, WAV files may hold floats (format tag 3, 32 or 64 bits), a-law and µ-law
// (decoded to 16 bits) and the extensible header with a PCM or float sub-format (its
// 24- and 32-bit integers become floats); the first loop of a "smpl" chunk becomes the
// sample's loop (cut to the sample, dropped when it starts beyond it). AIFC is read first
// with no byte swapping, as the program always has, and when that finds no sample as
// other programs write it: big-endian with NONE, twos, sowt, fl32, fl64, ulaw, alaw or raw.
//
// Error convention: loaders return 0 on success, 1 on failure and −1 when the file cannot
// be opened; each failure is written to the log and kept as the last load error (texts
// beginning with "!" are meant for a message box). The saver returns non-zero on failure.
// Threads: the GUI thread. Loaders take the module's mutex while they change its chunks,
// so the render goes silent for that module meanwhile instead of reading half-made data.
#pragma once

#include <cstddef>
#include <cstdint>

#include "psynth/psynth_net.h"

constexpr int PSYNTH_SAMPLE_SLOT_INSTRUMENT = -1;  // slot argument: replace the whole instrument
constexpr int PSYNTH_SAMPLE_DEFAULT_RATE = 44100;
constexpr int PSYNTH_SAMPLE_NAME_SIZE = 22;        // instrument and sample names
constexpr int PSYNTH_SAMPLE_HEAD_SIZE = 12;        // bytes that choose the reader

// What the first bytes of a file make of it.
enum psynth_sample_file_type : int {
    PSYNTH_SAMPLE_FILE_UNKNOWN = 0,  // no reader: the RAW path
    PSYNTH_SAMPLE_FILE_WAV,
    PSYNTH_SAMPLE_FILE_AIFF,         // "FORM" with any form type but "AIFC" (the reader refuses unknown ones)
    PSYNTH_SAMPLE_FILE_AIFC,         // "FORM" ... "AIFC": the same reader
    PSYNTH_SAMPLE_FILE_XI,
    PSYNTH_SAMPLE_FILE_JPEG,         // not recognised by the readers, but the RAW path decodes it as an image
};

// Options of psynth_sample_load.
enum : int {
    PSYNTH_SAMPLE_LOAD_XI_FULL_VOLUME = 1,  // every XI sample gets volume 64
};

// Data formats of the RAW path, in the order of the "Select data format" choices.
enum psynth_sample_raw_format : int {
    PSYNTH_SAMPLE_RAW_FLOAT32 = 0,
    PSYNTH_SAMPLE_RAW_INT16 = 1,
    PSYNTH_SAMPLE_RAW_INT8 = 2,   // signed
    PSYNTH_SAMPLE_RAW_UINT8 = 3,  // unsigned: 128 is subtracted
};

// Log messages of the readers and the saver.
constexpr const char* PSYNTH_SAMPLE_MSG_CANT_CREATE = "Can't create the sample\n";
constexpr const char* PSYNTH_SAMPLE_MSG_BITS = "%d bits not supported\n";
constexpr const char* PSYNTH_SAMPLE_MSG_NOT_PCM = "Only uncompressed PCM files supported\n";
constexpr const char* PSYNTH_SAMPLE_MSG_BAD_DATA = "Incorrect 'data' chunk (%d bytes)\n";
constexpr const char* PSYNTH_SAMPLE_MSG_COMPRESSION = "Compression %s not supported.\n";
constexpr const char* PSYNTH_SAMPLE_MSG_UNKNOWN_FORM = "Unknown type: %s\n";
constexpr const char* PSYNTH_SAMPLE_MSG_CHANNELS = "%d channels not supported\n";
constexpr const char* PSYNTH_SAMPLE_MSG_BAD_FMT = "Incorrect 'fmt ' chunk (%d bytes)\n";
constexpr const char* PSYNTH_SAMPLE_MSG_NO_DATA = "No sample data in the file\n";
constexpr const char* PSYNTH_SAMPLE_MSG_CUT_SHORT = "Unexpected end of file\n";
constexpr const char* PSYNTH_SAMPLE_MSG_XI_FORMAT = "XI: unknown sample data format (type %d)\n";
constexpr const char* PSYNTH_SAMPLE_MSG_NOT_RECOGNIZED = "File format not recognized\n";
constexpr const char* PSYNTH_SAMPLE_MSG_CANT_OPEN = "Can't open %s\n";
constexpr const char* PSYNTH_SAMPLE_MSG_NO_PROPERTIES = "ERROR. Can't get sample properties\n";
constexpr const char* PSYNTH_SAMPLE_MSG_CANT_SAVE = "Can't save the sample to %s\n";
constexpr const char* PSYNTH_SAMPLE_MSG_MUTEX = "load sample: mutex lock error %d\n";

// Texts of the sample editor's menus, dialogs and message boxes ("!" opens a message
// box; button and choice lists are separated by ";").
constexpr const char* PSYNTH_SAMPLE_MENU_LOAD_INSTRUMENT = "Load sample (XI/WAV/AIFF/RAW)";
constexpr const char* PSYNTH_SAMPLE_MENU_LOAD_SAMPLE = "Load sample (WAV/AIFF/RAW)";
constexpr const char* PSYNTH_SAMPLE_MENU_SAVE = "Save sample (WAV)";
constexpr const char* PSYNTH_SAMPLE_FOLDER_OPEN = ".zelfon_opensample";
constexpr const char* PSYNTH_SAMPLE_FOLDER_SAVE = ".zelfon_savesample";
constexpr const char* PSYNTH_SAMPLE_BOX_NOT_RECOGNIZED = "!File format not recognized";
constexpr const char* PSYNTH_SAMPLE_BOX_NOT_RECOGNIZED_BUTTONS = "Load RAW;Cancel";
constexpr const char* PSYNTH_SAMPLE_BOX_DATA_FORMAT = "Select data format";
constexpr const char* PSYNTH_SAMPLE_BOX_RAW_FORMATS = "32bit(float);16bit;8bit(signed);8bit";
constexpr const char* PSYNTH_SAMPLE_BOX_NEW_FORMATS = "32bit(float);16bit;8bit";
constexpr const char* PSYNTH_SAMPLE_BOX_CHANNELS = "Select number of channels";
constexpr const char* PSYNTH_SAMPLE_BOX_CHANNEL_CHOICES = "Stereo;Mono";
constexpr const char* PSYNTH_SAMPLE_BOX_EMPTY = "!File is empty";
constexpr const char* PSYNTH_SAMPLE_BOX_JPEG_ERROR = "!JPEG loading error";
constexpr const char* PSYNTH_SAMPLE_BOX_CANT_CREATE = "!Can't create a new sample";
constexpr const char* PSYNTH_SAMPLE_BOX_NEW_FRAMES = "Sample size (number of frames):";
constexpr const char* PSYNTH_SAMPLE_BOX_NEW_RATE = "Base sampling frequency:";
constexpr const char* PSYNTH_SAMPLE_BOX_OK_CANCEL = "OK;Cancel";
constexpr const char* PSYNTH_SAMPLE_NEW_NAME = "zlsmp";

// The reader the first `size` bytes of a file choose (JPEG for the image starts FF D8 FF,
// "IFF.", "IF." and "if."). Any thread.
psynth_sample_file_type psynth_sample_file_type_of(const uint8_t* head, size_t size);
// The same for the file at `path`; UNKNOWN when it cannot be read. Any thread.
psynth_sample_file_type psynth_sample_file_type_of_path(const char* path);

// Creates sample `slot` (0..15, or −1: a new default instrument named `name` replaces
// chunk 0 and the slot becomes 0) for `bytes` bytes of `bits` (8, 16, 32: float) and
// `channels` (1, 2) at `rate`: a 44-byte header (volume 64, panning 128, finetune from
// the rate, length in frames), a zeroed data chunk with its storage flags and rate, and
// the instrument's sample count. Returns the data chunk for the caller to fill, or null
// ("Can't create the sample\n" on the log). GUI thread, with the module's mutex held.
void* psynth_sample_create(const char* name, int bytes, int bits, int channels, int rate, int slot,
                           int mod_num, psynth_net* net);
// The finetune (1/128 semitone, 0..126) a sample recorded at `rate` Hz is given. Any thread.
int psynth_sample_finetune_for_rate(int rate);

// Loads the file at `path` into Sampler `mod_num`: WAV and AIFF/AIFC into `slot` (−1:
// the whole instrument is replaced), XI instruments only with slot −1; `flags` holds
// PSYNTH_SAMPLE_LOAD_* bits. Returns 0; 1 when
// the file failed to load or no reader applies, raising the not-recognised flag after
// which the editor offers the RAW path; −1 when it cannot be opened. A failed load into a
// slot leaves the instrument as it was; with slot −1 the old chunks are gone whatever
// happens, and a file cut short leaves what was read. GUI thread.
int psynth_sample_load(const char* path, int mod_num, int slot, int flags, psynth_net* net);
// Loads the whole file as headerless data (`format` a psynth_sample_raw_format, 1 or 2
// channels) at 44100 Hz, or, when it starts like a JPEG, as the image's brightness: an
// 8-bit mono sample of one frame per pixel. Returns 0, 1 on failure ("!File is empty",
// "!JPEG loading error", "!Can't create a new sample"), −1 when it cannot be opened.
// GUI thread.
int psynth_sample_load_raw(const char* path, int format, int channels, int mod_num, int slot, psynth_net* net);
// Creates the zero-filled sample "zlsmp" of `frames` frames (bits 8, 16 or 32; 1 or 2
// channels) at `rate`. Returns 0, or 1 ("!Can't create a new sample"). GUI thread.
int psynth_sample_new(int frames, int bits, int channels, int rate, int mod_num, int slot, psynth_net* net);

// Set by a load that failed or found no reader, cleared by every load that starts.
bool psynth_sample_not_recognized();
// The last load's error message ("" after a success). GUI thread.
const char* psynth_sample_load_error();

// Writes sample `slot` as a WAV file (format tag 3 for float data, else 1; 8-bit data
// unsigned) as a safe save of the file layer (v3_save_begin). Returns 0, or non-zero when the
// sample is missing or the file cannot be written (the old file then stays). GUI thread.
int psynth_sample_save_wav(const char* path, int mod_num, int slot, psynth_net* net);
// Writes the whole instrument as an XI file (through "<path>.tmp" as above): the record's
// map, envelopes, vibrato and fade-out, its volume, finetune, panning and relative note in
// the "PP" variant when they are not 64, 0, 128, 0, and every sample as 8-bit or 16-bit
// deltas (float samples rounded to 16 bits). Returns 0, or non-zero when there is no
// instrument ("ERROR. Can't get sample properties\n") or the file cannot be written.
// GUI thread.
int psynth_sample_save_xi(const char* path, int mod_num, psynth_net* net);

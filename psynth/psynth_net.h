// The sound net: a table of modules wired output-to-input by links, each driven
// through one handler that answers numbered commands, rendered once per buffer
// into the Output module (slot 0), whose input buffers go to the sound device.
//
// Conventions: every function takes the module index first and the net last and
// silently ignores an index outside the slot table (getters then return 0 or null).
// Structural changes (add, remove, link, chunks) are made by the GUI thread with the
// net's mutex held; the render pass runs on the sound thread under the same mutex.
// Samples are signed 16-bit with 3 fractional bits; gains use 256 as unity.
#pragma once

#include <cstdint>

#include "engine/midi.h"
#include "engine/thread.h"

constexpr int PSYNTH_MAX_CHANNELS = 8;
constexpr int PSYNTH_BUFFER_SIZE = 4096;        // frames per channel buffer
constexpr int PSYNTH_SCOPE_SIZE = 32768;        // samples per scope ring
constexpr int PSYNTH_CAPTURE_SIZE = 2048;       // samples of the net's capture buffer
constexpr int PSYNTH_MAX_CTLS = 17;
constexpr int PSYNTH_NAME_SIZE = 33;
constexpr int PSYNTH_MIDI_HELD_NOTES = 16;
constexpr int PSYNTH_EVENT_HEAP_STEP = 256;     // event records added per heap growth
constexpr int PSYNTH_MODULE_EVENTS_STEP = 128;  // pointers added per module event list growth
constexpr int PSYNTH_SLOTS_STEP = 4;
constexpr int PSYNTH_TIME_RING_SIZE = 4;
constexpr int PSYNTH_OUTPUT_VOLUME_DEFAULT = 52;
constexpr int PSYNTH_CTL_MAX_VALUE = 32768;     // controller values travel as 0..32768
constexpr uint8_t PSYNTH_MIDI_UNBOUND = 0xFF;   // a controller no MIDI controller moves
// A module's tuning, subtracted from every note's pitch: relative note in semitones and
// finetune in 1/256 semitone. Kept within these, a pitch always fits its arithmetic.
constexpr int PSYNTH_RELATIVE_NOTE_MAX = 128;   // −128..128
constexpr int PSYNTH_FINETUNE_MAX = 256;        // −256..256
constexpr int PSYNTH_POSITION_MAX = 1 << 20;    // net editor coordinates, −max..max
constexpr int PSYNTH_RATE_MIN = 1000;          // sampling rates a net runs at, in Hz
constexpr int PSYNTH_RATE_MAX = 768000;
constexpr int PSYNTH_MIDI_CHANNEL_MAX = 15;
constexpr int PSYNTH_MIDI_BANK_MAX = 16383;
constexpr int PSYNTH_MIDI_PROGRAM_MAX = 127;

typedef int16_t psynth_sample;  // fixed point 13.3: full scale of the device is ±4096

// Command numbers every handler switches on.
enum psynth_command : int {
    PS_CMD_NOP = 0,
    PS_CMD_GET_DATA_SIZE,
    PS_CMD_GET_SYNTH_NAME,
    PS_CMD_GET_SYNTH_INFO,
    PS_CMD_GET_SYNTH_COLOR,
    PS_CMD_GET_INPUTS_NUM,
    PS_CMD_GET_OUTPUTS_NUM,
    PS_CMD_GET_FLAGS,
    PS_CMD_GET_WIDTH,
    PS_CMD_GET_HEIGHT,
    PS_CMD_INIT,
    PS_CMD_SETUP_FINISHED,
    PS_CMD_CLEAN,
    PS_CMD_RENDER_REPLACE,
    PS_CMD_NOTE_ON,
    PS_CMD_SET_FREQ,
    PS_CMD_SET_VELOCITY,
    PS_CMD_SET_SAMPLE_OFFSET,
    PS_CMD_SET_SAMPLE_OFFSET2,
    PS_CMD_NOTE_OFF,
    PS_CMD_ALL_NOTES_OFF,
    PS_CMD_SET_LOCAL_CONTROLLER,
    PS_CMD_SET_GLOBAL_CONTROLLER,
    PS_CMD_SPEED_CHANGED,
    PS_CMD_CLOSE,
    PS_CMD_COUNT
};

// Diagnostic names of the commands. The program's table has no entry for
// SET_SAMPLE_OFFSET2, so from NOTE_OFF on a name stands one place below its number.
extern const char* const psynth_command_names[PS_CMD_COUNT - 1];
// Name of a command number for log messages ("?" when out of range).
const char* psynth_command_name(int command);

// Module flag bits (the low part is the handler's GET_FLAGS answer).
enum : uint32_t {
    PSYNTH_FLAG_EXISTS = 0x1,           // slot in use (set by the net)
    PSYNTH_FLAG_OUTPUT = 0x2,           // the Output module: its inputs are its output
    PSYNTH_FLAG_GENERATOR = 0x8,        // sound source: silenced while another module is soloed
    PSYNTH_FLAG_EFFECT = 0x10,          // unfed inputs are cleared before it renders
    PSYNTH_FLAG_INITIALIZED = 0x40,     // INIT was sent (set by the net)
    PSYNTH_FLAG_MUTE = 0x80,
    PSYNTH_FLAG_SOLO = 0x100,
    PSYNTH_FLAG_GET_SPEED_CHANGES = 0x400,
    PSYNTH_FLAG_PASS_MUTE_SOLO = 0x1000,  // its mute/solo state passes on to the modules it feeds
    PSYNTH_FLAG_NO_INPUT_MIXING = 0x2000, // reads its sources' outputs itself
};

// Render-state bits of a module within and across passes.
enum : uint8_t {
    PSYNTH_RENDER_BUSY = 0x1,        // being rendered now (cycle guard)
    PSYNTH_RENDER_DONE = 0x2,        // already rendered in this pass
    PSYNTH_RENDER_WAS_MUTED = 0x4,   // effective mute of the last pass
    PSYNTH_RENDER_WAS_SOLOED = 0x8,  // effective solo of the last pass
};

// The record every handler call receives (20 bytes).
struct psynth_event {
    int32_t command;
    int32_t id;      // voice id tying NOTE_ON to the note's later events; −1 = none
    int32_t offset;  // frame offset within the current buffer
    int16_t note;    // controller number for the controller commands, semitone (0 = C0) for NOTE_ON
    uint16_t velocity;  // controller value 0..32768, or the velocity
    int32_t pitch;   // (120 − semitone) × 256 for an unbent note; smaller is higher
};
static_assert(sizeof(psynth_event) == 20, "psynth_event is 20 bytes");

// SET_SAMPLE_OFFSET carries the sample frame in pitch; SET_SAMPLE_OFFSET2 its 0..32768
// fraction of the sample's length in velocity.
// SPEED_CHANGED carries the tick length (1/256 frame) in the 32 bits of note and
// velocity and the ticks per line in the first byte of pitch.
void psynth_event_set_speed(psynth_event* event, int tick_length, int ticks_per_line);
int psynth_event_tick_length(const psynth_event* event);
int psynth_event_ticks_per_line(const psynth_event* event);
// Frames per tick × 256 for a tempo: ((rate × 15360) / bpm) / 24.
int psynth_tick_length(int sampling_rate, int bpm);

struct psynth_net;
// Answers one command for module `mod_num` (−1 for questions needing no instance).
// The three text commands return a pointer to a constant string.
typedef intptr_t (*psynth_handler)(int mod_num, psynth_event* event, psynth_net* net);

enum : int { PSYNTH_CTL_NUMBER = 0, PSYNTH_CTL_SELECTOR = 1 };

struct psynth_ctl {
    const char* name;
    const char* units;  // "" or slash-separated value names for a selector
    int min;
    int max;
    int def;
    int* value;  // the variable inside the module's data that holds the current value
    int type;
};

struct psynth_module {
    uint32_t flags;
    uint8_t render_state;
    char name[PSYNTH_NAME_SIZE];
    int instance;
    psynth_handler handler;
    void* data;
    psynth_sample* input_buffers[PSYNTH_MAX_CHANNELS];
    psynth_sample* output_buffers[PSYNTH_MAX_CHANNELS];
    int input_start[PSYNTH_MAX_CHANNELS];   // frames before it are silence
    int output_start[PSYNTH_MAX_CHANNELS];
    int x, y;
    uint8_t color[3];
    int finetune;       // 1/256 semitone subtracted from the pitch of every note it plays
    int relative_note;  // semitones subtracted likewise
    psynth_event** events;
    int events_count;
    int cpu_load;          // per cent
    int cpu_time;          // ticks spent since the last measurement
    int cpu_frames;        // frames rendered since the last measurement
    int input_channels;
    int output_channels;
    int* input_links;      // module indices, −1 = free entry
    int input_links_capacity;
    int* output_links;
    int output_links_capacity;
    psynth_sample* scope_rings[PSYNTH_MAX_CHANNELS];
    psynth_ctl ctls[PSYNTH_MAX_CTLS];
    int ctls_count;
    char* midi_out_name;
    int midi_out_port;     // −1 = closed
    int midi_out_channel;
    int midi_out_bank;     // −1 = none
    int midi_out_program;  // −1 = none
    int midi_held_ids[PSYNTH_MIDI_HELD_NOTES];  // −1 = free
    uint8_t midi_held_notes[PSYNTH_MIDI_HELD_NOTES];
    void* editor_window;
    uint32_t ctl_change_counter;
    // MIDI learn: the keyboard's controller (and channel 0..15) that moves each controller;
    // PSYNTH_MIDI_UNBOUND when none.
    uint8_t midi_learn_cc[PSYNTH_MAX_CTLS];
    uint8_t midi_learn_channel[PSYNTH_MAX_CTLS];
    void** chunks;         // chunk count = mem_get_size(chunks) / sizeof(void*)
    int* chunk_flags;
    int* chunk_rates;
    int render_frames;     // request of the current RENDER_REPLACE
    int render_offset;
};

struct psynth_pool;

// OUT's mix is rendered in this many jobs, each a part of the buffer's frames.
constexpr int PSYNTH_OUTPUT_PARTS = 2;

// The render plan of a pass (psynth_render.cpp): the modules as the pass completes them,
// inputs before outputs, worked out before any sample moves so that helper threads can
// render the modules whose inputs are ready while the sums keep the plan's order.
struct psynth_render_plan {
    int* jobs;            // module of each job (OUT may come more than once, in parts)
    uint8_t* states;      // render state each job leaves its module in
    uint8_t* parts;       // OUT's jobs: which part of the frames
    int last_output[PSYNTH_OUTPUT_PARTS];  // while the plan is made: OUT's last job of each part
    int* chain;           // previous job that must finish first besides the inputs (−1 = none)
    uint32_t* done;       // number of the last pass in which the job finished (read atomically)
    int* order;           // per slot: its job, INT32_MAX for none (and for OUT, never counted as rendered)
    uint8_t* walk;        // per slot: render states while the plan is made
    int capacity;         // jobs the arrays hold: slots + (slots + 1) × PSYNTH_OUTPUT_PARTS
    int count;
    uint32_t pass;        // 1..2^24 − 1, tags the claims and the done marks
    uint64_t claim;       // pass (24 bits) | job count (20) | next job to take (20), read and written atomically
    // Whether helpers pay on this machine now (they do not when other programs hold the
    // cores): passes are timed in trials on one thread and on all, and the faster way
    // renders until the next trial.
    int trial_pass;       // passes since the last trial began
    int64_t trial_ns[2];  // time of the trial's passes alone [0] and with helpers [1]
    int64_t trial_frames[2];
    int helpers_pay;
};

struct psynth_time_ring_entry {
    int position;  // scope write position when the device buffer started
    tarvik_ticks time;
};

// Takes OUT's mix of frames from .. to as soon as they are final: called once per part of
// every pass, on any render thread, parts at the same time.
typedef void (*psynth_output_hook)(void* data, int from, int to, const psynth_net* net);

struct psynth_net {
    psynth_module* modules;
    int slots;
    tarvik_mutex mutex;
    psynth_event** event_heap_blocks;  // blocks of PSYNTH_EVENT_HEAP_STEP records: growth never moves queued events
    int event_heap_capacity;
    int events_count;
    tarvik_midi_client midi_client;
    psynth_sample* capture;            // PSYNTH_CAPTURE_SIZE samples
    int capture_fill;
    int capture_module;                // −1 = none
    int capture_full;
    int scope_position;                // write position shared by every scope ring
    int scope_readers;                 // scopes and meters showing; rings are fed only while > 0
    int sampling_rate;
    int global_volume;
    int solo_active;
    int frames;                        // frames of the current buffer
    tarvik_ticks out_time;             // when the buffer's first frame will sound
    int editor_params[3];              // kept with the frame count for the editors
    int cpu_measure;
    int cpu_total;                     // per cent
    psynth_time_ring_entry time_ring[PSYNTH_TIME_RING_SIZE];
    int time_ring_index;
    psynth_render_plan plan;
    psynth_pool* pool;                 // helper threads of the render pass; null: the calling thread alone
    int render_threads;
    psynth_output_hook output_hook;    // null: the mix stays in OUT's inputs only
    void* output_hook_data;
    void (*side_job)(void* data);      // run once during the next pass; null: none
    void* side_job_data;
};

// ---- Net life (psynth_net.cpp) ----

// Sets up an empty net with the Output module in slot 0; with flags bit 0 also the
// starter net: a plucked Generator (1) through an Echo (2) into OUT. GUI thread.
void psynth_init(int flags, int sampling_rate, int bpm, int ticks_per_line, psynth_net* net);
// Removes every module and frees everything the net owns. GUI thread.
void psynth_close(psynth_net* net);

// Adds a module in slot `index` (< 0: the first free slot, growing the table by 4).
// A null handler means the Output module's. Returns the slot, or −1 when memory ran out.
// The caller sends SETUP_FINISHED when controllers and chunks are set. Net mutex held.
int psynth_add_synth(int index, psynth_handler handler, const char* name, uint32_t flags,
                     int x, int y, int bpm, int ticks_per_line, psynth_net* net);
// Closes the module, frees what it owns, unlinks it and frees the slot. Net mutex held.
void psynth_remove_synth(int mod_num, psynth_net* net);
// Sends a command with an otherwise empty event to the module's handler; 0 for a free slot.
intptr_t psynth_do_command(int mod_num, int command, psynth_net* net);
// Passes an event to the module's handler; controller events not taken by the handler are
// applied to the controller and counted. Returns the handler's answer. Caller's thread.
intptr_t psynth_handle_event(int mod_num, psynth_event* event, psynth_net* net);

// ---- Controllers ----

// Registers the next controller (during INIT) and stores its default into *value.
void psynth_register_ctl(int mod_num, const char* name, const char* units, int min, int max,
                         int def, int type, int* value, psynth_net* net);
// Rewrites controller `ctl`; name, units and value change only when not null.
void psynth_change_ctl(int mod_num, int ctl, const char* name, const char* units, int min,
                       int max, int def, int type, int* value, psynth_net* net);
// The value a controller takes for a normalized value 0..32768 (larger counts as 32768).
int psynth_ctl_value_from_normalized(const psynth_ctl* ctl, int normalized);
// Brings every controller value of `mod` within its registered range, whoever wrote it (an
// editor, a file, a script). The net calls it before it hands the module a command, an
// event or a buffer to render, so no handler ever sees a value outside its range.
void psynth_clamp_ctl_values(psynth_module* mod);

// ---- Channels ----

int psynth_get_number_of_inputs(int mod_num, psynth_net* net);
int psynth_get_number_of_outputs(int mod_num, psynth_net* net);
void psynth_set_number_of_inputs(int mod_num, int count, psynth_net* net);
void psynth_set_number_of_outputs(int mod_num, int count, psynth_net* net);

// ---- Links ----

// Toggles the link in which `src` feeds `dest`. Net mutex held.
void psynth_make_link(int dest, int src, psynth_net* net);
void psynth_add_input_link(int mod_num, int link, psynth_net* net);
void psynth_add_output_link(int mod_num, int link, psynth_net* net);

// ---- Data chunks (saved with the song) ----

// Creates chunk `chunk` of `size` zeroed bytes, replacing any data under that number.
// Returns 0 on success, 1 when memory ran out.
int psynth_new_chunk(int mod_num, int chunk, int size, int flags, int rate, psynth_net* net);
void* psynth_get_chunk(int mod_num, int chunk, psynth_net* net);
// Size, flags and rate of a chunk (each output optional). Returns 0, or 1 when there is none.
int psynth_get_chunk_info(int mod_num, int chunk, int* size, int* flags, int* rate, psynth_net* net);
void psynth_set_chunk_info(int mod_num, int chunk, int flags, int rate, psynth_net* net);
// Resizes a chunk's data keeping its contents; null when the chunk is empty.
void* psynth_resize_chunk(int mod_num, int chunk, int new_size, psynth_net* net);
void psynth_free_chunk(int mod_num, int chunk, psynth_net* net);
// Takes chunk `chunk`'s block out of the module, leaving the number empty: the caller owns
// the block (and gets its flags and rate, each output optional). Null when there is none.
void* psynth_take_chunk(int mod_num, int chunk, int* flags, int* rate, psynth_net* net);
// Puts the memory-manager block `data` (or null) in as chunk `chunk`, freeing what was
// there. Returns 0, or 1 when the chunk table could not grow (`data` is then freed).
int psynth_put_chunk(int mod_num, int chunk, void* data, int flags, int rate, psynth_net* net);
void psynth_free_chunks(int mod_num, psynth_net* net);
int psynth_get_chunks_count(int mod_num, psynth_net* net);
// Makes the chunk table `count` numbers long (0: no table, as after psynth_free_chunks):
// chunks beyond it are freed, added numbers are empty. Returns 0, or 1 when memory ran out
// (the table is then as it was).
int psynth_set_chunks_count(int mod_num, int count, psynth_net* net);

// ---- MIDI out ----

// Opens (or with a null name only configures) the module's MIDI out port, named
// "%d %s MIDI OUT". Returns 0, or −1 for a bad index.
int psynth_open_midi_out(int mod_num, const char* device_name, int channel, psynth_net* net);
// Sets bank and program (−1 leaves one unset) and sends them when the port is open.
void psynth_set_midi_prog(int mod_num, int bank, int program, psynth_net* net);

// Longest message the net sends for one event: a 14-bit controller pair.
constexpr int PSYNTH_MIDI_MESSAGE_MAX = 6;
struct psynth_midi_message {
    int size;
    uint8_t data[PSYNTH_MIDI_MESSAGE_MAX];
};
// The MIDI messages an event produces on the module's channel, updating its held notes.
// Writes at most `max` messages and returns how many.
int psynth_midi_messages_for_event(psynth_module* mod, const psynth_event* event,
                                   psynth_midi_message* out, int max);

// ---- Events and rendering (psynth_render.cpp) ----

// Queues an event for the module in the current buffer. Sound thread (or the export).
void psynth_add_event(int mod_num, const psynth_event* event, psynth_net* net);
// Empties every queue for the next buffer.
void psynth_clear_events(psynth_net* net);
// Sets the frame count (≤ 4096) of the next buffer, the time at which it will sound and
// the three values kept for the editors.
void psynth_set_render_params(int frames, tarvik_ticks out_time, int editor_param1,
                              int editor_param2, int editor_param3, psynth_net* net);
// Renders every module once into the Output module's inputs. Caller holds the net mutex.
// With helper threads (psynth_set_render_threads) and at least 256 frames, modules whose
// inputs are ready render in parallel; the output is the same for any thread count.
void psynth_render_all(psynth_net* net);
constexpr int PSYNTH_PARALLEL_MIN_FRAMES = 256;
// Renders with `threads` threads in all (1: the calling thread alone), starting or stopping
// helpers. Returns the count in force (1 when threads could not be started). GUI thread,
// net mutex held.
int psynth_set_render_threads(int threads, psynth_net* net);
// Sets the hook that takes OUT's mix during each pass (null: none). Net mutex held.
void psynth_set_output_hook(psynth_output_hook hook, void* data, psynth_net* net);
// Gives the next pass a job of the caller's besides the modules': the calling thread runs it
// while the helpers take the first modules (an export writes its last piece so). It runs
// once and is then forgotten. Net mutex held.
void psynth_set_side_job(void (*job)(void* data), void* data, psynth_net* net);
// Sizes the render plan for the slot table. Returns 0, or 1 when memory ran out. Net mutex held.
int psynth_render_plan_fit(psynth_net* net);
// Stops the helpers and frees the render plan (at the net's close). GUI thread.
void psynth_render_plan_free(psynth_net* net);
// Start of a device buffer: records (scope position, time) and clears the CPU accumulators.
void psynth_begin_device_buffer(tarvik_ticks time, psynth_net* net);
// Position of "now" in the module's scope ring for `channel`; the ring and its length
// (32768) through the optional outputs. −1 for a bad index or channel.
int psynth_get_scope_position(int mod_num, int channel, psynth_sample** ring, int* ring_size,
                              psynth_net* net);
// The scope rings and the capture buffer are fed only while a reader (a scope or a level
// meter on screen) is registered: a window adds itself when it starts showing them and
// removes itself when it stops. Any thread, no lock; adds and removes must pair up.
void psynth_scope_readers_add(psynth_net* net);
void psynth_scope_readers_remove(psynth_net* net);
// Chooses the module whose output the capture buffer records (−1 = none) and restarts it.
void psynth_set_capture_module(int mod_num, psynth_net* net);
// Turns the CPU time measurement on or off.
void psynth_set_cpu_measure(int on, psynth_net* net);
// Per-module and total CPU load in per cent from the accumulated time and frames.
void psynth_compute_cpu_usage(psynth_net* net);

// Event queues and the render pass of the sound net: one buffer at a time, every
// module rendered once, sources before the modules they feed, each module's buffer
// split at its events' offsets; then the scope rings, the capture buffer and CPU load.
//
// Channel buffers keep one invariant: frames before a buffer's start position are zero.
// Whoever raises a start zeroes the frames it uncovers, so mixing may add a source into
// any range from the source's start without looking at what was there.
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "engine/log.h"
#include "engine/memory.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"
#include "psynth/psynth_net.h"
#include "psynth/psynth_pool.h"

static bool module_exists(int mod_num, const psynth_net* net) {
    return net->modules && mod_num >= 0 && mod_num < net->slots &&
           (net->modules[mod_num].flags & PSYNTH_FLAG_EXISTS);
}

// ---- Event queues ----

static psynth_event* next_heap_record(psynth_net* net) {
    if (net->events_count >= net->event_heap_capacity) {
        int blocks = net->event_heap_capacity / PSYNTH_EVENT_HEAP_STEP;
        psynth_event** table = (psynth_event**)mem_resize(net->event_heap_blocks, sizeof(psynth_event*) * (blocks + 1));
        if (!table) return nullptr;
        net->event_heap_blocks = table;
        // A new block instead of a larger array: events queued earlier keep their addresses.
        table[blocks] = (psynth_event*)mem_new(MEM_DYNAMIC, sizeof(psynth_event) * PSYNTH_EVENT_HEAP_STEP, "psynth_add_event");
        if (!table[blocks]) return nullptr;
        int old_capacity = net->event_heap_capacity;
        net->event_heap_capacity += PSYNTH_EVENT_HEAP_STEP;
        tarvik_log("EVENTS HEAP RESIZE. OLD %d. NEW %d\n", old_capacity, net->event_heap_capacity);
    }
    int n = net->events_count;
    return &net->event_heap_blocks[n / PSYNTH_EVENT_HEAP_STEP][n % PSYNTH_EVENT_HEAP_STEP];
}

void psynth_add_event(int mod_num, const psynth_event* event, psynth_net* net) {
    if (!module_exists(mod_num, net)) return;
    psynth_module* mod = &net->modules[mod_num];
    int capacity = (int)(mem_get_size(mod->events) / sizeof(psynth_event*));
    if (mod->events_count >= capacity) {
        int new_capacity = capacity + PSYNTH_MODULE_EVENTS_STEP;
        psynth_event** events = (psynth_event**)mem_resize(mod->events, sizeof(psynth_event*) * new_capacity);
        if (!events) return;
        mod->events = events;
        tarvik_log("EVENTS SYNTH RESIZE. OLD %d. NEW %d\n", capacity, new_capacity);
    }
    psynth_event* record = next_heap_record(net);
    if (!record) return;
    *record = *event;
    mod->events[mod->events_count++] = record;
    net->events_count++;
}

void psynth_clear_events(psynth_net* net) {
    net->events_count = 0;
    for (int i = 0; i < net->slots; i++) net->modules[i].events_count = 0;
}

void psynth_set_render_params(int frames, tarvik_ticks out_time, int editor_param1,
                              int editor_param2, int editor_param3, psynth_net* net) {
    if (frames < 0) frames = 0;
    if (frames > PSYNTH_BUFFER_SIZE) frames = PSYNTH_BUFFER_SIZE;
    net->frames = frames;
    net->out_time = out_time;
    net->editor_params[0] = editor_param1;
    net->editor_params[1] = editor_param2;
    net->editor_params[2] = editor_param3;
}

// ---- Sample ranges ----

static void zero_range(psynth_sample* buf, int from, int to) {
    if (to > PSYNTH_BUFFER_SIZE) to = PSYNTH_BUFFER_SIZE;
    if (from < 0) from = 0;
    if (from < to) memset(buf + from, 0, sizeof(psynth_sample) * (size_t)(to - from));
}

static void add_range(psynth_sample* dest, const psynth_sample* src, int from, int to) {
    for (int i = from; i < to; i++) dest[i] = psynth_add_wrap(dest[i], src[i]);
}

// Moves a start position, zeroing what a raised start uncovers.
static void set_start(psynth_sample* buf, int* start, int new_start) {
    if (*start < new_start) zero_range(buf, *start, new_start);
    *start = new_start;
}

// Mixes one source channel into a destination channel. The first source is copied
// (even a silent one: it clears what the last buffer left), later ones are added.
static void mix_channel(psynth_sample* dest, int* dest_start, bool* fed, const psynth_sample* src,
                        int src_start, int frames, bool move_samples) {
    if (src_start < 0) src_start = 0;
    if (!*fed) {
        *fed = true;
        if (move_samples) {
            set_start(dest, dest_start, src_start);
            if (src_start < frames) {
                memcpy(dest + src_start, src + src_start, sizeof(psynth_sample) * (size_t)(frames - src_start));
            }
        }
        *dest_start = src_start;
        return;
    }
    if (move_samples) add_range(dest, src, src_start, frames);
    if (src_start < *dest_start) *dest_start = src_start;
}

// The source's channel feeding channel c: the same one, or its last (mono feeds both).
static int source_channel(const psynth_module* src, int c) {
    return c < src->output_channels ? c : src->output_channels - 1;
}

// ---- The render plan ----
//
// A pass renders every module once, sources before the modules they feed, in the order
// of a depth-first walk from each slot in turn; a link that closes a cycle brings nothing.
// The walk is made first on the modules' render states alone (which modules are rendered
// when, who is muted), recording a job per module rendered; then the jobs run, on the
// calling thread in order, or on helper threads as soon as the jobs they read from are
// done. A job mixes exactly the sources whose jobs come before it, in link order, so the
// sums are the same whichever thread renders what.

// The MultiSynth queues events for the modules it feeds while it renders: such modules,
// and those with a MIDI out port, run one after the other in the plan's order.
static bool must_run_in_order(const psynth_module* mod) {
    return mod->handler == psynth_multisynth || mod->midi_out_port >= 0;
}

static void add_job(int mod_num, uint8_t state, int* last_in_order, psynth_net* net) {
    psynth_render_plan* plan = &net->plan;
    if (plan->count >= plan->capacity) return;  // cannot happen: OUT comes at most once per slot
    const int j = plan->count++;
    plan->jobs[j] = mod_num;
    plan->states[j] = state;
    plan->parts[j] = 0;
    plan->chain[j] = -1;
    if (must_run_in_order(&net->modules[mod_num])) {
        plan->chain[j] = *last_in_order;
        *last_in_order = j;
    }
    if (mod_num != 0 && plan->order[mod_num] == INT32_MAX) plan->order[mod_num] = j;
}

// OUT's mix is split into parts of its frames, one job each, so that the threads share it.
// Each part comes after the same part of OUT's last job (a cycle through OUT plans it again).
static void add_output_jobs(uint8_t state, psynth_net* net) {
    psynth_render_plan* plan = &net->plan;
    for (int part = 0; part < PSYNTH_OUTPUT_PARTS && plan->count < plan->capacity; part++) {
        const int j = plan->count++;
        plan->jobs[j] = 0;
        plan->states[j] = state;
        plan->parts[j] = (uint8_t)part;
        plan->chain[j] = plan->last_output[part];
        plan->last_output[part] = j;
    }
}

// The walk for module m, on the plan's copy of the render states.
static void plan_module(int mod_num, int* last_in_order, psynth_net* net) {
    if (!module_exists(mod_num, net)) return;
    uint8_t* walk = net->plan.walk;
    if (walk[mod_num] & (PSYNTH_RENDER_BUSY | PSYNTH_RENDER_DONE)) return;
    walk[mod_num] |= PSYNTH_RENDER_BUSY;
    const psynth_module* mod = &net->modules[mod_num];
    bool mute = (mod->flags & PSYNTH_FLAG_MUTE) != 0;
    bool solo = (mod->flags & PSYNTH_FLAG_SOLO) != 0;
    for (int i = 0; i < mod->input_links_capacity; i++) {
        int src = mod->input_links[i];
        if (!module_exists(src, net)) continue;
        // Read before the source renders: its last pass's state unless rendered already.
        if (mod_num != 0 && (net->modules[src].flags & PSYNTH_FLAG_PASS_MUTE_SOLO)) {
            mute |= (walk[src] & PSYNTH_RENDER_WAS_MUTED) != 0;
            solo |= (walk[src] & PSYNTH_RENDER_WAS_SOLOED) != 0;
        }
        if (!(walk[src] & PSYNTH_RENDER_DONE)) plan_module(src, last_in_order, net);
    }
    if (mod_num == 0) {
        walk[0] &= (uint8_t)~PSYNTH_RENDER_BUSY;  // OUT never counts as rendered
        add_output_jobs(walk[0], net);
        return;
    }
    if (!(mod->flags & PSYNTH_FLAG_INITIALIZED)) {
        walk[mod_num] = (uint8_t)((walk[mod_num] & ~PSYNTH_RENDER_BUSY) | PSYNTH_RENDER_DONE);
    } else {
        if (net->solo_active) {
            if (mod->flags & PSYNTH_FLAG_SOLO) mute = false;
            else if (mod->flags & PSYNTH_FLAG_GENERATOR) mute = true;
        }
        uint8_t state = PSYNTH_RENDER_DONE;
        if (mute) state |= PSYNTH_RENDER_WAS_MUTED;
        if (solo) state |= PSYNTH_RENDER_WAS_SOLOED;
        walk[mod_num] = state;
    }
    add_job(mod_num, walk[mod_num], last_in_order, net);
}

static void make_plan(psynth_net* net) {
    psynth_render_plan* plan = &net->plan;
    plan->count = 0;
    for (int& last : plan->last_output) last = -1;
    for (int i = 0; i < net->slots; i++) {
        plan->walk[i] = net->modules[i].render_state;
        plan->order[i] = INT32_MAX;
    }
    int last_in_order = -1;
    for (int i = 0; i < net->slots; i++) {
        if (!(plan->walk[i] & PSYNTH_RENDER_DONE)) plan_module(i, &last_in_order, net);
    }
}

// Grows one plan array to `count` entries; false when memory ran out (the old one stays).
template <class T>
static bool grow(T** array, int count) {
    T* grown = (T*)mem_resize(*array, sizeof(T) * (size_t)count);
    if (!grown) return false;
    *array = grown;
    return true;
}

int psynth_render_plan_fit(psynth_net* net) {
    psynth_render_plan* plan = &net->plan;
    const int capacity = net->slots + (net->slots + 1) * PSYNTH_OUTPUT_PARTS;
    if (capacity <= plan->capacity) return 0;
    if (!grow(&plan->jobs, capacity) || !grow(&plan->states, capacity) || !grow(&plan->parts, capacity) ||
        !grow(&plan->chain, capacity) || !grow(&plan->done, capacity) || !grow(&plan->order, net->slots) ||
        !grow(&plan->walk, net->slots)) {
        return 1;
    }
    for (int j = plan->capacity; j < capacity; j++) plan->done[j] = 0;
    plan->capacity = capacity;
    return 0;
}

// ---- Running the jobs ----

static void mix_source_into_inputs(psynth_module* mod, const psynth_module* src, int channels,
                                   bool fed[], bool move_samples, int frames) {
    for (int c = 0; c < channels; c++) {
        int sc = source_channel(src, c);
        if (sc < 0 || !mod->input_buffers[c] || !src->output_buffers[sc]) continue;
        mix_channel(mod->input_buffers[c], &mod->input_start[c], &fed[c], src->output_buffers[sc],
                    src->output_start[sc], frames, move_samples);
    }
}

static void set_output_starts(psynth_module* mod, int silence) {
    for (int c = 0; c < PSYNTH_MAX_CHANNELS; c++) {
        if (mod->output_buffers[c]) set_start(mod->output_buffers[c], &mod->output_start[c], silence);
    }
}

static void zero_outputs(psynth_module* mod, int from, int to, bool above_start) {
    for (int c = 0; c < PSYNTH_MAX_CHANNELS; c++) {
        if (!mod->output_buffers[c]) continue;
        int f = above_start && mod->output_start[c] > from ? mod->output_start[c] : from;
        zero_range(mod->output_buffers[c], f, to);
    }
}

// Stable sort by offset: events at one offset keep the order in which they were queued.
static void sort_events(psynth_module* mod) {
    for (int i = 1; i < mod->events_count; i++) {
        psynth_event* e = mod->events[i];
        int j = i;
        while (j > 0 && mod->events[j - 1]->offset > e->offset) {
            mod->events[j] = mod->events[j - 1];
            j--;
        }
        mod->events[j] = e;
    }
}

static void send_events_to_midi_out(psynth_module* mod, psynth_net* net) {
    uint32_t ticks_per_second = tarvik_time_ticks_per_second();
    for (int i = 0; i < mod->events_count; i++) {
        const psynth_event* event = mod->events[i];
        psynth_midi_message messages[PSYNTH_MIDI_HELD_NOTES + 1];
        int count = psynth_midi_messages_for_event(mod, event, messages, PSYNTH_MIDI_HELD_NOTES + 1);
        tarvik_ticks t = net->out_time;
        if (net->sampling_rate > 0) t += (tarvik_ticks)((int64_t)event->offset * ticks_per_second / net->sampling_rate);
        for (int m = 0; m < count; m++) {
            tarvik_midi_event midi = {t, (uint32_t)messages[m].size, messages[m].data};
            tarvik_midi_client_send_event(&net->midi_client, mod->midi_out_port, &midi);
        }
    }
}

// Renders frames p .. p + length with one RENDER_REPLACE; keeps the leading silence and
// the written flag. Returns the new position.
static int render_piece(int mod_num, int p, int length, int* silence, bool* written, psynth_net* net) {
    if (length <= 0) return p;
    psynth_module* mod = &net->modules[mod_num];
    if (mod->output_channels > 0) {
        mod->render_offset = p;
        mod->render_frames = length;
        psynth_event render = {};
        render.command = PS_CMD_RENDER_REPLACE;
        render.id = -1;
        render.offset = p;
        psynth_clamp_ctl_values(mod);
        intptr_t result = mod->handler(mod_num, &render, net);
        mod = &net->modules[mod_num];
        if (result) {
            *written = true;
        } else if (*written) {
            zero_outputs(mod, p, p + length, true);
        } else {
            *silence = p + length;
        }
    }
    return p + length;
}

static void render_events_in_pieces(int mod_num, int* silence, psynth_net* net) {
    const int frames = net->frames;
    bool written = false;
    int p = 0;
    *silence = 0;
    for (int i = 0; i < net->modules[mod_num].events_count; i++) {
        psynth_event* event = net->modules[mod_num].events[i];
        int offset = event->offset < p ? p : event->offset > frames ? frames : event->offset;
        p = render_piece(mod_num, p, offset - p, silence, &written, net);
        psynth_handle_event(mod_num, event, net);
    }
    render_piece(mod_num, p, frames - p, silence, &written, net);
}

// Passes are numbered in 24 bits inside the claim word; 0 is never a pass.
constexpr int kClaimPassShift = 40;
constexpr int kClaimCountShift = 20;
constexpr uint64_t kClaimFieldMask = (1u << kClaimCountShift) - 1;
constexpr uint32_t kPassLimit = 1u << 24;

// Spins on a job before giving the core away: a helper descheduled in the middle of a
// job (a machine busier than its cores) must not cost the waiter its whole time slice.
constexpr int kSpinsBeforeYield = 2000;

// Every kTrialPeriod passes, kTrialPasses are rendered alone and as many with helpers, the
// two ways alternating in blocks of kTrialBlock passes, so that both see the same load (an
// export's requests are two passes long, and its file written in every second one). The
// first pass of each block is not timed: sleeping helpers may be waking then, or still
// busy from the block before.
constexpr int kTrialPasses = 16;
constexpr int kTrialBlock = 4;
constexpr int kTrialPeriod = 256;

static bool job_done(int j, uint32_t pass, const psynth_net* net) {
    return std::atomic_ref<const uint32_t>(net->plan.done[j]).load(std::memory_order_acquire) == pass;
}

// Spins until job j of this pass is done (on another thread, which is running it).
static void wait_for_job(int j, uint32_t pass, const psynth_net* net) {
    for (int spins = 0; !job_done(j, pass, net); spins++) {
        if (spins < kSpinsBeforeYield) __builtin_ia32_pause();
        else std::this_thread::yield();
    }
}

// True when `src` feeds job j in this pass: its job came first. With `pass` non-zero
// (helpers at work) the source's job is waited for.
static bool feeds_job(int src, int j, uint32_t pass, const psynth_net* net) {
    if (!module_exists(src, net)) return false;
    int k = net->plan.order[src];
    if (k >= j) return false;
    if (pass) wait_for_job(k, pass, net);
    return true;
}

// First frame of OUT's part `part` (the last part ends at `frames`); parts start on whole
// vectors of samples.
static int output_part_start(int part, int frames) {
    return part == 0 ? 0 : part == PSYNTH_OUTPUT_PARTS ? frames : (frames * part / PSYNTH_OUTPUT_PARTS) & ~15;
}

// Part `part` of OUT's mix: every frame of the part is written, each the wrapped sum of the
// sources at that frame (frames before a source's start are its silence), times the global
// volume. Part 0 also sets the inputs' starts: the earliest source start, or the end when
// nothing fed the channel. The output hook then takes the part.
static void render_output_job(int j, uint32_t pass, psynth_net* net) {
    const int frames = net->frames;
    const int part = net->plan.parts[j];
    const int from = output_part_start(part, frames), to = output_part_start(part + 1, frames);
    psynth_module* out = &net->modules[0];
    for (int c = 0; c < out->input_channels; c++) {
        psynth_sample* buf = out->input_buffers[c];
        if (!buf) continue;
        bool fed = false;
        int start = frames;
        for (int i = 0; i < out->input_links_capacity; i++) {
            int src_num = out->input_links[i];
            if (!feeds_job(src_num, j, pass, net)) continue;
            const psynth_module* src = &net->modules[src_num];
            int sc = source_channel(src, c);
            if (sc < 0 || !src->output_buffers[sc]) continue;
            int src_start = src->output_start[sc] < 0 ? 0 : src->output_start[sc];
            int first = src_start > from ? src_start : from;
            if (!fed) {
                zero_range(buf, from, first < to ? first : to);
                if (first < to) memcpy(buf + first, src->output_buffers[sc] + first, sizeof(psynth_sample) * (size_t)(to - first));
            } else {
                add_range(buf, src->output_buffers[sc], first, to);
            }
            fed = true;
            if (src_start < start) start = src_start;
        }
        if (!fed) zero_range(buf, from, to);
        else if (net->global_volume != PSYNTH_GAIN_UNITY) psynth_apply_gain_range(buf, from, to, net->global_volume);
        if (part == 0) out->input_start[c] = fed && start < frames ? start : frames;
    }
    if (net->output_hook) net->output_hook(net->output_hook_data, from, to, net);
}

// Job j: the module's inputs mixed from the jobs before it, its events and pieces, its
// output starts and render state. `pass` is 0 on the calling thread alone.
static void run_job(int j, uint32_t pass, psynth_net* net) {
    const int mod_num = net->plan.jobs[j];
    if (pass && net->plan.chain[j] >= 0) wait_for_job(net->plan.chain[j], pass, net);
    if (mod_num == 0) {
        render_output_job(j, pass, net);
        return;
    }
    psynth_module* mod = &net->modules[mod_num];
    const int frames = net->frames;
    const uint8_t state = net->plan.states[j];
    bool fed[PSYNTH_MAX_CHANNELS] = {};
    bool move_samples = !(mod->flags & PSYNTH_FLAG_NO_INPUT_MIXING);
    for (int i = 0; i < mod->input_links_capacity; i++) {
        int src = mod->input_links[i];
        if (!feeds_job(src, j, pass, net)) continue;
        mix_source_into_inputs(mod, &net->modules[src], mod->output_channels, fed, move_samples, frames);
    }
    if (mod->flags & PSYNTH_FLAG_EFFECT) {
        for (int c = 0; c < PSYNTH_MAX_CHANNELS; c++) {
            if (mod->input_buffers[c] && !fed[c] && mod->input_start[c] < frames) {
                zero_range(mod->input_buffers[c], mod->input_start[c], frames);
                mod->input_start[c] = frames;
            }
        }
    }
    if (!(mod->flags & PSYNTH_FLAG_INITIALIZED)) {
        set_output_starts(mod, frames);
        mod->render_state = state;
        return;
    }

    tarvik_ticks started = net->cpu_measure ? tarvik_time_ticks() : 0;
    sort_events(mod);
    if (mod->midi_out_port >= 0) send_events_to_midi_out(mod, net);

    int silence;
    render_events_in_pieces(mod_num, &silence, net);
    mod = &net->modules[mod_num];

    if (state & PSYNTH_RENDER_WAS_MUTED) zero_outputs(mod, silence, frames, false);
    mod->cpu_frames += frames;
    if (net->cpu_measure) mod->cpu_time += (int)(tarvik_time_ticks() - started);
    set_output_starts(mod, silence);
    mod->render_state = state;
}

// Takes the jobs of the current pass one by one, in plan order, until none is left.
// Helpers that wake late find the pass over (or a newer one) and take nothing stale.
static void work_on_pass(void* arg) {
    psynth_net* net = (psynth_net*)arg;
    std::atomic_ref<uint64_t> claim(net->plan.claim);
    uint64_t word = claim.load(std::memory_order_acquire);
    for (;;) {
        const uint32_t pass = (uint32_t)(word >> kClaimPassShift);
        const int count = (int)((word >> kClaimCountShift) & kClaimFieldMask);
        const int next = (int)(word & kClaimFieldMask);
        if (pass == 0 || next >= count) return;
        if (!claim.compare_exchange_weak(word, word + 1, std::memory_order_acq_rel, std::memory_order_acquire)) continue;
        run_job(next, pass, net);
        std::atomic_ref<uint32_t>(net->plan.done[next]).store(pass, std::memory_order_release);
        word = claim.load(std::memory_order_acquire);
    }
}

static void run_side_job(psynth_net* net) {
    if (!net->side_job) return;
    net->side_job(net->side_job_data);
    net->side_job = nullptr;
    net->side_job_data = nullptr;
}

static void run_jobs_alone(psynth_net* net) {
    run_side_job(net);
    for (int j = 0; j < net->plan.count; j++) run_job(j, 0, net);
}

static void run_jobs_with_helpers(psynth_net* net) {
    psynth_render_plan* plan = &net->plan;
    if (++plan->pass >= kPassLimit) {
        plan->pass = 1;  // older marks could pass for this pass's: clear them
        for (int j = 0; j < plan->capacity; j++) plan->done[j] = 0;
    }
    const uint32_t pass = plan->pass;
    std::atomic_ref<uint64_t>(plan->claim)
        .store((uint64_t)pass << kClaimPassShift | (uint64_t)plan->count << kClaimCountShift, std::memory_order_release);
    psynth_pool_wake(net->pool);
    run_side_job(net);
    work_on_pass(net);
    // The barrier of the pass: every job taken by a helper is running, none waits to start.
    for (int j = 0; j < plan->count; j++) wait_for_job(j, pass, net);
}

static int64_t now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Runs the plan's jobs, with the helpers when there are some, the buffer is long enough
// and the last trial found them faster; the output is the same either way.
static void run_jobs(psynth_net* net) {
    psynth_render_plan* plan = &net->plan;
    if (!net->pool || net->frames < PSYNTH_PARALLEL_MIN_FRAMES || (uint64_t)plan->count > kClaimFieldMask) {
        run_jobs_alone(net);
        return;
    }
    const int t = plan->trial_pass++;
    if (t >= 2 * kTrialPasses) {
        if (t + 1 >= kTrialPeriod) plan->trial_pass = 0;
        if (plan->helpers_pay) run_jobs_with_helpers(net);
        else run_jobs_alone(net);
        return;
    }
    const int helpers = (t / kTrialBlock) & 1;
    if (t == 0) plan->trial_ns[0] = plan->trial_ns[1] = plan->trial_frames[0] = plan->trial_frames[1] = 0;
    const int64_t started = now_ns();
    if (helpers) run_jobs_with_helpers(net);
    else run_jobs_alone(net);
    if (t % kTrialBlock != 0) {
        plan->trial_ns[helpers] += now_ns() - started;
        plan->trial_frames[helpers] += net->frames;
    }
    if (t + 1 == 2 * kTrialPasses) {
        // time per frame with helpers below time per frame alone (cross-multiplied)
        plan->helpers_pay = plan->trial_ns[1] * plan->trial_frames[0] < plan->trial_ns[0] * plan->trial_frames[1];
    }
}

int psynth_set_render_threads(int threads, psynth_net* net) {
    psynth_pool_free(net->pool);
    net->pool = nullptr;
    net->render_threads = 1;
    if (threads > 1 && (net->pool = psynth_pool_new(threads - 1, work_on_pass, net))) net->render_threads = threads;
    return net->render_threads;
}

void psynth_set_output_hook(psynth_output_hook hook, void* data, psynth_net* net) {
    net->output_hook = hook;
    net->output_hook_data = data;
}

void psynth_set_side_job(void (*job)(void* data), void* data, psynth_net* net) {
    net->side_job = job;
    net->side_job_data = data;
}

void psynth_render_plan_free(psynth_net* net) {
    psynth_pool_free(net->pool);
    net->pool = nullptr;
    net->render_threads = 1;
    psynth_render_plan* plan = &net->plan;
    for (void* block : {(void*)plan->jobs, (void*)plan->states, (void*)plan->parts, (void*)plan->chain,
                        (void*)plan->done, (void*)plan->order, (void*)plan->walk}) {
        mem_free(block);
    }
    *plan = psynth_render_plan{};
}

// A channel's sound for the scope: its buffer, or nothing when it starts late.
static const psynth_sample* scope_source(const psynth_module* mod, int c) {
    bool output_module = (mod->flags & PSYNTH_FLAG_OUTPUT) != 0;
    const psynth_sample* buf = output_module ? mod->input_buffers[c] : mod->output_buffers[c];
    int start = output_module ? mod->input_start[c] : mod->output_start[c];
    return start == 0 ? buf : nullptr;
}

static int scope_channels(const psynth_module* mod) {
    return (mod->flags & PSYNTH_FLAG_OUTPUT) ? mod->input_channels : mod->output_channels;
}

// Writes `count` samples of `src` (zeros for null) at `dest`.
static void copy_or_zero(psynth_sample* dest, const psynth_sample* src, int count) {
    if (count <= 0) return;
    if (src) memcpy(dest, src, sizeof(psynth_sample) * (size_t)count);
    else memset(dest, 0, sizeof(psynth_sample) * (size_t)count);
}

static bool scopes_read(const psynth_net* net) {
    return std::atomic_ref<const int>(net->scope_readers).load(std::memory_order_relaxed) > 0;
}

static void feed_scopes(psynth_net* net) {
    const int frames = net->frames;
    const int pos = net->scope_position;
    // The ring wraps at most once per buffer: two block copies.
    const int first = frames < PSYNTH_SCOPE_SIZE - pos ? frames : PSYNTH_SCOPE_SIZE - pos;
    for (int m = 0; m < net->slots; m++) {
        const psynth_module* mod = &net->modules[m];
        if (!(mod->flags & PSYNTH_FLAG_EXISTS)) continue;
        for (int c = 0; c < scope_channels(mod); c++) {
            psynth_sample* ring = mod->scope_rings[c];
            if (!ring) continue;
            const psynth_sample* src = scope_source(mod, c);
            copy_or_zero(ring + pos, src, first);
            copy_or_zero(ring, src ? src + first : nullptr, frames - first);
        }
    }
}

static void feed_capture(psynth_net* net) {
    if (!module_exists(net->capture_module, net) || net->capture_full || !net->capture) return;
    const psynth_module* mod = &net->modules[net->capture_module];
    int count = PSYNTH_CAPTURE_SIZE - net->capture_fill;
    if (count > net->frames) count = net->frames;
    psynth_sample* dest = net->capture + net->capture_fill;
    for (int c = 0; c < scope_channels(mod); c++) {
        const psynth_sample* src = scope_source(mod, c);
        if (c == 0) {
            copy_or_zero(dest, src, count);
        } else {
            for (int i = 0; i < count; i++) dest[i] = (psynth_sample)((dest[i] + (src ? src[i] : 0)) / 2);
        }
    }
    net->capture_fill += count;
    if (net->capture_fill >= PSYNTH_CAPTURE_SIZE) {
        net->capture_full = 1;
        net->capture_fill = 0;
    }
}

void psynth_render_all(psynth_net* net) {
    if (!net->modules) return;
    net->solo_active = 0;
    for (int i = 0; i < net->slots; i++) {
        psynth_module* mod = &net->modules[i];
        if (!(mod->flags & PSYNTH_FLAG_EXISTS)) continue;
        mod->render_state &= (uint8_t)~PSYNTH_RENDER_DONE;
        if (mod->flags & PSYNTH_FLAG_SOLO) net->solo_active = 1;
    }
    make_plan(net);
    run_jobs(net);
    if (scopes_read(net)) {
        feed_scopes(net);
        feed_capture(net);
    }
    net->scope_position = (net->scope_position + net->frames) & (PSYNTH_SCOPE_SIZE - 1);
}

// ---- Time ring, capture and CPU load ----

void psynth_begin_device_buffer(tarvik_ticks time, psynth_net* net) {
    net->time_ring_index = (net->time_ring_index + 1) % PSYNTH_TIME_RING_SIZE;
    net->time_ring[net->time_ring_index].position = net->scope_position;
    net->time_ring[net->time_ring_index].time = time;
    for (int i = 0; i < net->slots; i++) {
        net->modules[i].cpu_time = 0;
        net->modules[i].cpu_frames = 0;
    }
}

int psynth_get_scope_position(int mod_num, int channel, psynth_sample** ring, int* ring_size,
                              psynth_net* net) {
    if (!module_exists(mod_num, net) || channel < 0 || channel >= PSYNTH_MAX_CHANNELS) return -1;
    if (ring) *ring = net->modules[mod_num].scope_rings[channel];
    if (ring_size) *ring_size = PSYNTH_SCOPE_SIZE;
    tarvik_ticks now = tarvik_time_ticks();
    for (int k = 0; k < PSYNTH_TIME_RING_SIZE; k++) {
        const psynth_time_ring_entry* e =
            &net->time_ring[(net->time_ring_index - k + PSYNTH_TIME_RING_SIZE) % PSYNTH_TIME_RING_SIZE];
        int32_t elapsed = (int32_t)(now - e->time);
        if (elapsed < 0) continue;  // that buffer is not heard yet
        int64_t frames = (int64_t)elapsed * net->sampling_rate / tarvik_time_ticks_per_second();
        return (int)((e->position + frames) & (PSYNTH_SCOPE_SIZE - 1));
    }
    return net->scope_position;
}

void psynth_scope_readers_add(psynth_net* net) {
    std::atomic_ref<int>(net->scope_readers).fetch_add(1, std::memory_order_relaxed);
}

void psynth_scope_readers_remove(psynth_net* net) {
    std::atomic_ref<int>(net->scope_readers).fetch_sub(1, std::memory_order_relaxed);
}

void psynth_set_capture_module(int mod_num, psynth_net* net) {
    net->capture_module = mod_num;
    net->capture_fill = 0;
    net->capture_full = 0;
}

void psynth_set_cpu_measure(int on, psynth_net* net) { net->cpu_measure = on; }

void psynth_compute_cpu_usage(psynth_net* net) {
    int64_t ticks_per_second = tarvik_time_ticks_per_second();
    int total = 0;
    for (int i = 0; i < net->slots; i++) {
        psynth_module* mod = &net->modules[i];
        if (!(mod->flags & PSYNTH_FLAG_EXISTS)) continue;
        // (time / tick rate) / (frames / sampling rate) × 100, rounded to a whole per cent
        int64_t denominator = ticks_per_second * mod->cpu_frames;
        mod->cpu_load = denominator > 0
            ? (int)(((int64_t)mod->cpu_time * net->sampling_rate * 100 + denominator / 2) / denominator)
            : 0;
        total += mod->cpu_load;
        mod->cpu_time = 0;
        mod->cpu_frames = 0;
    }
    net->cpu_total = total;
}

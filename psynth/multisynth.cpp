// MultiSynth: a module without sound of its own that passes the notes it receives on
// to every module it is linked to, transposed, randomly detuned and with its velocity
// scaled. It forwards in the render pass, so its targets (which have it as an input
// and so render after it) get the events in the same buffer at the same offsets.
//
// | # | name        | units | min | max  | default | kind     |
// |---|-------------|-------|-----|------|---------|----------|
// | 0 | "Transpose" | ""    | 0   | 256  | 128     | selector |
// | 1 | "Random"    | ""    | 0   | 4096 | 0       | number   |
// | 2 | "Velocity"  | ""    | 0   | 256  | 256     | number   |
//
// Transpose: 128 leaves the pitch, each step one semitone (140 plays an octave up).
// Random: each NOTE_ON and SET_FREQ draws a new detune of up to ±Random/256 semitones,
//   so a slide re-detunes at every step. Velocity: 256 passes the velocity unchanged.
// Each target gets the pitch less its own relative note and finetune, as if the note had
// been played on it, never below C0 (30720).
#include <cstdint>

#include "engine/random.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"

namespace {

const char* const kName = "MultiSynth";
const char* const kInfo = "MultiSynth.\nTranslates events to\nany number of synths.";
const char* const kColor = "#DEFF00";
constexpr int kDataSize = 16;
constexpr uint32_t kFlags = PSYNTH_FLAG_GENERATOR | PSYNTH_FLAG_PASS_MUTE_SOLO;  // 0x1008
static_assert(kFlags == 0x1008);

enum multisynth_ctl : int { CTL_TRANSPOSE, CTL_RANDOM, CTL_VELOCITY, CTL_COUNT };

constexpr int kTransposeNone = 128;
constexpr int kSemitone = 256;         // pitch units per semitone
constexpr int kLowestPitch = 30720;    // C0: no target plays lower
constexpr int kSeedPerModule = 33;     // modules created in the same instant still detune apart
constexpr int kDetuneMask = 8191;      // 13 random bits, centred on 0
constexpr int kDetuneCentre = 4096;
constexpr int kDetuneBits = 12;        // × Random / 4096

struct multisynth_data {
    int ctl[CTL_COUNT];
    uint32_t seed;
};
static_assert(sizeof(multisynth_data) <= kDataSize, "the MultiSynth's state fits its private data size");

// A target that can take events: in use and initialised (never the MultiSynth itself,
// which would feed its own queue while it reads it).
bool target_ok(int mod_num, int target, const psynth_net* net) {
    if (target < 0 || target >= net->slots || target == mod_num) return false;
    const uint32_t need = PSYNTH_FLAG_EXISTS | PSYNTH_FLAG_INITIALIZED;
    return (net->modules[target].flags & need) == need;
}

// Queues the event for every linked target; with `own_pitch` each gets the pitch `pitch`
// less its relative note and finetune, capped at C0.
void forward(int mod_num, psynth_event* event, bool own_pitch, int32_t pitch, psynth_net* net) {
    const psynth_module* mod = &net->modules[mod_num];
    for (int i = 0; i < mod->output_links_capacity; i++) {
        const int target = mod->output_links[i];
        if (!target_ok(mod_num, target, net)) continue;
        if (own_pitch) {
            const psynth_module* t = &net->modules[target];
            int64_t p = (int64_t)pitch - (int64_t)t->relative_note * kSemitone - t->finetune;
            event->pitch = (int32_t)(p > kLowestPitch ? kLowestPitch : p < INT32_MIN ? INT32_MIN : p);
        }
        psynth_add_event(target, event, net);
    }
}

// A controller read within its registered range: songs may carry any value.
int ctl(const multisynth_data* d, int n, int lo, int hi) {
    int v = d->ctl[n];
    return v < lo ? lo : v > hi ? hi : v;
}

void scale_velocity(const multisynth_data* d, psynth_event* event) {
    const uint32_t gain = (uint32_t)ctl(d, CTL_VELOCITY, 0, PSYNTH_GAIN_UNITY);
    event->velocity = (uint16_t)((event->velocity * gain) >> PSYNTH_GAIN_SHIFT);
}

// The pitch every target starts from: the event's, transposed, less the module's finetune,
// detuned by a fresh random amount.
int32_t pitch_of(int mod_num, multisynth_data* d, const psynth_event* event, const psynth_net* net) {
    int64_t p = (int64_t)event->pitch - net->modules[mod_num].finetune +
                (int64_t)(kTransposeNone - ctl(d, CTL_TRANSPOSE, 0, 2 * kTransposeNone)) * kSemitone;
    const int random = ctl(d, CTL_RANDOM, 0, kDetuneCentre);
    if (random > 0) {
        const int r = (tarvik_random(&d->seed) & kDetuneMask) - kDetuneCentre;
        p += psynth_shr_toward_zero((int64_t)r * random, kDetuneBits);
    }
    return (int32_t)(p > INT32_MAX ? INT32_MAX : p < INT32_MIN ? INT32_MIN : p);
}

intptr_t init(int mod_num, multisynth_data* d, psynth_net* net) {
    psynth_register_ctl(mod_num, "Transpose", "", 0, 256, kTransposeNone, PSYNTH_CTL_SELECTOR, &d->ctl[CTL_TRANSPOSE], net);
    psynth_register_ctl(mod_num, "Random", "", 0, 4096, 0, PSYNTH_CTL_NUMBER, &d->ctl[CTL_RANDOM], net);
    psynth_register_ctl(mod_num, "Velocity", "", 0, 256, 256, PSYNTH_CTL_NUMBER, &d->ctl[CTL_VELOCITY], net);
    d->seed = tarvik_time_ticks() + (uint32_t)(kSeedPerModule * mod_num);
    return 1;
}

}  // namespace

intptr_t psynth_multisynth(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return kDataSize;
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t)kName;
    case PS_CMD_GET_SYNTH_INFO: return (intptr_t)kInfo;
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t)kColor;
    case PS_CMD_GET_FLAGS: return kFlags;
    default: break;
    }
    multisynth_data* d = psynth_module_data<multisynth_data>(mod_num, net, psynth_multisynth);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT: return init(mod_num, d, net);
    case PS_CMD_CLEAN:
    case PS_CMD_CLOSE: return 1;
    case PS_CMD_NOTE_ON:
    case PS_CMD_SET_FREQ:
        scale_velocity(d, event);
        forward(mod_num, event, true, pitch_of(mod_num, d, event, net), net);
        return 1;
    case PS_CMD_SET_VELOCITY:
        scale_velocity(d, event);
        forward(mod_num, event, false, 0, net);
        return 1;
    case PS_CMD_NOTE_OFF:
    case PS_CMD_ALL_NOTES_OFF:
        forward(mod_num, event, false, 0, net);
        return 1;
    default: return 0;  // sample offsets, controllers and the rest stay with the MultiSynth
    }
}

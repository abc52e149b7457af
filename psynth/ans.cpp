// ANS: a module that can be placed in the net with its controllers but makes no sound
// yet; its render delivers nothing and it ignores notes. It keeps its fixed controller
// set so that songs containing it load and save their values unchanged.
//
// | # | name              | units | min | max  | default | kind     |
// |---|-------------------|-------|-----|------|---------|----------|
// | 0 | "Volume"          | ""    | 0   | 512  | 256     | number   |
// | 1 | "Base note"       | ""    | 0   | 120  | 32      | selector |
// | 2 | "Base freq"       | "Hz"  | 10  | 8000 | 100     | number   |
// | 3 | "Octaves"         | ""    | 1   | 10   | 7       | number   |
// | 4 | "Ticks per pixel" | ""    | 1   | 32   | 3       | selector |
// | 5 | "Polyphony"       | "ch." | 1   | 16   | 8       | selector |
//
// Its sound would be computed at 44100 Hz like the FM's (inner_rate.h); the rings are
// kept and flushed the same way, and stay unused while nothing is written into them.
#include <cstdint>
#include <cstring>

#include "psynth/inner_rate.h"
#include "psynth/psynth_modules.h"

namespace {

const char* const kName = "ANS";
const char* const kInfo = "ANS.";
const char* const kColor = "#009BFF";
constexpr int kDataSize = 16436;  // the private data size every saved ANS expects
constexpr int kOutputs = 2;
constexpr uint32_t kFlags = PSYNTH_FLAG_GENERATOR | PSYNTH_FLAG_GET_SPEED_CHANGES;  // 0x408
static_assert(kFlags == 0x408);
constexpr int kVoices = 16;

enum ans_ctl : int { CTL_VOLUME, CTL_BASE_NOTE, CTL_BASE_FREQ, CTL_OCTAVES, CTL_TICKS_PER_PIXEL, CTL_POLYPHONY, CTL_COUNT };

struct ans_data {
    int ctl[CTL_COUNT];
    uint8_t voices[kVoices];
    int tick_length;  // 1/256 frame, from SPEED_CHANGED
    psynth_inner_rate inner;
};
static_assert(sizeof(ans_data) <= kDataSize, "the ANS's state fits its private data size");

void clear(ans_data* d) {
    memset(d->voices, 0, sizeof(d->voices));
    psynth_inner_rate_clear(&d->inner);
}

intptr_t init(int mod_num, ans_data* d, psynth_net* net) {
    psynth_register_ctl(mod_num, "Volume", "", 0, 512, 256, PSYNTH_CTL_NUMBER, &d->ctl[CTL_VOLUME], net);
    psynth_register_ctl(mod_num, "Base note", "", 0, 120, 32, PSYNTH_CTL_SELECTOR, &d->ctl[CTL_BASE_NOTE], net);
    psynth_register_ctl(mod_num, "Base freq", "Hz", 10, 8000, 100, PSYNTH_CTL_NUMBER, &d->ctl[CTL_BASE_FREQ], net);
    psynth_register_ctl(mod_num, "Octaves", "", 1, 10, 7, PSYNTH_CTL_NUMBER, &d->ctl[CTL_OCTAVES], net);
    psynth_register_ctl(mod_num, "Ticks per pixel", "", 1, 32, 3, PSYNTH_CTL_SELECTOR, &d->ctl[CTL_TICKS_PER_PIXEL], net);
    psynth_register_ctl(mod_num, "Polyphony", "ch.", 1, 16, 8, PSYNTH_CTL_SELECTOR, &d->ctl[CTL_POLYPHONY], net);
    clear(d);
    return 1;
}

// Only what went into the rings comes out, once; the module reports no sound of its own.
intptr_t render(int mod_num, ans_data* d, psynth_net* net) {
    psynth_module* mod = &net->modules[mod_num];
    const int at = mod->render_offset, frames = mod->render_frames;
    const int rate = net->sampling_rate;
    if (rate == PSYNTH_INNER_RATE || rate <= 0 || !d->inner.in_use) return 0;
    if (at < 0 || frames <= 0 || at + frames > PSYNTH_BUFFER_SIZE || !mod->output_buffers[0] || !mod->output_buffers[1]) return 0;
    psynth_sample* out[kOutputs] = {mod->output_buffers[0] + at, mod->output_buffers[1] + at};
    psynth_inner_rate_flush(&d->inner, psynth_inner_rate_step(rate), kOutputs, out, frames);
    return 1;
}

}  // namespace

intptr_t psynth_ans(int mod_num, psynth_event* event, psynth_net* net) {
    switch (event->command) {
    case PS_CMD_GET_DATA_SIZE: return kDataSize;
    case PS_CMD_GET_SYNTH_NAME: return (intptr_t)kName;
    case PS_CMD_GET_SYNTH_INFO: return (intptr_t)kInfo;
    case PS_CMD_GET_SYNTH_COLOR: return (intptr_t)kColor;
    case PS_CMD_GET_OUTPUTS_NUM: return kOutputs;
    case PS_CMD_GET_FLAGS: return kFlags;
    default: break;
    }
    ans_data* d = psynth_module_data<ans_data>(mod_num, net, psynth_ans);
    if (!d) return 0;
    switch (event->command) {
    case PS_CMD_INIT: return init(mod_num, d, net);
    case PS_CMD_CLEAN:
        clear(d);
        return 1;
    case PS_CMD_RENDER_REPLACE: return render(mod_num, d, net);
    case PS_CMD_SPEED_CHANGED:
        d->tick_length = psynth_event_tick_length(event);
        return 1;
    case PS_CMD_CLOSE: return 1;
    default: return 0;
    }
}

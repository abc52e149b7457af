// The handlers of the modules that live in the sound net, one file each in psynth/.
// Each answers the net's command protocol (psynth_net.h); the helpers here are what every
// handler needs alike: its data block, its controller table and its default data chunk.
#pragma once

#include "psynth/psynth_net.h"

// The private data block of module `mod_num` as a T; null for an index outside the slot
// table and, when `handler` is given, for a slot that holds no module of that handler.
// Any thread; no locks.
template <class T>
T* psynth_module_data(int mod_num, psynth_net* net, psynth_handler handler = nullptr) {
    if (!net || !net->modules || mod_num < 0 || mod_num >= net->slots) return nullptr;
    psynth_module* mod = &net->modules[mod_num];
    if (handler && (!(mod->flags & PSYNTH_FLAG_EXISTS) || mod->handler != handler)) return nullptr;
    return (T*)mod->data;
}

// Chunk `chunk` of at least `size` bytes with the storage `flags`: a short one grows (its
// tail stays 0). Returns the chunk when it had to be created, for the caller to write its
// defaults into; null when it was there already or could not be created. INIT and
// SETUP_FINISHED (through psynth_new_chunk).
inline void* psynth_ensure_chunk(int mod_num, int chunk, int size, int flags, psynth_net* net) {
    int have = 0;
    if (psynth_get_chunk(mod_num, chunk, net) &&
        psynth_get_chunk_info(mod_num, chunk, &have, nullptr, nullptr, net) == 0) {
        if (have < size) psynth_resize_chunk(mod_num, chunk, size, net);
        psynth_set_chunk_info(mod_num, chunk, flags, 0, net);
        return nullptr;
    }
    if (psynth_new_chunk(mod_num, chunk, size, flags, 0, net) != 0) return nullptr;
    return psynth_get_chunk(mod_num, chunk, net);
}

// One row of a module's controller table.
struct psynth_ctl_row {
    const char* name;
    const char* units;
    int min, max, def;
    int type = PSYNTH_CTL_NUMBER;
};

// Registers the table's rows in order as controllers 0..N−1, controller i held in values[i].
// For INIT, as psynth_register_ctl.
template <int N>
void psynth_register_ctl_rows(int mod_num, const psynth_ctl_row (&rows)[N], int* values, psynth_net* net) {
    for (int i = 0; i < N; i++) {
        const psynth_ctl_row& r = rows[i];
        psynth_register_ctl(mod_num, r.name, r.units, r.min, r.max, r.def, r.type, &values[i], net);
    }
}

intptr_t psynth_generator(int mod_num, psynth_event* event, psynth_net* net);  // generator.cpp
intptr_t psynth_sampler(int mod_num, psynth_event* event, psynth_net* net);    // sampler.cpp
intptr_t psynth_echo(int mod_num, psynth_event* event, psynth_net* net);       // echo.cpp
intptr_t psynth_delay(int mod_num, psynth_event* event, psynth_net* net);      // delay.cpp
intptr_t psynth_loop(int mod_num, psynth_event* event, psynth_net* net);       // loop.cpp
intptr_t psynth_filter(int mod_num, psynth_event* event, psynth_net* net);     // filter.cpp
intptr_t psynth_reverb(int mod_num, psynth_event* event, psynth_net* net);     // reverb.cpp
intptr_t psynth_compressor(int mod_num, psynth_event* event, psynth_net* net); // compressor.cpp
intptr_t psynth_distortion(int mod_num, psynth_event* event, psynth_net* net); // distortion.cpp
intptr_t psynth_dcblocker(int mod_num, psynth_event* event, psynth_net* net);  // dc_blocker.cpp
intptr_t psynth_amplifier(int mod_num, psynth_event* event, psynth_net* net);  // amplifier.cpp
intptr_t psynth_modulator(int mod_num, psynth_event* event, psynth_net* net);  // modulator.cpp
intptr_t psynth_equalizer(int mod_num, psynth_event* event, psynth_net* net);  // equalizer.cpp
intptr_t psynth_vorbis_player(int mod_num, psynth_event* event, psynth_net* net);  // vorbis_player.cpp
intptr_t psynth_flanger(int mod_num, psynth_event* event, psynth_net* net);    // flanger.cpp
intptr_t psynth_lfo(int mod_num, psynth_event* event, psynth_net* net);        // lfo.cpp
intptr_t psynth_vibrato(int mod_num, psynth_event* event, psynth_net* net);    // vibrato.cpp
intptr_t psynth_vocal_filter(int mod_num, psynth_event* event, psynth_net* net);  // vocal_filter.cpp
intptr_t psynth_fm(int mod_num, psynth_event* event, psynth_net* net);         // fm.cpp
intptr_t psynth_multisynth(int mod_num, psynth_event* event, psynth_net* net); // multisynth.cpp
intptr_t psynth_ans(int mod_num, psynth_event* event, psynth_net* net);        // ans.cpp
intptr_t psynth_kicker(int mod_num, psynth_event* event, psynth_net* net);     // kicker.cpp
intptr_t psynth_drumsynth(int mod_num, psynth_event* event, psynth_net* net);  // drumsynth.cpp
intptr_t psynth_spectravoice(int mod_num, psynth_event* event, psynth_net* net);  // additive_synth.cpp (SpectraVoice)

// The Compressor's plot: level and gain bytes (128 = 1.0) of its last periods, in a ring
// whose next entry is `next`. Read by the GUI while the sound thread writes: a torn entry
// only draws one wrong pixel for a frame.
struct psynth_compressor_view {
    const uint8_t* level;
    const uint8_t* gain;
    int size;
    int next;
};
// Returns 0, or 1 when the module is not a Compressor.
int psynth_compressor_history(int mod_num, psynth_compressor_view* view, psynth_net* net);

// The module types that can be created by name (psynth_registry.cpp). Handlers answer
// GET_SYNTH_NAME for module index −1 without touching the net.
int psynth_get_module_types_count();
psynth_handler psynth_get_module_type(int n);
const char* psynth_get_module_type_name(psynth_handler handler);
// The handler whose type name is `type_name`, or null.
psynth_handler psynth_find_module_type(const char* type_name);

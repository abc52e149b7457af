// The module types the net can create by name: what a song file's module type names
// ("Generator", "Sampler", ...) turn into when a song is loaded.
#include <cstring>

#include "psynth/psynth_modules.h"

namespace {

const psynth_handler kModuleTypes[] = {
    // Synthesizers
    psynth_generator,
    psynth_sampler,
    psynth_fm,
    psynth_multisynth,
    psynth_ans,
    psynth_vorbis_player,
    psynth_kicker,
    psynth_drumsynth,
    psynth_spectravoice,
    // Effects
    psynth_echo,
    psynth_delay,
    psynth_loop,
    psynth_filter,
    psynth_reverb,
    psynth_compressor,
    psynth_distortion,
    psynth_dcblocker,
    psynth_amplifier,
    psynth_modulator,
    psynth_equalizer,
    psynth_flanger,
    psynth_lfo,
    psynth_vibrato,
    psynth_vocal_filter,
};

}  // namespace

int psynth_get_module_types_count() { return (int)(sizeof(kModuleTypes) / sizeof(kModuleTypes[0])); }

psynth_handler psynth_get_module_type(int n) {
    return n >= 0 && n < psynth_get_module_types_count() ? kModuleTypes[n] : nullptr;
}

const char* psynth_get_module_type_name(psynth_handler handler) {
    psynth_event event = {};
    event.command = PS_CMD_GET_SYNTH_NAME;
    return handler ? (const char*)handler(-1, &event, nullptr) : nullptr;
}

psynth_handler psynth_find_module_type(const char* type_name) {
    if (!type_name) return nullptr;
    for (psynth_handler handler : kModuleTypes) {
        const char* name = psynth_get_module_type_name(handler);
        if (name && strcmp(name, type_name) == 0) return handler;
    }
    return nullptr;
}

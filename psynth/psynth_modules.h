// The handlers of the modules that live in the sound net, one file each in psynth/.
// Each answers the net's command protocol (psynth_net.h).
#pragma once

#include "psynth/psynth_net.h"

intptr_t psynth_generator(int mod_num, psynth_event* event, psynth_net* net);  // generator.cpp
intptr_t psynth_sampler(int mod_num, psynth_event* event, psynth_net* net);    // sampler.cpp

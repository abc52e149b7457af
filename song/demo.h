// The demo song bundled with the program, made entirely by code: drums on a Sampler
// whose samples are synthesised here, Generator bass, chords and lead, and an Echo on
// the lead when that effect exists. About 48 seconds at 125 BPM.
#pragma once

#include "song/song.h"

// Fills an empty song (from zelfon_song_init with no starter net) with the demo.
// Returns 0, or non-zero when memory ran out. GUI thread, playback stopped.
int zelfon_make_demo_song(zelfon_song* song);

// Real-time command-line jobs: "play" plays a song on the sound device until its end or
// Ctrl-C, showing the position and the underrun count; "devices" lists the sound devices
// of every back end and the MIDI ports.
#pragma once

#include "song/song.h"

// How the command line opens a song: SONG path or null for the demo. 0 on success.
typedef int (*zelfon_song_opener)(const char* path, int rate, zelfon_song* song);

// "play [SONG] [--driver jack|pulse|alsa] [--device N] [--buffer FRAMES] [--rate HZ]".
// args are the words after the command. Returns the exit code. Main thread.
int zelfon_play_command(int argc, char** args, zelfon_song_opener open_song);
// "devices". Returns the exit code. Main thread.
int zelfon_devices_command();

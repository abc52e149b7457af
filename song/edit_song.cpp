// Song settings edits: name, BPM, speed and global volume as one undoable action. Names
// are kept as their whole blocks, so that undo gives back exactly the bytes a save writes.
#include <cstring>

#include "engine/memory.h"
#include "song/edit_actions.h"

constexpr int kSpeedMax = 31;
constexpr int kGlobalVolumeMax = 512;

// ZELFON_ACTION_SONG: [0] before, [1] after; then the old name's block (name_size[0]
// bytes), then the new one's. name_size −1: no name.
struct zelfon_song_change {
    int bpm[2];
    int speed[2];
    int volume[2];
    int name_size[2];
};

static char* change_name(zelfon_song_change* c, int which) {
    char* names = (char*)(c + 1);
    return which == 0 ? names : names + (c->name_size[0] > 0 ? c->name_size[0] : 0);
}

int zelfon_perform_song(int do_it, const undo_action* a, zelfon_song* song) {
    zelfon_song_change* c = (zelfon_song_change*)a->data;
    char* name = nullptr;
    if (c->name_size[do_it] >= 0) {
        name = (char*)mem_new(MEM_DYNAMIC, (size_t)c->name_size[do_it], "zelfon_perform_song");
        if (!name) return 1;
        memcpy(name, change_name(c, do_it), (size_t)c->name_size[do_it]);
    }
    mem_free(song->name);  // the render never reads the name
    song->name = name;
    tarvik_mutex_lock(&song->net->mutex);
    song->bpm = (uint16_t)c->bpm[do_it];
    song->speed = (uint8_t)c->speed[do_it];
    song->net->global_volume = c->volume[do_it];
    tarvik_mutex_unlock(&song->net->mutex);
    return 0;
}

int zelfon_edit_song_properties(const char* name, int bpm, int speed, int volume, zelfon_song* song) {
    if (bpm < ZELFON_BPM_MIN || bpm > ZELFON_BPM_MAX || speed < 1 || speed > kSpeedMax || volume < 0 ||
        volume > kGlobalVolumeMax) {
        return ZELFON_EDIT_OUTSIDE;
    }
    int old_size = song->name ? (int)mem_get_size(song->name) : -1;
    int new_size = name && name[0] ? (int)strlen(name) + 1 : -1;
    bool same_name = old_size == new_size && (new_size < 0 || memcmp(song->name, name, (size_t)new_size) == 0);
    if (same_name && bpm == song->bpm && speed == song->speed && volume == song->net->global_volume) return ZELFON_EDIT_OK;
    size_t names = (size_t)(old_size > 0 ? old_size : 0) + (size_t)(new_size > 0 ? new_size : 0);
    zelfon_song_change* c = (zelfon_song_change*)mem_new(MEM_DYNAMIC, sizeof(*c) + names, "zelfon_edit_song_properties");
    if (!c) return ZELFON_EDIT_NO_MEMORY;
    *c = {{song->bpm, bpm}, {song->speed, speed}, {song->net->global_volume, volume}, {old_size, new_size}};
    if (old_size > 0) memcpy(change_name(c, 0), song->name, (size_t)old_size);
    if (new_size > 0) memcpy(change_name(c, 1), name, (size_t)new_size);
    return zelfon_edit_record(ZELFON_ACTION_SONG, -1, 0, 0, c, song);
}

// Pattern icons: 16×16 one-bit images drawn into the song's atlas (16 icons per atlas
// row, one byte per pixel) under numbers from a usage table that doubles when full,
// and the random symmetric icon that every new pattern gets.
#include <cstring>

#include "engine/memory.h"
#include "engine/random.h"
#include "song/song.h"

constexpr int kIconsPerAtlasRow = ZELFON_ICON_ATLAS_WIDTH / ZELFON_ICON_SIZE;
constexpr uint8_t kPixelOn = 0xFF;
constexpr uint16_t kIconRowMultiplier = 233;  // spreads the generator's 15 bits over the row

// Shaping flags of a random icon, drawn once per icon.
enum : int {
    kIconMirrorHalf = 1,  // the lower half mirrors the upper half
    kIconDoubleRows = 2,  // odd rows are the row above shifted left (doubled)
    kIconHalveRows = 4,   // rows 2, 6, 10, 14 are the row above shifted right (halved)
};

// The atlas holds one pixel byte per icon pixel: icons_count icons of 16 × 16 bytes.
static size_t atlas_size(int icons) { return (size_t)icons * ZELFON_ICON_SIZE * ZELFON_ICON_SIZE; }

int zelfon_icons_init(zelfon_song* song) {
    song->icons_usage = (uint8_t*)mem_new(MEM_DYNAMIC, ZELFON_ICONS_STEP, "zelfon_icons_init");
    song->icons_atlas = (uint8_t*)mem_new(MEM_DYNAMIC, atlas_size(ZELFON_ICONS_STEP), "zelfon_icons_init");
    if (!song->icons_usage || !song->icons_atlas) {
        zelfon_icons_close(song);
        return 1;
    }
    mem_zero(song->icons_usage);
    mem_zero(song->icons_atlas);
    song->icons_count = ZELFON_ICONS_STEP;
    song->icons_free_from = 0;
    return 0;
}

void zelfon_icons_close(zelfon_song* song) {
    mem_free(song->icons_usage);
    mem_free(song->icons_atlas);
    song->icons_usage = nullptr;
    song->icons_atlas = nullptr;
    song->icons_count = 0;
}

int zelfon_get_free_icon_number(zelfon_song* song) {
    if (!song->icons_usage && zelfon_icons_init(song)) return -1;
    // The search starts past the numbers known to be used, so that a song of thousands of
    // patterns does not scan the table once per pattern.
    for (int n = song->icons_free_from; n < song->icons_count; n++) {
        if (!song->icons_usage[n]) {
            song->icons_usage[n] = 1;
            song->icons_free_from = n + 1;
            return n;
        }
    }
    // All used: double the table and the atlas height (the added tails come zeroed).
    int count = song->icons_count * 2;
    uint8_t* usage = (uint8_t*)mem_resize(song->icons_usage, (size_t)count);
    if (!usage) return -1;
    song->icons_usage = usage;
    uint8_t* atlas = (uint8_t*)mem_resize(song->icons_atlas, atlas_size(count));
    if (!atlas) return -1;  // the usage table stays larger, but its count does not change
    song->icons_atlas = atlas;
    int first_new = song->icons_count;
    song->icons_count = count;
    song->icons_usage[first_new] = 1;
    song->icons_free_from = first_new + 1;
    return first_new;
}

void zelfon_release_icon_number(int icon_num, zelfon_song* song) {
    if (icon_num < 0 || icon_num >= song->icons_count) return;
    song->icons_usage[icon_num] = 0;
    if (icon_num < song->icons_free_from) song->icons_free_from = icon_num;
}

void zelfon_draw_pattern_icon(int slot, zelfon_song* song) {
    if (slot < 0 || slot >= song->pats_capacity || !song->pats || !song->pats[slot]) return;
    zelfon_pattern* pat = song->pats[slot];
    if (pat->icon_num < 0) pat->icon_num = zelfon_get_free_icon_number(song);
    if (pat->icon_num < 0 || pat->icon_num >= song->icons_count) return;
    int left = (pat->icon_num % kIconsPerAtlasRow) * ZELFON_ICON_SIZE;
    int top = (pat->icon_num / kIconsPerAtlasRow) * ZELFON_ICON_SIZE;
    for (int row = 0; row < ZELFON_ICON_SIZE; row++) {
        uint8_t* pixels = &song->icons_atlas[(size_t)(top + row) * ZELFON_ICON_ATLAS_WIDTH + left];
        for (int col = 0; col < ZELFON_ICON_SIZE; col++) {
            bool on = (pat->icon[row] >> (ZELFON_ICON_SIZE - 1 - col)) & 1;
            pixels[col] = on ? kPixelOn : 0;
        }
    }
}

// Bit 15−k takes bit k: the right half (bits 0..7) is mirrored onto the left half.
static uint16_t mirror_left_right(uint16_t row) {
    uint16_t out = row & 0x00FF;
    for (int k = 0; k < ZELFON_ICON_SIZE / 2; k++) {
        if (row & (1u << k)) out |= (uint16_t)(1u << (ZELFON_ICON_SIZE - 1 - k));
    }
    return out;
}

void zelfon_make_random_icon(uint16_t icon[ZELFON_ICON_SIZE], uint32_t seed) {
    uint32_t state = seed;
    for (int row = 0; row < ZELFON_ICON_SIZE; row++) icon[row] = (uint16_t)(tarvik_random(&state) * kIconRowMultiplier);
    int flags = tarvik_random(&state);
    for (int row = 1; row < ZELFON_ICON_SIZE; row++) {
        if ((flags & kIconDoubleRows) && (row & 1)) icon[row] = (uint16_t)(icon[row - 1] << 1);
        else if ((flags & kIconHalveRows) && (row & 3) == 2) icon[row] = (uint16_t)(icon[row - 1] >> 1);
    }
    if (flags & kIconMirrorHalf) {
        for (int row = 0; row < ZELFON_ICON_SIZE / 2; row++) icon[ZELFON_ICON_SIZE - 1 - row] = icon[row];
    }
    for (int row = 0; row < ZELFON_ICON_SIZE; row++) icon[row] = mirror_left_right(icon[row]);
}

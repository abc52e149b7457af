// One streaming RGBA texture per image; small images are rewritten whole when they change.
#include "gui/gui_texture.h"

#include <SDL.h>

#include "engine/memory.h"

void* gui_texture_alpha(gui_window* w, void* texture, const uint8_t* pixels, int width, int height) {
    SDL_Texture* t = (SDL_Texture*)texture;
    int tw = 0, th = 0;
    if (t && (SDL_QueryTexture(t, nullptr, nullptr, &tw, &th) != 0 || tw != width || th != height)) {
        SDL_DestroyTexture(t);
        t = nullptr;
    }
    if (!t) {
        t = SDL_CreateTexture(w->renderer, SDL_PIXELFORMAT_ABGR8888, SDL_TEXTUREACCESS_STREAMING, width, height);
        if (!t) return nullptr;
        SDL_SetTextureBlendMode(t, SDL_BLENDMODE_BLEND);
    }
    void* dest;
    int pitch;
    if (SDL_LockTexture(t, nullptr, &dest, &pitch) == 0) {
        for (int y = 0; y < height; y++) {
            uint32_t* row = (uint32_t*)((uint8_t*)dest + (size_t)y * pitch);
            for (int x = 0; x < width; x++) row[x] = (uint32_t)pixels[(size_t)y * width + x] << 24 | 0xFFFFFFu;
        }
        SDL_UnlockTexture(t);
    }
    return t;
}

void gui_texture_free(void* texture) {
    if (texture) SDL_DestroyTexture((SDL_Texture*)texture);
}

// Font files are read through the file layer into memory-manager blocks that the
// atlas borrows; they stay until gui_fonts_free.
#include "gui/gui_fonts.h"

#include <cstdlib>
#include <cstring>
#include <imgui.h>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"

namespace {

constexpr const char* kFontDir = "/usr/share/fonts/truetype/dejavu";
constexpr float kFontSize = 15.0f;       // at scale 1
constexpr float kMonoFontSize = 14.0f;

void* g_sans_data = nullptr;
void* g_mono_data = nullptr;
ImFont* g_mono = nullptr;

// The whole file in a new block, or null.
void* read_font(const char* file, int* size) {
    const char* dir = getenv("ZELFON_FONT_DIR");
    char path[1024];
    snprintf(path, sizeof path, "%s/%s", dir && *dir ? dir : kFontDir, file);
    int64_t bytes = v3_get_file_size(path);
    if (bytes <= 0 || bytes > (64 << 20)) return nullptr;
    int h = v3_open(path, "rb");
    if (!h) return nullptr;
    void* data = mem_new(MEM_DYNAMIC, (size_t)bytes, "gui_fonts_build");
    if (data && v3_read(data, 1, (size_t)bytes, h) != (size_t)bytes) {
        mem_free(data);
        data = nullptr;
    }
    v3_close(h);
    *size = (int)bytes;
    return data;
}

ImFont* add_font(void* data, int size, float pixels) {
    ImFontConfig config;
    config.FontDataOwnedByAtlas = false;  // the block stays ours
    return ImGui::GetIO().Fonts->AddFontFromMemoryTTF(data, size, pixels, &config);
}

}  // namespace

int gui_fonts_build(float scale) {
    ImFontAtlas* atlas = ImGui::GetIO().Fonts;
    atlas->Clear();
    int sans_size = 0, mono_size = 0;
    if (!g_sans_data) g_sans_data = read_font("DejaVuSans.ttf", &sans_size);
    else sans_size = (int)mem_get_size(g_sans_data);
    if (!g_mono_data) g_mono_data = read_font("DejaVuSansMono.ttf", &mono_size);
    else mono_size = (int)mem_get_size(g_mono_data);

    ImFont* sans = g_sans_data ? add_font(g_sans_data, sans_size, kFontSize * scale) : nullptr;
    g_mono = g_mono_data ? add_font(g_mono_data, mono_size, kMonoFontSize * scale) : nullptr;
    if (!sans) {
        ImFontConfig config;
        config.SizePixels = 13.0f * scale;
        sans = atlas->AddFontDefault(&config);
    }
    if (!g_mono) g_mono = sans;
    ImGui::GetIO().FontDefault = sans;
    atlas->Build();
    bool missing = !g_sans_data || !g_mono_data;
    if (missing) tarvik_log("gui_fonts_build(): DejaVu fonts not found; using the built-in font\n");
    return missing ? 1 : 0;
}

void gui_fonts_free() {
    mem_free(g_sans_data);
    mem_free(g_mono_data);
    g_sans_data = g_mono_data = nullptr;
    g_mono = nullptr;
}

ImFont* gui_font_mono() { return g_mono; }

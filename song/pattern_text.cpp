// Cells as clipboard text, so that a block copied in one running studio pastes into
// another through the system clipboard: a heading line with the size, then one text line
// per pattern line of hex fields. Reading is strict: anything else is not cells.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "engine/memory.h"
#include "song/edit.h"

static const char kHeading[] = "Zelfon cells";
constexpr int kCellTextSize = 24;    // "NN VV MMMM EE CC XXXX|"
constexpr int kHeadingTextSize = 40;

char* zelfon_cells_to_text(const zelfon_cell* cells, int tracks, int lines) {
    if (tracks < 1 || lines < 1) return nullptr;
    size_t size = kHeadingTextSize + (size_t)tracks * lines * kCellTextSize + (size_t)lines + 1;
    char* text = (char*)mem_new(MEM_DYNAMIC, size, "zelfon_cells_to_text");
    if (!text) return nullptr;
    char* p = text + snprintf(text, kHeadingTextSize, "%s %d %d\n", kHeading, tracks, lines);
    for (int l = 0; l < lines; l++) {
        for (int t = 0; t < tracks; t++) {
            const zelfon_cell* c = &cells[(size_t)l * tracks + t];
            p += snprintf(p, kCellTextSize + 1, "%02X %02X %04X %02X %02X %04X%s", c->note, c->vel, c->module, c->effect, c->ctl,
                          c->value, t + 1 < tracks ? "|" : "\n");
        }
    }
    return text;
}

// Reads one hex field of exactly `digits` digits at *p, then the separator `after`.
static bool read_field(const char** p, int digits, char after, unsigned* value) {
    unsigned v = 0;
    for (int i = 0; i < digits; i++) {
        char ch = (*p)[i];
        int d = ch >= '0' && ch <= '9' ? ch - '0' : ch >= 'A' && ch <= 'F' ? ch - 'A' + 10 : ch >= 'a' && ch <= 'f' ? ch - 'a' + 10 : -1;
        if (d < 0) return false;
        v = v << 4 | (unsigned)d;
    }
    *p += digits;
    if (after == '\n' && **p == '\r') (*p)++;  // text that went through a clipboard may end lines with CR LF
    if (**p != after) return false;
    (*p)++;
    *value = v;
    return true;
}

static bool read_cell(const char** p, char after, zelfon_cell* c) {
    unsigned note, vel, module, effect, ctl, value;
    if (!read_field(p, 2, ' ', &note) || !read_field(p, 2, ' ', &vel) || !read_field(p, 4, ' ', &module) ||
        !read_field(p, 2, ' ', &effect) || !read_field(p, 2, ' ', &ctl) || !read_field(p, 4, after, &value)) {
        return false;
    }
    *c = {(uint8_t)note, (uint8_t)vel, (uint16_t)module, (uint8_t)effect, (uint8_t)ctl, (uint16_t)value};
    return true;
}

// The size from the heading line; false when the text does not start with one.
static bool read_heading(const char** p, int* tracks, int* lines) {
    size_t n = strlen(kHeading);
    if (strncmp(*p, kHeading, n) != 0 || (*p)[n] != ' ') return false;
    char* end = nullptr;
    long t = strtol(*p + n + 1, &end, 10);
    if (*end != ' ') return false;
    long l = strtol(end + 1, &end, 10);
    if (*end == '\r') end++;
    if (*end != '\n' || t < 1 || t > ZELFON_MAX_TRACKS || l < 1 || l > ZELFON_MAX_PATTERN_LINES) return false;
    *tracks = (int)t;
    *lines = (int)l;
    *p = end + 1;
    return true;
}

int zelfon_cells_from_text(const char* text, zelfon_cell** cells, int* tracks, int* lines) {
    const char* p = text;
    int t = 0, l = 0;
    if (!text || !read_heading(&p, &t, &l)) return ZELFON_EDIT_NOT_A_PATTERN;
    zelfon_cell* out = (zelfon_cell*)mem_new(MEM_DYNAMIC, (size_t)t * l * sizeof(zelfon_cell), "zelfon_cells_from_text");
    if (!out) return ZELFON_EDIT_NO_MEMORY;
    for (size_t i = 0; i < (size_t)t * l; i++) {
        if (!read_cell(&p, (int)(i % t) + 1 < t ? '|' : '\n', &out[i])) {
            mem_free(out);
            return ZELFON_EDIT_NOT_A_PATTERN;
        }
    }
    *cells = out;
    *tracks = t;
    *lines = l;
    return ZELFON_EDIT_OK;
}

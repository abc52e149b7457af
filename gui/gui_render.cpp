#include "gui/gui_render.h"

#include <SDL.h>
#include <imgui.h>
#include <imgui_impl_sdlrenderer.h>

#include <initializer_list>
#include <utility>

#include "gui/gui_raster.h"

namespace {

struct frame_state {
    SDL_Renderer* renderer;
    gui_raster_target target;
    ImVec2 white;              // the font atlas's white texel: solid colour
    SDL_Texture* font;
    const uint8_t* coverage;   // the font atlas's 8-bit coverage
    int atlas_width, atlas_height;
};

bool same_uv(const ImVec2& a, const ImVec2& b) { return a.x == b.x && a.y == b.y; }

// An axis-aligned quad of one colour (ImGui's rectangles, glyphs and straight lines are
// built so: corners a b c d as triangles a b c, a c d), its texture spread straight.
struct quad {
    float x0, y0, x1, y1;
    float u0, v0, u1, v1;
    ImU32 colour;
};

bool axis_quad(const ImDrawVert* vtx, const ImDrawIdx* idx, quad* q) {
    if (idx[3] != idx[0] || idx[4] != idx[2]) return false;
    const ImDrawVert &a = vtx[idx[0]], &b = vtx[idx[1]], &c = vtx[idx[2]], &d = vtx[idx[5]];
    if (a.col != b.col || a.col != c.col || a.col != d.col) return false;
    bool rows = a.pos.y == b.pos.y && b.pos.x == c.pos.x && c.pos.y == d.pos.y && d.pos.x == a.pos.x &&
                a.uv.y == b.uv.y && b.uv.x == c.uv.x && c.uv.y == d.uv.y && d.uv.x == a.uv.x;
    bool columns = a.pos.x == b.pos.x && b.pos.y == c.pos.y && c.pos.x == d.pos.x && d.pos.y == a.pos.y &&
                   same_uv(a.uv, b.uv) && same_uv(a.uv, c.uv) && same_uv(a.uv, d.uv);
    if (!rows && !columns) return false;
    *q = quad{a.pos.x, a.pos.y, c.pos.x, c.pos.y, a.uv.x, a.uv.y, c.uv.x, c.uv.y, a.col};
    if (q->x1 < q->x0) std::swap(q->x0, q->x1), std::swap(q->u0, q->u1);
    if (q->y1 < q->y0) std::swap(q->y0, q->y1), std::swap(q->v0, q->v1);
    return true;
}

// Whether a quad can be drawn here: solid, or a glyph of the font atlas.
bool quad_drawable(const frame_state* f, SDL_Texture* texture, const quad& q) {
    bool solid = same_uv(ImVec2(q.u0, q.v0), f->white) && same_uv(ImVec2(q.u1, q.v1), f->white);
    return solid || (texture == f->font && f->coverage);
}

void draw_quad(frame_state* f, const quad& q) {
    if (same_uv(ImVec2(q.u0, q.v0), f->white) && same_uv(ImVec2(q.u1, q.v1), f->white)) {
        gui_raster_fill_rect(&f->target, q.x0, q.y0, q.x1, q.y1, q.colour);
    } else {
        gui_raster_coverage_rect(&f->target, q.x0, q.y0, q.x1, q.y1, f->coverage, f->atlas_width, f->atlas_height,
                                 q.u0, q.v0, q.u1, q.v1, q.colour);
    }
}

// Whether a triangle can be drawn here: solid.
bool triangle_drawable(const frame_state* f, const ImDrawVert* vtx, const ImDrawIdx* idx) {
    const ImDrawVert &a = vtx[idx[0]], &b = vtx[idx[1]], &c = vtx[idx[2]];
    return a.col == b.col && a.col == c.col && same_uv(a.uv, f->white) && same_uv(b.uv, f->white) &&
           same_uv(c.uv, f->white);
}

// Triangles SDL draws for us, finished before anything else is drawn here.
void sdl_triangles(frame_state* f, SDL_Texture* texture, const ImDrawVert* vtx, int vtx_count, const ImDrawIdx* idx,
                   int idx_count) {
    if (idx_count <= 0) return;
    const float* xy = (const float*)((const char*)vtx + IM_OFFSETOF(ImDrawVert, pos));
    const float* uv = (const float*)((const char*)vtx + IM_OFFSETOF(ImDrawVert, uv));
    const SDL_Color* col = (const SDL_Color*)((const char*)vtx + IM_OFFSETOF(ImDrawVert, col));
    int stride = (int)sizeof(ImDrawVert);
    SDL_RenderGeometryRaw(f->renderer, texture, xy, stride, col, stride, uv, stride, vtx_count, idx, idx_count,
                          sizeof(ImDrawIdx));
    SDL_RenderFlush(f->renderer);
}

void draw_command(frame_state* f, const ImDrawList* list, const ImDrawCmd* cmd) {
    const ImDrawVert* vtx = list->VtxBuffer.Data + cmd->VtxOffset;
    int vtx_count = list->VtxBuffer.Size - (int)cmd->VtxOffset;
    const ImDrawIdx* idx = list->IdxBuffer.Data + cmd->IdxOffset;
    SDL_Texture* texture = (SDL_Texture*)cmd->GetTexID();
    // [left, i): triangles left for SDL, drawn before what follows them.
    int count = (int)cmd->ElemCount, left = 0, i = 0;
    while (i + 3 <= count) {
        quad q;
        bool is_quad = i + 6 <= count && axis_quad(vtx, idx + i, &q) && quad_drawable(f, texture, q);
        if (!is_quad && !triangle_drawable(f, vtx, idx + i)) {
            i += 3;
            continue;
        }
        sdl_triangles(f, texture, vtx, vtx_count, idx + left, i - left);
        if (is_quad) {
            draw_quad(f, q);
            i += 6;
        } else {
            const ImDrawVert &a = vtx[idx[i]], &b = vtx[idx[i + 1]], &c = vtx[idx[i + 2]];
            gui_raster_triangle(&f->target, &a.pos.x, &b.pos.x, &c.pos.x, a.col);
            i += 3;
        }
        left = i;
    }
    sdl_triangles(f, texture, vtx, vtx_count, idx + left, count - left);
}

int mask_shift(Uint32 mask) {
    int shift = 0;
    while (shift < 32 && !((mask >> shift) & 1)) shift++;
    return shift;
}

}  // namespace

bool gui_render_can_draw_into(const SDL_Surface* s) {
    if (!s || s->format->BytesPerPixel != 4 || SDL_MUSTLOCK(s)) return false;
    for (Uint32 mask : {s->format->Rmask, s->format->Gmask, s->format->Bmask}) {
        if (mask >> mask_shift(mask) != 0xFF) return false;
    }
    return true;
}

void gui_render_draw_data(SDL_Renderer* renderer, SDL_Surface* frame, ImDrawData* data) {
    if (!frame) {
        ImGui_ImplSDLRenderer_RenderDrawData(data);
        return;
    }
    ImGuiIO& io = ImGui::GetIO();
    frame_state f = {};
    f.renderer = renderer;
    f.white = io.Fonts->TexUvWhitePixel;
    f.font = (SDL_Texture*)io.Fonts->TexID;
    f.coverage = io.Fonts->TexPixelsAlpha8;
    f.atlas_width = io.Fonts->TexWidth, f.atlas_height = io.Fonts->TexHeight;
    SDL_RenderSetViewport(renderer, nullptr);
    SDL_RenderFlush(renderer);
    gui_raster_target& t = f.target;
    t.pixels = (uint32_t*)frame->pixels;
    t.pitch = frame->pitch / 4;
    t.width = frame->w, t.height = frame->h;
    t.r_shift = mask_shift(frame->format->Rmask), t.g_shift = mask_shift(frame->format->Gmask);
    t.b_shift = mask_shift(frame->format->Bmask);
    t.alpha_bits = frame->format->Amask;
    for (int n = 0; n < data->CmdListsCount; n++) {
        const ImDrawList* list = data->CmdLists[n];
        for (const ImDrawCmd& cmd : list->CmdBuffer) {
            if (cmd.UserCallback) {
                if (cmd.UserCallback != ImDrawCallback_ResetRenderState) cmd.UserCallback(list, &cmd);
                continue;
            }
            int x0 = (int)(cmd.ClipRect.x - data->DisplayPos.x), y0 = (int)(cmd.ClipRect.y - data->DisplayPos.y);
            int x1 = (int)(cmd.ClipRect.z - data->DisplayPos.x), y1 = (int)(cmd.ClipRect.w - data->DisplayPos.y);
            gui_raster_clip(&t, x0, y0, x1, y1);
            if (t.clip_x1 <= t.clip_x0 || t.clip_y1 <= t.clip_y0) continue;
            SDL_Rect clip = {t.clip_x0, t.clip_y0, t.clip_x1 - t.clip_x0, t.clip_y1 - t.clip_y0};
            SDL_RenderSetClipRect(renderer, &clip);
            draw_command(&f, list, &cmd);
        }
    }
    SDL_RenderSetClipRect(renderer, nullptr);
}

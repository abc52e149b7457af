// Turns a tracker module into a song: one Sampler per instrument linked to Output, one
// track per channel in use, and the song's flow (orders, breaks, jumps, pattern loops)
// unrolled onto the timeline as pattern pieces, a repeated piece being a clone of its
// first use. Cells are converted in play order, so that effect memories, volumes and
// pannings follow the song as its player would have them.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "engine/memory.h"
#include "psynth/psynth_dsp.h"
#include "psynth/psynth_modules.h"
#include "song/tracker_module.h"

namespace {

constexpr int kMaxSongLines = 1 << 17;    // the unrolled song is cut beyond this
constexpr int kMaxPlacements = 8192;      // patterns and clones: far beyond real songs (each scans the slot table)
constexpr int kPiecesStep = 256;
constexpr int kSemitone = 256;            // pitch units per semitone
constexpr int kC4Semitone = 48;
constexpr int kSlideUnit = 4;             // the slide effects move by value × 4 pitch units
constexpr int kLinearSlideStep = 16;      // pitch units of one linear slide step (1/16 semitone)
constexpr int kLinearExtraFineStep = 4;
constexpr int kFormatVolumeMax = 64;
constexpr int kVelocityMax = 256;
constexpr int kPanCentre = 128;
constexpr int kPanCtlScale = 128;         // the Sampler's "Pan" takes 0..32768 for 0..256
constexpr int kNoteMapLast = PSYNTH_SAMPLER_NOTES - 1;

// The song's effect codes.
enum : uint8_t {
    FX_SLIDE_UP = 0x01,
    FX_SLIDE_DOWN = 0x02,
    FX_SLIDE_TO_NOTE = 0x03,
    FX_ARPEGGIO = 0x08,
    FX_SAMPLE_OFFSET = 0x09,
    FX_VELOCITY_SLIDE = 0x0A,
    FX_SPEED = 0x0F,
    FX_FINESLIDE_UP = 0x11,
    FX_FINESLIDE_DOWN = 0x12,
    FX_RETRIGGER = 0x19,
    FX_CUT = 0x1C,
    FX_DELAY = 0x1D,
};

// Who wins the one effect field of a cell: the effect column.
enum { PRIORITY_VOLUME_COLUMN = 1, PRIORITY_EFFECT_COLUMN = 2 };

struct channel_state {
    int instrument;  // −1 none
    int sample;      // pool index of the sounding sample, −1 none
    int semitone;    // of the last note, 0 = C-0
    int volume;      // 0..64
    int pan;         // 0..255
    int loop_row;
    int loop_count;
    uint8_t memory[TFX_COUNT];  // last non-zero parameter of each effect
};

// A run of rows of one pattern placed on the timeline; the first use of each run owns
// the song pattern, later uses are its clones.
struct piece {
    int pattern, first, last;
    int slot;
    int next;  // next piece of the same pattern, −1
};

struct builder {
    tracker_module* m;
    zelfon_song* song;
    int tracks;
    int track_of[TRACKER_MAX_CHANNELS];      // −1: the channel is dropped or unused
    int module_of[TRACKER_MAX_INSTRUMENTS];  // Sampler of each instrument, −1 none
    channel_state ch[TRACKER_MAX_CHANNELS];
    int speed;
    piece* pieces;
    int pieces_num;
    int first_piece[TRACKER_MAX_PATTERNS];
    int line;
    uint8_t row_content[TRACKER_MAX_PATTERNS][TRACKER_MAX_ROWS];  // row_content_bits of each row
};

// What a row holds, found once per pattern: the unroll passes a row once for every time
// the song plays it (thousands of times in a looped song) and skips what is not there.
enum row_content_bits : uint8_t {
    ROW_CELLS = 1,  // a note, an instrument or an effect in some cell
    ROW_FLOW = 2,   // a break, jump, stop or pattern loop
    ROW_SPEED = 4,  // a speed or tempo for the song
};

// The flow a row asks for, read before its cells are converted.
struct row_flow {
    int break_row;   // −1 none
    int jump_order;  // −1 none
    int loop_back;   // −1 none
    bool stop;
};

// ---- Instruments ----

int sample_for_note(const builder* b, int instrument, int semitone) {
    const tracker_instrument* ti = &b->m->instruments[instrument];
    int index = semitone < 0 ? 0 : semitone > kNoteMapLast ? kNoteMapLast : semitone;
    int k = ti->ins.sample_map[index];
    return k < ti->samples_num ? ti->sample_of[k] : -1;
}

bool has_sound(const tracker_module* m, int instrument) {
    const tracker_instrument* ti = &m->instruments[instrument];
    for (int k = 0; k < ti->samples_num; k++) {
        if (m->samples[ti->sample_of[k]].data) return true;
    }
    return false;
}

bool copy_sample(int mod, int k, const tracker_sample* ts, psynth_net* net) {
    const psynth_sampler_sample* h = &ts->header;
    if (psynth_new_chunk(mod, psynth_sampler_header_chunk(k), sizeof(psynth_sampler_sample), 0, 0, net)) return false;
    memcpy(psynth_get_chunk(mod, psynth_sampler_header_chunk(k), net), h, sizeof(*h));
    if (!ts->data) return true;
    int bytes = (int)(h->length * (psynth_sampler_storage_flags(h->type) == PSYNTH_SAMPLER_STORAGE_INT16 ? 2 : 1));
    int rate = (int)std::lround(tracker_sample_rate(h));
    if (psynth_new_chunk(mod, psynth_sampler_data_chunk(k), bytes, psynth_sampler_storage_flags(h->type), rate, net)) return false;
    memcpy(psynth_get_chunk(mod, psynth_sampler_data_chunk(k), net), ts->data, bytes);
    return true;
}

// A Sampler for instrument i, linked to Output; −1 when it cannot be made.
int add_sampler(builder* b, int i, int position) {
    tracker_module* m = b->m;
    psynth_net* net = b->song->net;
    const tracker_instrument* ti = &m->instruments[i];
    char name[PSYNTH_NAME_SIZE];
    if (ti->ins.name[0]) {
        tracker_name(name, sizeof(name), (const uint8_t*)ti->ins.name, sizeof(ti->ins.name));
    } else {
        snprintf(name, sizeof(name), "Instrument %d", i + 1);
    }
    int x = 128 + (position % 8) * 112, y = 96 + (position / 8) * 80;
    int mod = psynth_add_synth(-1, psynth_sampler, name, 0, x, y, b->song->bpm, b->song->speed, net);
    if (mod < 0) return -1;
    for (int k = 0; k < ti->samples_num; k++) {
        if (!copy_sample(mod, k, &m->samples[ti->sample_of[k]], net)) return -1;
    }
    auto* ins = (psynth_sampler_instrument*)psynth_get_chunk(mod, PSYNTH_SAMPLER_INSTRUMENT_CHUNK, net);
    if (!ins) return -1;
    memcpy(ins, &ti->ins, sizeof(*ins));
    ins->samples_num = (uint16_t)ti->samples_num;
    psynth_sampler_build_envelope_tables(ins);
    psynth_do_command(mod, PS_CMD_SETUP_FINISHED, net);
    psynth_make_link(0, mod, net);
    b->m->report->samples += ti->samples_num;
    return mod;
}

int add_samplers(builder* b) {
    int made = 0;
    for (int i = 0; i < b->m->instruments_num; i++) {
        b->module_of[i] = -1;
        if (!has_sound(b->m, i)) continue;
        b->module_of[i] = add_sampler(b, i, made);
        if (b->module_of[i] < 0) return tracker_fail(b->m, ZELFON_IMPORT_SONG_FAILED, "cannot make the Sampler of instrument %d", i + 1);
        made++;
    }
    b->m->report->instruments = made;
    return 0;
}

// ---- Tracks ----

bool cell_used(const tracker_cell* c) {
    return c->note || c->instrument || c->fx[0].kind || c->fx[1].kind;
}

// Channels holding anything become tracks in their order, at most 32 of them.
void assign_tracks(builder* b) {
    tracker_module* m = b->m;
    bool used[TRACKER_MAX_CHANNELS] = {};
    for (int p = 0; p < m->patterns_num; p++) {
        const tracker_pattern* pat = &m->patterns[p];
        if (!pat->cells) continue;
        for (int i = 0; i < pat->rows * m->channels; i++) {
            if (cell_used(&pat->cells[i])) used[i % m->channels] = true;
        }
    }
    b->tracks = 0;
    int dropped = 0;
    for (int c = 0; c < m->channels; c++) {
        b->track_of[c] = -1;
        if (!used[c]) continue;
        if (b->tracks < ZELFON_MAX_TRACKS) {
            b->track_of[c] = b->tracks++;
        } else {
            dropped++;
        }
    }
    if (dropped) tracker_lose(m, ZELFON_LOSS_CHANNELS, dropped);
    if (b->tracks == 0) b->tracks = 1;
}

// ---- Effects ----

// Pitch units a slide of `amount` moves on a channel: linear slides in 1/16 semitone
// steps (`extra_fine`: 1/64), Amiga slides in periods at the channel's current pitch.
int slide_pitch(const builder* b, const channel_state* cs, int amount, bool up, bool extra_fine) {
    if (b->m->linear_slides) return amount * (extra_fine ? kLinearExtraFineStep : kLinearSlideStep);
    double rate = cs->sample >= 0 ? tracker_sample_rate(&b->m->samples[cs->sample].header) : TRACKER_C4_RATE;
    double period = TRACKER_AMIGA_CLOCK / (rate * std::exp2((cs->semitone - kC4Semitone) / 12.0));
    double delta = extra_fine ? amount / 4.0 : amount;
    double after = up ? period - delta : period + delta;
    if (after < 1) after = 1;
    return (int)std::lround(std::fabs(12.0 * std::log2(period / after)) * kSemitone);
}

// The value of a per-tick slide effect here for a format slide that skips each row's
// first tick: the same total over the row, spread over all its ticks.
int per_tick_value(int pitch_per_tick, int speed) {
    if (speed <= 1 || pitch_per_tick <= 0) return 0;
    int v = (int)std::lround((double)pitch_per_tick * (speed - 1) / speed / kSlideUnit);
    return v < 1 ? 1 : v > 0xFFFF ? 0xFFFF : v;
}

int velocity_of(int volume, int sample_volume) {
    if (sample_volume <= 0) return volume > 0 ? kVelocityMax : 0;
    int v = (volume * kVelocityMax + sample_volume / 2) / sample_volume;
    return v > kVelocityMax ? kVelocityMax : v;
}

int sample_volume_of(const builder* b, const channel_state* cs) {
    return cs->sample >= 0 ? b->m->samples[cs->sample].header.volume : kFormatVolumeMax;
}

// What converting a cell decides before it is written out.
struct cell_out {
    zelfon_cell cell;
    int priority;       // of the effect in the cell, 0 none
    bool set_volume;    // write the channel's volume as the cell's velocity
    bool set_pan;       // write the channel's panning as the "Pan" controller
    bool counting;      // the cell is being written (count losses), not replayed for a clone
};

void put_effect(builder* b, cell_out* out, int effect, int value, int priority) {
    if (out->priority >= priority) {
        if (out->counting) tracker_lose(b->m, ZELFON_LOSS_SECOND_EFFECT);
        return;
    }
    if (out->priority && out->counting) tracker_lose(b->m, ZELFON_LOSS_SECOND_EFFECT);
    out->cell.effect = (uint8_t)effect;
    out->cell.value = (uint16_t)value;
    out->priority = priority;
}

int loss_of(int kind) {
    switch (kind) {
    case TFX_VIBRATO: return ZELFON_LOSS_VIBRATO;
    case TFX_TREMOLO: return ZELFON_LOSS_TREMOLO;
    case TFX_TREMOR: return ZELFON_LOSS_TREMOR;
    case TFX_PANBRELLO: return ZELFON_LOSS_PANBRELLO;
    case TFX_GLOBAL_VOLUME: return ZELFON_LOSS_GLOBAL_VOLUME;
    case TFX_CHANNEL_VOLUME: return ZELFON_LOSS_CHANNEL_VOLUME;
    case TFX_PANNING_SLIDE: return ZELFON_LOSS_PANNING_SLIDE;
    case TFX_PATTERN_DELAY: return ZELFON_LOSS_PATTERN_DELAY;
    case TFX_TEMPO_SLIDE: return ZELFON_LOSS_TEMPO_SLIDE;
    case TFX_ENVELOPE_POSITION: return ZELFON_LOSS_ENVELOPE_POSITION;
    case TFX_WAVEFORM: return ZELFON_LOSS_WAVEFORM;
    case TFX_FILTER: return ZELFON_LOSS_FILTER;
    case TFX_MIDI: return ZELFON_LOSS_MIDI;
    case TFX_SOUND_CONTROL: return ZELFON_LOSS_SOUND_CONTROL;
    case TFX_HIGH_OFFSET: return ZELFON_LOSS_HIGH_OFFSET;
    default: return ZELFON_LOSS_OTHER_EFFECT;
    }
}

bool instrument_has_volume_envelope(const builder* b, const channel_state* cs) {
    return cs->instrument >= 0 && (b->m->instruments[cs->instrument].ins.volume_type & PSYNTH_SAMPLER_ENV_ON);
}

void convert_effect(builder* b, channel_state* cs, tracker_fx_slot fx, bool has_note, int priority, cell_out* out) {
    int x = fx.param;
    switch (fx.kind) {
    case TFX_PORTA_UP:
    case TFX_PORTA_DOWN:
    case TFX_FINE_PORTA_UP:
    case TFX_FINE_PORTA_DOWN:
    case TFX_EXTRA_FINE_PORTA_UP:
    case TFX_EXTRA_FINE_PORTA_DOWN:
    case TFX_TONE_PORTA:
    case TFX_VOLSLIDE:
    case TFX_SAMPLE_OFFSET:
    case TFX_RETRIG:
        // A zero parameter repeats the last one the channel gave this effect.
        if (x == 0) x = cs->memory[fx.kind];
        cs->memory[fx.kind] = (uint8_t)x;
        break;
    default: break;
    }
    switch (fx.kind) {
    case TFX_NONE:
    case TFX_JUMP:
    case TFX_BREAK:
    case TFX_PATTERN_LOOP:
        break;  // the flow is unrolled onto the timeline
    case TFX_ARPEGGIO:
        if (x) put_effect(b, out, FX_ARPEGGIO, (x >> 4) << 8 | (x & 15), priority);
        break;
    case TFX_PORTA_UP:
    case TFX_PORTA_DOWN: {
        bool up = fx.kind == TFX_PORTA_UP;
        int v = per_tick_value(slide_pitch(b, cs, x, up, false), b->speed);
        if (v) put_effect(b, out, up ? FX_SLIDE_UP : FX_SLIDE_DOWN, v, priority);
        break;
    }
    case TFX_TONE_PORTA: {
        int v = per_tick_value(slide_pitch(b, cs, x, true, false), b->speed);
        put_effect(b, out, FX_SLIDE_TO_NOTE, v, priority);
        break;
    }
    case TFX_FINE_PORTA_UP:
    case TFX_FINE_PORTA_DOWN:
    case TFX_EXTRA_FINE_PORTA_UP:
    case TFX_EXTRA_FINE_PORTA_DOWN: {
        bool up = fx.kind == TFX_FINE_PORTA_UP || fx.kind == TFX_EXTRA_FINE_PORTA_UP;
        bool extra = fx.kind == TFX_EXTRA_FINE_PORTA_UP || fx.kind == TFX_EXTRA_FINE_PORTA_DOWN;
        int pitch = slide_pitch(b, cs, x, up, extra);
        int v = (pitch + kSlideUnit / 2) / kSlideUnit;
        if (x) put_effect(b, out, up ? FX_FINESLIDE_UP : FX_FINESLIDE_DOWN, v < 1 ? 1 : v, priority);
        break;
    }
    case TFX_VOLSLIDE: {
        int up = x >> 4, down = x & 15;
        int amount = up ? up : down;
        if (!amount || b->speed <= 1) break;
        int sample_volume = sample_volume_of(b, cs);
        int per_tick = (int)std::lround((double)amount * (b->speed - 1) / b->speed * kVelocityMax /
                                        (sample_volume > 0 ? sample_volume : kFormatVolumeMax));
        per_tick = per_tick < 1 ? 1 : per_tick > 255 ? 255 : per_tick;
        put_effect(b, out, FX_VELOCITY_SLIDE, up ? per_tick << 8 : per_tick, priority);
        cs->volume += (up ? amount : -amount) * (b->speed - 1);
        cs->volume = cs->volume < 0 ? 0 : cs->volume > kFormatVolumeMax ? kFormatVolumeMax : cs->volume;
        break;
    }
    case TFX_FINE_VOLSLIDE_UP:
    case TFX_FINE_VOLSLIDE_DOWN:
        cs->volume += fx.kind == TFX_FINE_VOLSLIDE_UP ? x : -x;
        cs->volume = cs->volume < 0 ? 0 : cs->volume > kFormatVolumeMax ? kFormatVolumeMax : cs->volume;
        out->set_volume = true;
        break;
    case TFX_SET_VOLUME:
        cs->volume = x > kFormatVolumeMax ? kFormatVolumeMax : x;
        out->set_volume = true;
        break;
    case TFX_SET_PAN:
        cs->pan = x;
        out->set_pan = true;
        break;
    case TFX_SAMPLE_OFFSET:
        put_effect(b, out, FX_SAMPLE_OFFSET, x, priority);
        break;
    case TFX_SPEED:
    case TFX_TEMPO:
        break;  // the song's, not the channel's: convert_row places it
    case TFX_RETRIG:
        if (x & 15) put_effect(b, out, FX_RETRIGGER, x & 15, priority);
        if ((x >> 4) != 0 && (x >> 4) != 8 && out->counting) tracker_lose(b->m, ZELFON_LOSS_RETRIGGER_VOLUME);
        break;
    case TFX_NOTE_CUT:
        if (!has_note) {
            // A cut silences the note where it is: velocity 0, at tick x through a delayed cell.
            cs->volume = 0;
            out->set_volume = true;
            if (x) put_effect(b, out, FX_DELAY, x, priority);
        } else {
            put_effect(b, out, FX_CUT, x, priority);
            if (instrument_has_volume_envelope(b, cs) && out->counting) tracker_lose(b->m, ZELFON_LOSS_NOTE_CUT);
        }
        break;
    case TFX_KEY_OFF:
        put_effect(b, out, FX_CUT, x, priority);
        break;
    case TFX_NOTE_DELAY:
        if (x && has_note) put_effect(b, out, FX_DELAY, x, priority);
        break;
    default:
        if (out->counting) tracker_lose(b->m, loss_of(fx.kind));
        break;
    }
}

// Converts one cell of channel c, updating the channel's state; `out` may be a scratch
// cell when a clone replays the run.
void convert_cell(builder* b, int c, const tracker_cell* tc, zelfon_cell* dest, bool counting) {
    tracker_module* m = b->m;
    channel_state* cs = &b->ch[c];
    cell_out out = {};
    out.counting = counting;
    bool tone_porta = tc->fx[0].kind == TFX_TONE_PORTA || tc->fx[1].kind == TFX_TONE_PORTA;
    if (tc->instrument) cs->instrument = tc->instrument <= m->instruments_num ? tc->instrument - 1 : -1;
    int module = cs->instrument >= 0 ? b->module_of[cs->instrument] : -1;
    bool has_note = false;
    if (tc->note >= 1 && tc->note <= TRACKER_NOTE_MAX) {
        if (module >= 0) {
            has_note = true;
            out.cell.note = tc->note;
            out.cell.module = (uint16_t)(module + 1);
            if (!tone_porta) {
                cs->semitone = tc->note - 1;
                cs->sample = sample_for_note(b, cs->instrument, cs->semitone);
            }
        }
    } else if (tc->note == TRACKER_NOTE_CUT) {
        cs->volume = 0;  // silence at once: velocity 0
        out.set_volume = true;
    } else if (tc->note >= TRACKER_NOTE_OFF) {
        out.cell.note = ZELFON_NOTE_OFF;
        if (tc->note == TRACKER_NOTE_FADE && instrument_has_volume_envelope(b, cs) && counting) tracker_lose(m, ZELFON_LOSS_NOTE_CUT);
    }
    // An instrument number restores the sample's own volume (and, where the format says so, its panning).
    bool volume_reset = false;
    if (tc->instrument && cs->sample >= 0) {
        const tracker_sample* ts = &m->samples[cs->sample];
        cs->volume = ts->header.volume;
        if (ts->sets_pan) cs->pan = ts->header.panning;
        volume_reset = true;
    }
    convert_effect(b, cs, tc->fx[0], has_note, PRIORITY_VOLUME_COLUMN, &out);
    convert_effect(b, cs, tc->fx[1], has_note, PRIORITY_EFFECT_COLUMN, &out);

    int sample_volume = sample_volume_of(b, cs);
    if (out.set_volume || (has_note && !tone_porta && cs->volume != sample_volume) || (volume_reset && !has_note)) {
        int velocity = velocity_of(cs->volume, sample_volume);
        if (cs->volume > sample_volume && counting) tracker_lose(m, ZELFON_LOSS_LOUD_VOLUME);
        if (!(has_note && velocity == kVelocityMax)) out.cell.vel = (uint8_t)(velocity / 2 + 1);
    }
    int sample_pan = cs->sample >= 0 ? m->samples[cs->sample].header.panning : kPanCentre;
    int local_pan = cs->pan - sample_pan + kPanCentre;
    local_pan = local_pan < 0 ? 0 : local_pan > 2 * kPanCentre ? 2 * kPanCentre : local_pan;
    if (out.set_pan || (has_note && !tone_porta && local_pan != kPanCentre)) {
        if (out.priority) {
            if (counting) tracker_lose(m, ZELFON_LOSS_PANNING_IN_CELL);
        } else if (module >= 0) {
            out.cell.ctl = PSYNTH_SAMPLER_LOCAL_CTL_PAN + 1;
            out.cell.value = (uint16_t)(local_pan * kPanCtlScale);
        }
    }
    *dest = out.cell;
}

// ---- Flow ----

const tracker_cell* row_cells(const tracker_module* m, int p, int row) { return &m->patterns[p].cells[row * m->channels]; }

// A cell with no note, instrument or effect converts to an empty cell and leaves its
// channel as it was.
bool cell_is_empty(const tracker_cell* tc) { return !tc->note && !tc->instrument && !tc->fx[0].kind && !tc->fx[1].kind; }

void find_row_contents(builder* b) {
    const tracker_module* m = b->m;
    for (int p = 0; p < m->patterns_num; p++) {
        if (!m->patterns[p].cells) continue;
        for (int row = 0; row < m->patterns[p].rows; row++) {
            const tracker_cell* cells = row_cells(m, p, row);
            uint8_t content = 0;
            for (int c = 0; c < m->channels; c++) {
                if (!cell_is_empty(&cells[c])) content |= ROW_CELLS;
                for (const tracker_fx_slot& fx : cells[c].fx) {
                    bool stop = fx.kind == TFX_SPEED && fx.param == 0;
                    if (stop || fx.kind == TFX_BREAK || fx.kind == TFX_JUMP || fx.kind == TFX_PATTERN_LOOP) content |= ROW_FLOW;
                    if ((fx.kind == TFX_SPEED && fx.param) || fx.kind == TFX_TEMPO) content |= ROW_SPEED;
                }
            }
            b->row_content[p][row] = content;
        }
    }
}

// Reads the row's breaks, jumps and pattern loops.
row_flow read_row_flow(builder* b, int p, int row) {
    row_flow f = {-1, -1, -1, false};
    if (!(b->row_content[p][row] & ROW_FLOW)) return f;
    const tracker_cell* cells = row_cells(b->m, p, row);
    for (int c = 0; c < b->m->channels; c++) {
        channel_state* cs = &b->ch[c];
        for (const tracker_fx_slot& fx : cells[c].fx) {
            switch (fx.kind) {
            case TFX_BREAK: f.break_row = fx.param; break;
            case TFX_JUMP: f.jump_order = fx.param; f.break_row = -1; break;
            case TFX_SPEED:
                if (fx.param == 0) f.stop = true;
                break;
            case TFX_PATTERN_LOOP:
                if (fx.param == 0) {
                    cs->loop_row = row;
                } else if (cs->loop_count == 0) {
                    cs->loop_count = fx.param;
                    f.loop_back = cs->loop_row;
                } else if (--cs->loop_count > 0) {
                    f.loop_back = cs->loop_row;
                }
                break;
            default: break;
            }
        }
    }
    return f;
}

// Converts row `row` of pattern p into `line` (a pattern's line of cells), or only follows
// it when `line` is null (a clone replays a run already written). A speed set on the row
// counts for the slides of the whole row.
bool effect_field_free(const zelfon_cell* cell) { return cell->effect == 0 && cell->ctl == 0; }

// Speed and tempo belong to the song, not to a channel: each takes a free effect field of
// the line, its own channel's first, so that it does not push out a channel's effect.
void place_tempo(builder* b, zelfon_cell* line, int own_track, int value) {
    int t = own_track >= 0 && effect_field_free(&line[own_track]) ? own_track : -1;
    for (int i = 0; i < b->tracks && t < 0; i++) {
        if (effect_field_free(&line[i])) t = i;
    }
    if (t < 0) {
        t = own_track >= 0 ? own_track : 0;
        tracker_lose(b->m, ZELFON_LOSS_SECOND_EFFECT);
    }
    line[t].effect = FX_SPEED;
    line[t].ctl = 0;
    line[t].value = (uint16_t)value;
}

void convert_row(builder* b, int p, int row, zelfon_cell* line) {
    tracker_module* m = b->m;
    uint8_t content = b->row_content[p][row];
    if (!(content & ROW_CELLS)) return;  // the new line is empty already, no channel changes
    const tracker_cell* cells = row_cells(m, p, row);
    if (content & ROW_SPEED) {
        for (int c = 0; c < m->channels; c++) {
            for (const tracker_fx_slot& fx : cells[c].fx) {
                if (fx.kind == TFX_SPEED && fx.param) b->speed = fx.param;
            }
        }
    }
    zelfon_cell scratch;
    for (int c = 0; c < m->channels; c++) {
        int t = b->track_of[c];
        if (t >= 0 && !cell_is_empty(&cells[c])) convert_cell(b, c, &cells[c], line ? &line[t] : &scratch, line != nullptr);
    }
    if (!line || !(content & ROW_SPEED)) return;
    for (int c = 0; c < m->channels; c++) {
        for (const tracker_fx_slot& fx : cells[c].fx) {
            if ((fx.kind == TFX_SPEED && fx.param) || fx.kind == TFX_TEMPO) place_tempo(b, line, b->track_of[c], fx.param);
        }
    }
}

// After the table's last slot is taken its size is doubled, so that thousands of pieces do
// not copy the table every 16 slots (a failure is left to the next placement's own growth).
void grow_slots_ahead(int slot, zelfon_song* song) {
    if (slot == song->pats_capacity - 1) zelfon_reserve_pattern_slot(2 * song->pats_capacity - 1, song);
}

int add_piece(builder* b, int p, int first, int last) {
    zelfon_song* song = b->song;
    int lines = last - first + 1;
    for (int i = b->first_piece[p]; i >= 0; i = b->pieces[i].next) {
        const piece* pc = &b->pieces[i];
        if (pc->first != first || pc->last != last) continue;
        int clone = zelfon_clone_pattern(pc->slot, b->line, 0, song);
        if (clone < 0) return ZELFON_IMPORT_SONG_FAILED;
        grow_slots_ahead(clone, song);
        for (int r = first; r <= last; r++) convert_row(b, p, r, nullptr);
        b->m->report->clones++;
        b->line += lines;
        return 0;
    }
    if (b->pieces_num % kPiecesStep == 0) {
        void* grown = mem_resize(b->pieces, sizeof(piece) * (b->pieces_num + kPiecesStep));
        if (!grown) return ZELFON_IMPORT_NO_MEMORY;
        b->pieces = (piece*)grown;
    }
    int slot = zelfon_get_free_pattern_num(song);
    if (slot < 0 || new_pattern_with_num(slot, lines, b->tracks, b->line, 0, (uint32_t)(p * TRACKER_MAX_ROWS + first), song) < 0) {
        return ZELFON_IMPORT_SONG_FAILED;
    }
    grow_slots_ahead(slot, song);
    zelfon_pattern* pat = song->pats[slot];
    for (int r = first; r <= last; r++) convert_row(b, p, r, &pat->data[(r - first) * pat->data_xsize]);
    b->pieces[b->pieces_num] = {p, first, last, slot, b->first_piece[p]};
    b->first_piece[p] = b->pieces_num++;
    b->m->report->patterns++;
    b->line += lines;
    return 0;
}

bool playable(const tracker_module* m, int order) {
    int p = m->orders[order];
    return p < m->patterns_num && m->patterns[p].cells;
}

// Walks the orders as the song plays them and lays each run of rows on the timeline.
int unroll_song(builder* b, uint8_t* visited) {
    tracker_module* m = b->m;
    int order = 0, row = 0;
    bool looping_back = false;
    while (order < m->orders_num && m->orders[order] != TRACKER_ORDER_END) {
        if (m->orders[order] == TRACKER_ORDER_SKIP || !playable(m, order)) {
            if (m->orders[order] != TRACKER_ORDER_SKIP && !visited[order * TRACKER_MAX_ROWS]) tracker_lose(m, ZELFON_LOSS_MISSING_PATTERN);
            visited[order * TRACKER_MAX_ROWS] = 1;
            order++;
            row = 0;
            continue;
        }
        int p = m->orders[order];
        if (row >= m->patterns[p].rows) row = 0;
        if (!looping_back) {
            if (visited[order * TRACKER_MAX_ROWS + row]) {
                if (order != 0 || row != 0) tracker_lose(m, ZELFON_LOSS_FLOW);
                return 0;
            }
            if (row == 0) {
                for (int c = 0; c < m->channels; c++) b->ch[c].loop_row = 0;
            }
        }
        looping_back = false;
        int first = row;
        row_flow flow;
        for (;; row++) {
            visited[order * TRACKER_MAX_ROWS + row] = 1;
            flow = read_row_flow(b, p, row);
            if (flow.stop || flow.break_row >= 0 || flow.jump_order >= 0 || flow.loop_back >= 0 ||
                row == m->patterns[p].rows - 1) {
                break;
            }
        }
        if (b->line + (row - first + 1) > kMaxSongLines || m->report->patterns + m->report->clones >= kMaxPlacements) {
            tracker_lose(m, ZELFON_LOSS_SONG_CUT);
            return 0;
        }
        int code = add_piece(b, p, first, row);
        if (code) return tracker_fail(m, code, "cannot place pattern %d on the timeline", p);
        if (flow.stop) return 0;
        if (flow.loop_back >= 0) {
            row = flow.loop_back;
            looping_back = true;
        } else if (flow.jump_order >= 0) {
            order = flow.jump_order;
            row = flow.break_row >= 0 ? flow.break_row : 0;
        } else {
            order++;
            row = flow.break_row >= 0 ? flow.break_row : 0;
        }
    }
    if (m->restart_order > 0) tracker_lose(m, ZELFON_LOSS_FLOW);
    return 0;
}

}  // namespace

int tracker_build_song(tracker_module* m, zelfon_song* song) {
    builder* b = (builder*)mem_new_dynamic(sizeof(builder), "tracker_build");
    if (!b) return tracker_fail(m, ZELFON_IMPORT_NO_MEMORY, "out of memory");
    memset(b, 0, sizeof(*b));
    b->m = m;
    b->song = song;
    for (int p = 0; p < TRACKER_MAX_PATTERNS; p++) b->first_piece[p] = -1;
    for (int c = 0; c < TRACKER_MAX_CHANNELS; c++) {
        b->ch[c].instrument = -1;
        b->ch[c].sample = -1;
        b->ch[c].volume = kFormatVolumeMax;
        b->ch[c].pan = m->channel_pan[c];
    }
    int bpm = m->bpm < ZELFON_BPM_MIN ? ZELFON_BPM_MIN : m->bpm > ZELFON_BPM_MAX ? ZELFON_BPM_MAX : m->bpm;
    int speed = m->speed < 1 ? 1 : m->speed > 31 ? 31 : m->speed;
    song->bpm = (uint16_t)bpm;
    song->speed = (uint8_t)speed;
    b->speed = speed;
    song->name = mem_strdup(m->name);
    psynth_net* net = song->net;
    net->global_volume = net->global_volume * m->global_volume / PSYNTH_GAIN_UNITY;

    assign_tracks(b);
    tarvik_mutex_lock(&net->mutex);
    int code = add_samplers(b);
    tarvik_mutex_unlock(&net->mutex);
    uint8_t* visited = nullptr;
    if (code == 0) {
        visited = (uint8_t*)mem_new_dynamic((size_t)(m->orders_num > 0 ? m->orders_num : 1) * TRACKER_MAX_ROWS, "tracker_visited");
        code = visited ? 0 : tracker_fail(m, ZELFON_IMPORT_NO_MEMORY, "out of memory");
    }
    if (code == 0) {
        mem_zero(visited);
        find_row_contents(b);
        code = unroll_song(b, visited);
    }
    zelfon_sort_patterns(song);
    m->report->channels = b->tracks;
    m->report->lines = song->song_lines;
    mem_free(visited);
    mem_free(b->pieces);
    mem_free(b);
    return code;
}

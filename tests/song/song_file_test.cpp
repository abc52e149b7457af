// Song and module files through the real file layer: byte-exact layout, save → load → save
// identity, slot numbers kept across empty slots, clones bound after reading, unknown and
// damaged input, module files with and without position and links, and saves that fail.
#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"
#include "psynth/psynth_modules.h"
#include "psynth/sampler.h"
#include "song/chunks.h"
#include "song/export.h"
#include "song/module_file.h"
#include "song/song_file.h"
#include "file_faults.h"
#include "song_test_util.h"

namespace {

const char kFullName[] = "Thirty-two characters, no less!!";  // exactly 32
static_assert(sizeof(kFullName) == 33);

void write_file(const char* path, const bytes& data) {
    int fd = v3_open(path, "wb");
    ASSERT_NE(fd, 0);
    if (!data.empty()) {
        ASSERT_EQ(v3_write(data.data(), 1, data.size(), fd), data.size());
    }
    ASSERT_EQ(v3_close(fd), 0);
}

// Bytes from hexadecimal text; blanks are ignored.
bytes hex(std::string text) {
    std::erase(text, ' ');
    bytes out;
    for (size_t i = 0; i + 1 < text.size(); i += 2) out.push_back((uint8_t)std::stoi(text.substr(i, 2), nullptr, 16));
    return out;
}

bytes cat(std::initializer_list<bytes> parts) {
    bytes out;
    for (const bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

struct chunk_view {
    std::string id;
    uint32_t size;
    size_t offset;  // of the header
    int32_t value;  // first 4 data bytes, 0 when fewer
};

// Splits a file into its chunks (the file must be whole).
std::vector<chunk_view> chunks_of(const bytes& file) {
    std::vector<chunk_view> out;
    for (size_t pos = 0; pos + 8 <= file.size();) {
        uint32_t size = file[pos + 4] | file[pos + 5] << 8 | file[pos + 6] << 16 | (uint32_t)file[pos + 7] << 24;
        int32_t value = 0;
        if (size >= 4) memcpy(&value, &file[pos + 8], 4);
        out.push_back({std::string((const char*)&file[pos], 4), size, pos, value});
        pos += 8 + size;
    }
    return out;
}

int count_ids(const std::vector<chunk_view>& chunks, const std::string& id) {
    return (int)std::count_if(chunks.begin(), chunks.end(), [&](const chunk_view& c) { return c.id == id; });
}

const chunk_view* find_id(const std::vector<chunk_view>& chunks, const std::string& id) {
    auto it = std::find_if(chunks.begin(), chunks.end(), [&](const chunk_view& c) { return c.id == id; });
    return it == chunks.end() ? nullptr : &*it;
}

// `file` with `what` put in before the first chunk `id`.
bytes insert_before(bytes file, const std::string& id, const bytes& what) {
    file.insert(file.begin() + (long)find_id(chunks_of(file), id)->offset, what.begin(), what.end());
    return file;
}

bytes chunk_bytes(const std::string& id, const bytes& data) {
    uint32_t size = (uint32_t)data.size();
    return cat({bytes(id.begin(), id.end()), {(uint8_t)size, (uint8_t)(size >> 8), (uint8_t)(size >> 16), (uint8_t)(size >> 24)}, data});
}

// `file` with the first 4 data bytes of its `n`-th chunk `id` (counting from 0) set to `value`.
bytes with_int(bytes file, const std::string& id, int32_t value, int n = 0) {
    for (const chunk_view& c : chunks_of(file)) {
        if (c.id != id || n-- > 0) continue;
        memcpy(&file[c.offset + 8], &value, 4);
        return file;
    }
    ADD_FAILURE() << "no chunk " << id;
    return file;
}

class SongFileTest : public SongFixture {
protected:
    psynth_module& module(int mod) { return song.net->modules[mod]; }
    // {size, flags, rate} of a module's data chunk; all -1 when it has none.
    std::array<int, 3> chunk_info(int mod, int chunk) {
        std::array<int, 3> info{-1, -1, -1};
        psynth_get_chunk_info(mod, chunk, &info[0], &info[1], &info[2], song.net);
        return info;
    }

    // A Sampler with one 16-bit sample of 5 frames at 9001 Hz.
    int add_sampler(int x, int y) {
        int mod = add_module(psynth_sampler, kFullName, x, y);
        psynth_new_chunk(mod, psynth_sampler_header_chunk(0), sizeof(psynth_sampler_sample), 0, 0, song.net);
        auto* header = (psynth_sampler_sample*)psynth_get_chunk(mod, psynth_sampler_header_chunk(0), song.net);
        header->length = 5;
        header->type = PSYNTH_SAMPLER_FORMAT_INT16 << PSYNTH_SAMPLER_FORMAT_SHIFT | PSYNTH_SAMPLER_LOOP_FORWARD;
        psynth_new_chunk(mod, psynth_sampler_data_chunk(0), 10, 0, 9001, song.net);
        int16_t* frames = (int16_t*)psynth_get_chunk(mod, psynth_sampler_data_chunk(0), song.net);
        for (int i = 0; i < 5; i++) frames[i] = (int16_t)(-3000 + 1234 * i);
        psynth_do_command(mod, PS_CMD_SETUP_FINISHED, song.net);
        return mod;
    }

    // Patterns: a clone in slot 0 of the parent in slot 2, an empty slot 1, a pattern used
    // only in track 0 in slot 3. Modules: Generator (1), an empty slot (2), Sampler (3),
    // Generator → Sampler → OUT, all with odd settings.
    void build_rich_song() {
        song.bpm = 173;
        song.speed = 5;
        song.net->global_volume = 317;
        song.name = mem_strdup("Rich song \xC3\xA9");

        ASSERT_EQ(new_pattern_with_num(2, 19, 6, -7, 11, 3, &song), 2);
        ASSERT_EQ(zelfon_clone_pattern(2, 45, -2, &song), 0);
        ASSERT_EQ(new_pattern_with_num(3, 9, 8, 64, 3, 4, &song), 3);
        zelfon_pattern* parent = song.pats[2];
        parent->ysize = 41;
        parent->fg[0] = 1, parent->fg[1] = 2, parent->fg[2] = 3;
        parent->bg[0] = 250, parent->bg[1] = 251, parent->bg[2] = 252;
        parent->icon[0] = 0x8001;
        parent->icon[15] = 0xFFFF;
        cell(2, 0, 0) = note_cell(37, 2, 99, 0x0F, 0x1234);
        cell(2, 4, 18) = zelfon_cell{128, 0, 0x0101, 0x21, 7, 0xFFFF};
        cell(2, 5, 3) = zelfon_cell{0, 0, 0x0100, 0, 0, 0};  // reads as empty: module's low byte 0
        song.pats_info[3].flags = 0x30;
        cell(3, 0, 8) = note_cell(120, 4);

        int gen = add_module(psynth_generator, "Gen", -120, 77);
        int spare = add_module(psynth_generator, nullptr, 0, 0);
        int smp = add_sampler(333, -44);
        psynth_remove_synth(spare, song.net);
        ASSERT_EQ(gen, 1);
        ASSERT_EQ(smp, 3);
        module(gen).finetune = -37;
        module(gen).relative_note = 5;
        module(gen).flags |= PSYNTH_FLAG_MUTE;
        module(gen).color[1] = 9;
        *module(gen).ctls[0].value = 201;
        *module(gen).ctls[2].value = module(gen).ctls[2].max;
        int8_t* drawn = (int8_t*)psynth_get_chunk(gen, 0, song.net);
        drawn[0] = -128;
        drawn[31] = 127;
        psynth_new_chunk(gen, 5, 7, 0x10, 9001, song.net);
        memcpy(psynth_get_chunk(gen, 5, song.net), "\x01\x02\x03\x04\x05\x06\x07", 7);
        module(smp).relative_note = -12;
        psynth_set_midi_prog(smp, 300, 77, song.net);
        psynth_open_midi_out(smp, "Port nine", 7, song.net);
        psynth_make_link(smp, gen, song.net);
        psynth_make_link(0, smp, song.net);
    }
};

// ---- Layout ----

TEST_F(SongFileTest, MinimalSongMatchesHandWrittenBytes) {
    song.bpm = 140;
    song.speed = 3;
    song.net->global_volume = 200;
    song.name = mem_strdup("Ab");
    ASSERT_EQ(new_pattern_with_num(0, 2, 4, -1, 6, 1, &song), 0);
    song.pats[0]->icon[0] = 0x0180;
    memset(&song.pats[0]->icon[1], 0, 30);
    cell(0, 1, 1) = zelfon_cell{0x31, 0x41, 0x0002, 0x0F, 0x03, 0xBEEF};
    bytes expected = hex(
        "5A464F4E 00000000"                     // ZFON
        "56455253 04000000 00040601"            // VERS 1.6.4
        "42504D20 04000000 8C000000"            // BPM 140
        "53504544 04000000 03000000"            // SPED 3
        "47564F4C 04000000 C8000000"            // GVOL 200
        "4E414D45 03000000 416200"              // NAME "Ab" with its terminator
        "50445441 20000000"                     // PDTA: 2 lines of 2 tracks
        "0000000000000000 0000000000000000"
        "0000000000000000 314102000F03EFBE"
        "5043484E 04000000 02000000"            // PCHN 2
        "504C494E 04000000 02000000"            // PLIN 2
        "5059535A 04000000 20000000"            // PYSZ 32
        "5049434F 20000000 8001" + std::string(60, '0') +  // PICO
        "50464743 03000000 E8ECC8"              // PFGC
        "50424743 03000000 2C3E60"              // PBGC
        "50464646 04000000 00000000"            // PFFF
        "50585858 04000000 FFFFFFFF"            // PXXX −1
        "50595959 04000000 06000000"            // PYYY 6
        "50454E44 00000000"                     // PEND
        "53464646 04000000 43000000"            // SFFF: in use, output, initialised
        "534E414D 20000000 4F5554" + std::string(58, '0') +  // SNAM "OUT"
        "5346494E 04000000 00000000"            // SFIN
        "5352454C 04000000 00000000"            // SREL
        "53585858 04000000 80030000"            // SXXX 896
        "53595959 04000000 00020000"            // SYYY 512
        "53434F4C 03000000 FFFFFF"              // SCOL white
        "534D4943 04000000 00000000"            // SMIC
        "534D4942 04000000 FFFFFFFF"            // SMIB −1
        "534D4950 04000000 FFFFFFFF"            // SMIP −1
        "534C4E4B 00000000"                     // SLNK: no links
        "53454E44 00000000"                     // SEND
        "53454E44 00000000 53454E44 00000000 53454E44 00000000");  // slots 1..3 empty
    EXPECT_EQ(save(), expected);
}

TEST_F(SongFileTest, VersionTextsBecomeBytesZeroPatchMinorMajor) {
    EXPECT_EQ(zelfon_version_value("1", "6.4"), 0x01060400u);
    EXPECT_EQ(zelfon_version_value("2", "10"), 0x020A0000u);
}

// ---- Round trips ----

TEST_F(SongFileTest, SaveLoadSaveGivesIdenticalBytes) {
    build_rich_song();
    bytes first = save();
    ASSERT_EQ(load(), 0);
    EXPECT_EQ(save("3:/again.zelfon"), first);
    // Slot 2 is saved with 5 tracks (track 5 held only an "empty" cell), slot 3 with one.
    std::vector<int64_t> shapes;  // PDTA sizes and PCHN values in file order
    for (const chunk_view& c : chunks_of(first)) {
        if (c.id == "PDTA" || c.id == "PCHN") shapes.push_back(c.id == "PDTA" ? c.size : c.value);
    }
    EXPECT_EQ(shapes, (std::vector<int64_t>{19 * 5 * 8, 5, 9 * 1 * 8, 1}));

    EXPECT_EQ((std::vector<int>{song.loaded, song.bpm, song.speed, song.net->global_volume}), (std::vector<int>{1, 173, 5, 317}));
    EXPECT_STREQ(song.name, "Rich song \xC3\xA9");
    EXPECT_EQ(song.pats[0], song.pats[2]);  // the clone came before its parent
    EXPECT_EQ(song.pats_info[0].parent, 2);
    EXPECT_EQ(song.pats_info[0].x, 45);
    EXPECT_EQ(song.pats[1], nullptr);
    EXPECT_EQ((std::vector<int>{song.pats[2]->channels, song.pats[2]->lines, song.pats[2]->ysize, song.pats_info[2].x,
                                song.pats[3]->channels, song.pats[3]->data_xsize, song.sorted_pats_count}),
              (std::vector<int>{5, 19, 41, -7, 1, 1, 3}));
    EXPECT_EQ((std::vector<int>{cell(2, 4, 18).value, cell(2, 0, 0).note, cell(3, 0, 8).note}), (std::vector<int>{0xFFFF, 37, 120}));
    EXPECT_EQ(song.pats_info[3].flags, 0x30u);

    EXPECT_EQ(module(2).flags, 0u);  // the empty module slot stays empty
    EXPECT_STREQ(module(1).name, "Gen");
    EXPECT_STREQ(module(3).name, kFullName);
    EXPECT_EQ(module(1).handler, psynth_generator);
    EXPECT_EQ(module(3).handler, psynth_sampler);
    EXPECT_NE(module(1).flags & PSYNTH_FLAG_MUTE, 0u);
    EXPECT_EQ((std::vector<int>{module(1).finetune, module(1).x, *module(1).ctls[0].value}), (std::vector<int>{-37, -120, 201}));
    EXPECT_EQ(chunk_info(1, 5), (std::array<int, 3>{7, 0x10, 9001}));
    EXPECT_EQ(chunk_info(3, psynth_sampler_data_chunk(0)), (std::array<int, 3>{10, PSYNTH_SAMPLER_STORAGE_INT16, 9001}));
    EXPECT_EQ(((int16_t*)psynth_get_chunk(3, psynth_sampler_data_chunk(0), song.net))[4], -3000 + 4 * 1234);
    EXPECT_STREQ(module(3).midi_out_name, "Port nine");
    EXPECT_EQ(module(3).midi_out_channel, 7);
    EXPECT_EQ(module(3).midi_out_bank, 300);
    // Links were made in both directions, also towards modules read later.
    EXPECT_EQ((std::vector<int>{module(0).input_links[0], module(3).output_links[0], module(3).input_links[0], module(1).output_links[0]}),
              (std::vector<int>{3, 0, 1, 3}));
}

TEST_F(SongFileTest, MidiLearnBindingsTravelAsTheModulesLastChunk) {
    build_rich_song();
    std::vector<chunk_view> plain = chunks_of(save());
    EXPECT_TRUE(std::none_of(plain.begin(), plain.end(), [](const chunk_view& c) { return c.id == "SMLC"; }));
    module(1).midi_learn_cc[0] = 7;
    module(1).midi_learn_channel[0] = 15;
    module(3).midi_learn_cc[2] = 127;
    module(3).midi_learn_channel[2] = 0;
    bytes first = save();
    // Each block ends with its bindings, then "SEND", so readers that skip unknown chunks cope.
    std::vector<std::string> ids;
    for (const chunk_view& c : chunks_of(first)) ids.push_back(c.id);
    for (size_t i = 0; i + 1 < ids.size(); i++) {
        if (ids[i] != "SMLC") continue;
        EXPECT_EQ(ids[i + 1], "SEND") << i;
    }
    EXPECT_EQ(std::count(ids.begin(), ids.end(), "SMLC"), 2);
    ASSERT_EQ(load(), 0);
    EXPECT_EQ(save("3:/again.zelfon"), first);
    EXPECT_EQ((std::vector<int>{module(1).midi_learn_cc[0], module(1).midi_learn_channel[0], module(3).midi_learn_cc[2],
                                module(3).midi_learn_channel[2], module(3).midi_learn_cc[0]}),
              (std::vector<int>{7, 15, 127, 0, PSYNTH_MIDI_UNBOUND}));
}

TEST_F(SongFileTest, EmptySlotsKeepTheirNumbersAndTrailingOnesAreDropped) {
    ASSERT_EQ(new_pattern_with_num(0, 4, 2, 0, 0, 1, &song), 0);
    ASSERT_EQ(new_pattern_with_num(3, 4, 2, 8, 0, 1, &song), 3);
    ASSERT_EQ(new_pattern_with_num(6, 4, 2, 16, 0, 1, &song), 6);
    zelfon_remove_pattern(6, &song);
    auto chunks = chunks_of(save());
    EXPECT_EQ(count_ids(chunks, "PEND"), 4);  // slots 0..3: nothing for the trailing empty ones
    EXPECT_EQ(count_ids(chunks, "PLIN"), 2);

    ASSERT_EQ(load(), 0);
    for (int slot : {1, 2, 4}) EXPECT_EQ(song.pats[slot], nullptr) << slot;
    EXPECT_NE(song.pats[0], nullptr);
    ASSERT_NE(song.pats[3], nullptr);
    EXPECT_EQ(song.pats_info[3].x, 8);
    EXPECT_EQ(zelfon_get_free_pattern_num(&song), 1);
}

TEST_F(SongFileTest, CloneWhoseParentIsMissingBecomesAnEmptySlot) {
    bytes body = cat({chunk_bytes("PPAR", hex("05000000")), chunk_bytes("PEND", {})});
    write_file("3:/orphan.zelfon", insert_before(save(), "SFFF", body));  // a song with no patterns
    ASSERT_EQ(load("3:/orphan.zelfon"), 0);
    EXPECT_EQ(song.pats[0], nullptr);
    EXPECT_EQ(song.pats_info[0].flags, 0u);
}

TEST_F(SongFileTest, UnknownChunksWithAndWithoutDataAreSkipped) {
    build_rich_song();
    bytes file = save();
    bytes junk = chunk_bytes("XTRA", hex("0102030405060708090A0B0C0D"));
    // Before a pattern's end, inside a module (after its name) and at the very end.
    bytes damaged = insert_before(insert_before(cat({file, junk}), "STYP", chunk_bytes("zzzz", {})), "PEND", junk);
    write_file("3:/junk.zelfon", damaged);
    ASSERT_EQ(load("3:/junk.zelfon"), 0);
    EXPECT_EQ(save("3:/clean.zelfon"), file);
}

// ---- Damaged and hostile files ----

TEST_F(SongFileTest, EveryTruncationLoadsAndReportsCutChunks) {
    ASSERT_EQ(new_pattern_with_num(0, 2, 2, 0, 0, 1, &song), 0);
    cell(0, 1, 1) = note_cell(50, 2);
    int gen = add_module(psynth_generator, nullptr, 5, 6);
    psynth_make_link(0, gen, song.net);
    bytes file = save();
    std::vector<size_t> boundaries;
    for (const chunk_view& c : chunks_of(file)) boundaries.push_back(c.offset);

    for (size_t len = 0; len < file.size(); len++) {
        write_file("3:/cut.zelfon", bytes(file.begin(), file.begin() + (long)len));
        bool at_boundary = std::find(boundaries.begin(), boundaries.end(), len) != boundaries.end();
        ASSERT_EQ(load("3:/cut.zelfon"), at_boundary ? 0 : ZELFON_LOAD_ERROR_BLOCK) << "length " << len;
        ASSERT_EQ(song.loaded, 1);
    }
    write_file("3:/whole.zelfon", file);
    ASSERT_EQ(load("3:/whole.zelfon"), 0);
    EXPECT_EQ(save("3:/resaved.zelfon"), file);
}

TEST_F(SongFileTest, CutOrMissingFileKeepsWhatWasReadAndLogsTheError) {
    ASSERT_EQ(new_pattern_with_num(0, 2, 2, 12, 0, 1, &song), 0);
    add_module(psynth_generator, nullptr, 5, 6);
    bytes file = save();
    file.resize(find_id(chunks_of(file), "SNAM")->offset + 20);  // inside OUT's name
    write_file("3:/cut.zelfon", file);
    EXPECT_EQ(load("3:/cut.zelfon"), ZELFON_LOAD_ERROR_BLOCK);
    ASSERT_NE(song.pats[0], nullptr);
    EXPECT_EQ(song.pats_info[0].x, 12);
    EXPECT_EQ(song.net->modules[1].flags, 0u);
    EXPECT_EQ(load("3:/no_such.zelfon"), ZELFON_LOAD_CANT_OPEN);
    std::string log = log_text();
    EXPECT_NE(log.find("zelfon_load_song() error 2\n"), std::string::npos) << log;
    EXPECT_NE(log.find("Can't open file 3:/no_such.zelfon\n"), std::string::npos) << log;
}

TEST_F(SongFileTest, AbsurdSizesAndCountsFailWithoutHugeAllocations) {
    bytes many_modules;
    for (int i = 0; i < ZELFON_FILE_MAX_MODULE_SLOTS + 8; i++) many_modules = cat({many_modules, chunk_bytes("SEND", {})});
    struct hostile_case {
        bytes file;
        int code;
    };
    bytes head = chunk_bytes("ZFON", {});
    const hostile_case cases[] = {
        {cat({head, hex("58585858 F0FFFFFF 0102")}), ZELFON_LOAD_ERROR_BLOCK},   // size beyond the file
        {cat({head, hex("4E414D45 FFFFFF7F")}), ZELFON_LOAD_ERROR_BLOCK},        // a name of 2 GB
        {cat({head, chunk_bytes("CHNK", hex("FFFFFF7F"))}), ZELFON_LOAD_ERROR_CHUNK_TABLE},
        // 2^30 lines, no cells in the file
        {cat({head, chunk_bytes("PLIN", hex("00000040")), chunk_bytes("PICO", bytes(32, 0)), chunk_bytes("PEND", {})}),
         ZELFON_LOAD_ERROR_PATTERN},
        {cat({head, many_modules}), ZELFON_LOAD_ERROR_MODULE},
        {bytes{'h', 'e', 'l', 'l', 'o', ' ', 'w', 'o', 'r', 'l', 'd', '\n'}, ZELFON_LOAD_ERROR_BLOCK},  // not a song
    };
    for (const hostile_case& c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases));
        write_file("3:/hostile.zelfon", c.file);
        int64_t before = mem_get_stats().dynamic_in_use;
        EXPECT_EQ(load("3:/hostile.zelfon"), c.code);
        EXPECT_EQ(mem_get_stats().error_size, 0);  // nothing too big was even tried
        EXPECT_LT(mem_get_stats().max_dynamic_used, before + (64 << 20));
        EXPECT_EQ(song.loaded, 1);
        EXPECT_LE(song.net->slots, ZELFON_FILE_MAX_MODULE_SLOTS);
    }
}

TEST_F(SongFileTest, BadLinksTempoAndVolumeAreTamedWhenLoading) {
    add_module(psynth_generator, nullptr, 0, 0);
    bytes file = save();
    auto chunks = chunks_of(file);
    const chunk_view* slnk = find_id(chunks, "SLNK");
    // OUT's input list: a repeated module, a module that does not exist and a negative number;
    // tempo and volume that the render would divide or overflow by: BPM 0 in one short byte.
    bytes damaged = cat({bytes(file.begin(), file.begin() + (long)slnk->offset),
                         chunk_bytes("SLNK", hex("01000000 01000000 63000000 FBFFFFFF")),
                         bytes(file.begin() + (long)(slnk->offset + 8 + slnk->size), file.end()),
                         chunk_bytes("BPM ", hex("00")), chunk_bytes("SPED", hex("00000000")), chunk_bytes("GVOL", hex("FFFFFF7F"))});
    write_file("3:/links.zelfon", damaged);
    ASSERT_EQ(load("3:/links.zelfon"), 0);
    ASSERT_EQ(module(0).input_links_capacity, 4);
    EXPECT_EQ((std::vector<int>(module(0).input_links, module(0).input_links + 4)), (std::vector<int>{1, -1, -1, -1}));
    EXPECT_EQ(module(1).output_links[0], 0);
    EXPECT_EQ((std::vector<int>{song.bpm, song.speed, song.net->global_volume}), (std::vector<int>{ZELFON_BPM_MIN, 1, 512}));
}

// Tuning, positions and MIDI settings are brought within their ranges where they enter, so
// that the pitch arithmetic cannot overflow: notes on the module render (the sanitizer
// build checks every step).
TEST_F(SongFileTest, AbsurdTuningPositionsAndMidiSettingsAreClampedWhenLoading) {
    int gen = add_module(psynth_generator, "Gen", 5, 6);
    psynth_make_link(0, gen, song.net);
    int slot = add_pattern(0, 4, 1);
    cell(slot, 0, 0) = note_cell(1, gen + 1);
    cell(slot, 0, 1) = note_cell(127, gen + 1);
    bytes file = save();
    struct tuning_case {
        int32_t finetune, relative_note, x, channel, bank;
        std::array<int, 5> want;
    };
    for (const tuning_case& c : {tuning_case{(int32_t)0x80000001, -1073741771, INT32_MAX, 99, -7, {-256, -128, 1 << 20, 15, -1}},
                                 tuning_case{0x7FFFFFFF, 1073741771, INT32_MIN, -1, 1 << 20, {256, 128, -(1 << 20), 0, 16383}},
                                 tuning_case{-37, 12, 5, 3, 300, {-37, 12, 5, 3, 300}}}) {
        SCOPED_TRACE(c.finetune);
        // Module 1's chunks: the second of each id in the file (OUT's come first).
        bytes f = with_int(with_int(with_int(file, "SFIN", c.finetune, 1), "SREL", c.relative_note, 1), "SXXX", c.x, 1);
        f = with_int(with_int(f, "SMIC", c.channel, 1), "SMIB", c.bank, 1);
        write_file("3:/tuning.zelfon", f);
        ASSERT_EQ(load("3:/tuning.zelfon"), 0);
        const psynth_module& m = module(gen);
        EXPECT_EQ((std::array<int, 5>{m.finetune, m.relative_note, m.x, m.midi_out_channel, m.midi_out_bank}), c.want);
        play(0);
        render(8192, 1001);
        zelfon_cell stop = note_cell(ZELFON_NOTE_STOP);
        zelfon_send_live_cell(&stop, 0, &song);
        render(256, 256);
        // The same values in a module file.
        ASSERT_EQ(zelfon_save_synth(gen, "3:/tuning.zelsynth", ZELFON_SYNTH_POS_AND_LINKS, &song), 0);
        bytes synth = with_int(with_int(file_bytes("3:/tuning.zelsynth"), "SFIN", c.finetune), "SREL", c.relative_note);
        write_file("3:/tuning.zelsynth", with_int(synth, "SYYY", c.x));
        int copy = zelfon_load_synth(-1, 0, 0, "3:/tuning.zelsynth", ZELFON_SYNTH_POS_AND_LINKS, &song);
        ASSERT_GE(copy, 0);
        EXPECT_EQ((std::array<int, 3>{module(copy).finetune, module(copy).relative_note, module(copy).y}),
                  (std::array<int, 3>{c.want[0], c.want[1], c.want[2]}));
    }
}

// A tiny song whose one pattern claims to start at line 2^30 (or anywhere beyond): its length
// is known at once and costs no memory, and an export refuses it before rendering anything.
TEST_F(SongFileTest, APatternFarDownTheTimelineCostsNothing) {
    add_pattern(0, 4, 1);
    bytes file = save();
    // 125 BPM, speed 6 at 44100 Hz: 5292 frames a line.
    for (auto [x, want_x] : {std::pair{1 << 30, 1 << 30}, {0x7FFFFF00, 1 << 30}, {INT32_MIN, -(1 << 30)}}) {
        SCOPED_TRACE(x);
        bytes f = with_int(file, "PXXX", x);
        write_file("3:/far.zelfon", f);
        int64_t before = mem_get_stats().dynamic_in_use;
        ASSERT_EQ(load("3:/far.zelfon"), 0);
        ASSERT_EQ(song.pats_info[0].x, want_x);
        int64_t lines = want_x > 0 ? (int64_t)want_x + 4 : 0;
        EXPECT_EQ(song.song_lines, lines);
        EXPECT_EQ(zelfon_get_song_length_frames(44100, &song), lines * 5292);
        EXPECT_EQ(zelfon_export_to_wav("3:/far.wav", ZELFON_EXPORT_INT16, ZELFON_EXPORT_ONE_FILE, nullptr, nullptr, &song),
                  want_x > 0 ? ZELFON_EXPORT_TOO_LONG : ZELFON_EXPORT_OK);
        // The MIDI walk steps over the empty lines at once.
        EXPECT_EQ(zelfon_export_to_midi("3:/far.mid", &song), ZELFON_EXPORT_OK);
        EXPECT_LT(mem_get_stats().max_dynamic_used, before + (8 << 20));
    }
}

// Module records are small in a file and large in memory: a 40 kB file of a thousand
// Reverbs stops loading once it has built what its size allows.
TEST_F(SongFileTest, AFileCannotBuildMoreThanItsSizeAllows) {
    bytes reverb = cat({chunk_bytes("SFFF", hex("01000000")), chunk_bytes("STYP", {'R', 'e', 'v', 'e', 'r', 'b', 0}),
                        chunk_bytes("SEND", {})});
    bytes file = cat({chunk_bytes("ZFON", {}), chunk_bytes("SEND", {})});
    for (int i = 0; i < ZELFON_FILE_MAX_MODULE_SLOTS - 8; i++) file = cat({file, reverb});
    write_file("3:/reverbs.zelfon", file);
    int64_t before = mem_get_stats().dynamic_in_use;
    EXPECT_EQ(load("3:/reverbs.zelfon"), ZELFON_LOAD_ERROR_MEMORY);
    EXPECT_LT(mem_get_stats().max_dynamic_used, before + (64 << 20));
    EXPECT_GT(song.net->slots, 8);  // what fitted stays loaded and plays
    EXPECT_NE(log_text().find("zelfon_load_song(): the file asks for more memory than its size allows"), std::string::npos);
    render(2048, 1001);
}

// ---- Saves that fail ----

TEST_F(SongFileTest, FailedSaveLeavesThePreviousFileIntact) {
    namespace fs = std::filesystem;
    fs::path sub = fs::path(temp_dir) / "sub";
    fs::create_directories(sub);
    build_rich_song();
    bytes good = save("3:/sub/keep.zelfon");
    ASSERT_FALSE(good.empty());
    song.bpm = 99;
    auto entries = [&] {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(sub)) names.push_back(e.path().filename().string());
        return names;
    };

    {
        TestUnwritable ro(sub.string());  // the temporary file cannot be created
        ASSERT_TRUE(ro.active);
        EXPECT_EQ(zelfon_save_song("3:/sub/keep.zelfon", "1", "6.4", &song), 1);
    }
    EXPECT_EQ(file_bytes("3:/sub/keep.zelfon"), good);
    {
        TestFileSizeLimit full(good.size() / 2);  // the disk fills up while writing
        EXPECT_EQ(zelfon_save_song("3:/sub/keep.zelfon", "1", "6.4", &song), 1);
    }
    EXPECT_EQ(file_bytes("3:/sub/keep.zelfon"), good);
    EXPECT_EQ(entries(), std::vector<std::string>{"keep.zelfon"}) << "the failed temporary file is gone";
    {
        TestUnwritable fixed((sub / "keep.zelfon").string());  // the new file cannot be moved over it
        ASSERT_TRUE(fixed.active);
        EXPECT_EQ(zelfon_save_song("3:/sub/keep.zelfon", "1", "6.4", &song), 1);
    }
    EXPECT_EQ(file_bytes("3:/sub/keep.zelfon"), good);
    EXPECT_EQ(entries(), std::vector<std::string>{"keep.zelfon"});

    EXPECT_EQ(zelfon_save_song("3:/missing_dir/keep.zelfon", "1", "6.4", &song), 1);
    EXPECT_EQ(zelfon_save_synth(1, "3:/missing_dir/gen.zelsynth", 0, &song), 1);
    EXPECT_EQ(zelfon_save_synth(2, "3:/empty_slot.zelsynth", 0, &song), 1);  // unused slot
    EXPECT_TRUE(file_bytes("3:/empty_slot.zelsynth").empty());

    EXPECT_EQ(zelfon_save_song("3:/sub/keep.zelfon", "1", "6.4", &song), 0);
    EXPECT_NE(file_bytes("3:/sub/keep.zelfon"), good);
    EXPECT_EQ(entries(), std::vector<std::string>{"keep.zelfon"});
}

TEST_F(SongFileTest, ChunkWriterReportsTheStepThatFailed) {
    write_file("3:/ro.bin", {});
    int fd = v3_open("3:/ro.bin", "rb");
    ASSERT_NE(fd, 0);
    EXPECT_EQ(zelfon_write_chunk("ABCD", 0, nullptr, fd), 1);
    v3_close(fd);
    fd = v3_open("3:/w.bin", "wb");
    EXPECT_EQ(zelfon_write_chunk("ABCD", 3, nullptr, fd), 3);  // data promised but absent
    v3_close(fd);
}

// ---- Module files ----

TEST_F(SongFileTest, ModuleFileWithPositionAndLinksRoundTrips) {
    build_rich_song();
    ASSERT_EQ(zelfon_save_synth(3, "3:/smp.zelsynth", ZELFON_SYNTH_POS_AND_LINKS, &song), 0);
    bytes first = file_bytes("3:/smp.zelsynth");
    auto chunks = chunks_of(first);
    ASSERT_GE(chunks.size(), 3u);
    EXPECT_EQ(chunks[0].id + std::to_string(chunks[0].size), "ZSYN0");
    EXPECT_EQ(chunks[1].id + std::to_string(chunks[1].value), "VERS1");
    EXPECT_EQ(chunks.back().id, "SEND");
    auto value = [&](const char* id) { return find_id(chunks, id) ? find_id(chunks, id)->value : -999; };
    EXPECT_EQ((std::vector<int>{value("SXXX"), value("SLNK"), value("SLNk")}), (std::vector<int>{333, 1, 0}));

    psynth_remove_synth(3, song.net);
    int mod = zelfon_load_synth(-1, 1, 2, "3:/smp.zelsynth", ZELFON_SYNTH_POS_AND_LINKS, &song);
    ASSERT_EQ(mod, 2);  // the first free slot
    EXPECT_EQ((std::vector<int>{module(mod).x, module(mod).y}), (std::vector<int>{333, -44}));
    EXPECT_STREQ(module(mod).name, kFullName);
    EXPECT_EQ((std::vector<int>{module(mod).input_links[0], module(1).output_links[0], module(mod).output_links[0], module(0).input_links[0]}),
              (std::vector<int>{1, mod, 0, mod}));
    EXPECT_EQ(chunk_info(mod, psynth_sampler_data_chunk(0))[2], 9001);

    // Loaded back into slot 3 over whatever is there, it saves the same bytes.
    ASSERT_EQ(zelfon_load_synth(3, 0, 0, "3:/smp.zelsynth", ZELFON_SYNTH_POS_AND_LINKS, &song), 3);
    psynth_remove_synth(mod, song.net);
    ASSERT_EQ(zelfon_save_synth(3, "3:/smp2.zelsynth", ZELFON_SYNTH_POS_AND_LINKS, &song), 0);
    EXPECT_EQ(file_bytes("3:/smp2.zelsynth"), first);
}

TEST_F(SongFileTest, ModuleFileWithoutPositionAndLinks) {
    build_rich_song();
    ASSERT_EQ(zelfon_save_synth(1, "3:/gen.zelsynth", 0, &song), 0);
    bytes first = file_bytes("3:/gen.zelsynth");
    auto chunks = chunks_of(first);
    for (const char* id : {"SXXX", "SYYY", "SLNK", "SLNk"}) EXPECT_EQ(find_id(chunks, id), nullptr) << id;
    EXPECT_EQ(count_ids(chunks, "CHDT"), 2);
    EXPECT_EQ(count_ids(chunks, "CVAL"), module(1).ctls_count);

    int mod = zelfon_load_synth(-1, -77, 12, "3:/gen.zelsynth", 0, &song);
    ASSERT_EQ(mod, 2);
    EXPECT_EQ((std::vector<int>{module(mod).x, module(mod).y, module(mod).input_links_capacity, module(mod).output_links_capacity,
                                *module(mod).ctls[0].value}),
              (std::vector<int>{-77, 12, 0, 0, 201}));
    EXPECT_EQ(memcmp(psynth_get_chunk(mod, 5, song.net), "\x01\x02\x03\x04\x05\x06\x07", 7), 0);
    ASSERT_EQ(zelfon_save_synth(mod, "3:/gen2.zelsynth", 0, &song), 0);
    EXPECT_EQ(file_bytes("3:/gen2.zelsynth"), first);

    // A file with position and links loaded without them: the caller's place, no links.
    ASSERT_EQ(zelfon_save_synth(3, "3:/smp.zelsynth", ZELFON_SYNTH_POS_AND_LINKS, &song), 0);
    mod = zelfon_load_synth(-1, 8, 9, "3:/smp.zelsynth", 0, &song);
    ASSERT_EQ(mod, 4);
    EXPECT_EQ(module(mod).x, 8);
    EXPECT_EQ(module(mod).input_links_capacity, 0);

    // The pasteboard copies a module through the same file, placed where it is pasted.
    ASSERT_EQ(zelfon_copy_synth_to_pasteboard(1, &song), 0);
    EXPECT_FALSE(file_bytes(ZELFON_PASTEBOARD_FILE).empty());
    mod = zelfon_paste_synth_from_pasteboard(40, 50, &song);
    ASSERT_EQ(mod, 5);
    EXPECT_STREQ(module(mod).name, "Gen");
    EXPECT_EQ(module(mod).x, 40);
    EXPECT_EQ(module(mod).input_links_capacity, 0);
}

TEST_F(SongFileTest, TruncatedModuleFilesGiveNoModule) {
    build_rich_song();
    ASSERT_EQ(zelfon_save_synth(1, "3:/gen.zelsynth", ZELFON_SYNTH_POS_AND_LINKS, &song), 0);
    bytes file = file_bytes("3:/gen.zelsynth");
    for (size_t len = 0; len < file.size(); len++) {
        write_file("3:/cut.zelsynth", bytes(file.begin(), file.begin() + (long)len));
        ASSERT_EQ(zelfon_load_synth(-1, 0, 0, "3:/cut.zelsynth", ZELFON_SYNTH_POS_AND_LINKS, &song), -1) << len;
        ASSERT_EQ(module(2).flags, 0u) << len;
    }
    EXPECT_EQ(zelfon_load_synth(-1, 0, 0, "3:/none.zelsynth", 0, &song), -1);
}

// ---- Byte order of data chunks ----

TEST_F(SongFileTest, ChunkSwapFollowsTheStorageFlags) {
    uint8_t data[7] = {1, 2, 3, 4, 5, 6, 7};
    zelfon_chunk_swap_bytes(data, sizeof(data), ZELFON_CHUNK_STORAGE_8BIT);
    EXPECT_EQ(bytes(data, data + 7), (bytes{1, 2, 3, 4, 5, 6, 7}));
    zelfon_chunk_swap_bytes(data, sizeof(data), ZELFON_CHUNK_STORAGE_16BIT | ZELFON_CHUNK_STORAGE_STEREO);
    EXPECT_EQ(bytes(data, data + 7), (bytes{2, 1, 4, 3, 6, 5, 7}));
    zelfon_chunk_swap_bytes(data, sizeof(data), ZELFON_CHUNK_STORAGE_32BIT);
    EXPECT_EQ(bytes(data, data + 7), (bytes{3, 4, 1, 2, 6, 5, 7}));
}

// Bytes overwritten at random places (a fixed sequence): every file loads and then plays
// under the sanitizers without reading out of bounds, dividing by zero or overflowing.
TEST_F(SongFileTest, RandomlyDamagedSongsLoadAndPlay) {
    build_rich_song();
    bytes file = save();
    uint32_t seed = 12345;
    auto rnd = [&]() { seed = seed * 1103515245u + 12345u; return (seed >> 16) & 32767; };
    for (int iter = 0; iter < 300; iter++) {
        bytes f = file;
        for (int k = 0, flips = 1 + rnd() % 4; k < flips; k++) {
            size_t pos = ((size_t)rnd() << 15 | rnd()) % f.size();
            f[pos] = (uint8_t)rnd();
        }
        write_file("3:/fz.zelfon", f);
        load("3:/fz.zelfon");
        render(512, 512);
        play(0);
        render(2048, 1024);
        zelfon_cell stop = note_cell(ZELFON_NOTE_STOP);
        zelfon_send_live_cell(&stop, 0, &song);
        render(256, 256);
        ASSERT_EQ(song.playing, 0);
    }
}

}  // namespace

// Profile: loading the configuration text into key entries, queries with defaults, run-time
// changes, and the save that rewrites only what changed. One tokenizer serves both load and
// save, so that the save finds every entry exactly where the load saw it.
#include "engine/profile.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

#include "engine/file.h"
#include "engine/log.h"
#include "engine/memory.h"

const char* const PROFILE_DEFAULT_FILES[PROFILE_DEFAULT_FILES_COUNT] = {
    "1:/zelfon_config.txt",
    "2:/zelfon_config.txt",
    "1:/zelfon_config.ini",
    "2:/zelfon_config.ini",
};

namespace {

constexpr int kFirstKeysCapacity = 4;
// A configuration file is a few kilobytes; anything near this is not one.
constexpr int64_t kMaxFileSize = 1 << 20;

profile_data g_profile = {-1, nullptr, nullptr, nullptr, 0, 0};

profile_data* resolve(profile_data* p) { return p ? p : &g_profile; }

size_t source_length(const profile_data* p) { return p->source ? mem_get_size(p->source) - 1 : 0; }

// ---------------------------------------------------------------------------------------
// Tokenizer.
// ---------------------------------------------------------------------------------------

// One line that holds a key, with the spans the save needs.
struct entry {
    int line;            // line of the key
    int last_line;       // line on which the entry ends (a quoted value may span lines)
    size_t key_start;
    size_t key_length;   // as written in the file, before the 1024-character cut
    int has_value;
    int quoted;
    int unclosed;        // a quoted value that runs to the end of the text
    size_t value_start;
    size_t value_length;
    size_t value_end;    // after the value and its closing quote; after the key when no value
    size_t rest_end;     // end of the entry's last line (its terminator or the end of the text)
};

// Called for each entry in order; returns false to stop the walk.
typedef bool (*entry_fn)(const entry& e, const char* s, void* context);

bool is_eol(char c) { return c == '\r' || c == '\n'; }
bool is_blank(char c) { return static_cast<unsigned char>(c) <= ' ' && !is_eol(c); }
bool comment_at(const char* s, size_t n, size_t i) { return i + 1 < n && s[i] == '/' && s[i + 1] == '/'; }
bool word_at(const char* s, size_t n, size_t i) {
    return static_cast<unsigned char>(s[i]) > ' ' && !comment_at(s, n, i);
}

size_t line_end(const char* s, size_t n, size_t i) {
    while (i < n && !is_eol(s[i])) i++;
    return i;
}

// Walks the text: every "\r" and every "\n" ends a line; "//" starts a comment; the first
// word is the key, then a word or a "..." string is the value; the rest of the line is ignored.
// Returns false when fn stopped the walk.
bool walk_entries(const char* s, size_t n, entry_fn fn, void* context) {
    size_t i = 0;
    int line = 0;
    while (i < n) {
        while (i < n && is_blank(s[i])) i++;
        if (i < n && word_at(s, n, i)) {
            entry e = {};
            e.line = line;
            e.key_start = i;
            while (i < n && word_at(s, n, i)) i++;
            e.key_length = i - e.key_start;
            e.value_end = i;
            while (i < n && is_blank(s[i])) i++;
            if (i < n && s[i] == '"') {
                e.has_value = e.quoted = 1;
                e.value_start = ++i;
                while (i < n && s[i] != '"') {
                    if (is_eol(s[i])) line++;
                    i++;
                }
                e.value_length = i - e.value_start;
                if (i < n) i++;
                else e.unclosed = 1;
                e.value_end = i;
            } else if (i < n && word_at(s, n, i)) {
                e.has_value = 1;
                e.value_start = i;
                while (i < n && word_at(s, n, i)) i++;
                e.value_length = i - e.value_start;
                e.value_end = i;
            }
            e.last_line = line;
            i = line_end(s, n, i);
            e.rest_end = i;
            if (!fn(e, s, context)) return false;
        } else {
            i = line_end(s, n, i);  // a blank or comment line
        }
        if (i < n) {
            i++;
            line++;
        }
    }
    return true;
}

size_t cut(size_t length) { return length > PROFILE_MAX_TOKEN ? PROFILE_MAX_TOKEN : length; }

char* copy_span(const char* s, size_t length, const char* tag) {
    char* copy = static_cast<char*>(mem_new(MEM_DYNAMIC, length + 1, tag));
    if (!copy) return nullptr;
    std::memcpy(copy, s, length);
    copy[length] = 0;
    return copy;
}

struct load_context {
    profile_data* p;
    const char* name;
};

bool load_entry(const entry& e, const char* s, void* context) {
    load_context* c = static_cast<load_context*>(context);
    if (e.key_length > PROFILE_MAX_TOKEN) {
        tarvik_log("profile_load(): %s line %d: key longer than %d characters, cut\n", c->name, e.line + 1,
                   PROFILE_MAX_TOKEN);
    }
    if (e.value_length > PROFILE_MAX_TOKEN) {
        tarvik_log("profile_load(): %s line %d: value longer than %d characters, cut\n", c->name, e.line + 1,
                   PROFILE_MAX_TOKEN);
    }
    if (e.unclosed) {
        tarvik_log("profile_load(): %s line %d: the quoted value is not closed and runs to the end\n", c->name,
                   e.line + 1);
    }
    char* key = copy_span(s + e.key_start, cut(e.key_length), "profile_load");
    char* value = e.has_value ? copy_span(s + e.value_start, cut(e.value_length), "profile_load") : nullptr;
    int failed = !key || (e.has_value && !value) || profile_add_key(key, value, e.line, c->p) != 0;
    mem_free(key);
    mem_free(value);
    return !failed;
}

bool count_entry(const entry&, const char*, void* context) {
    (*static_cast<int*>(context))++;
    return true;
}

struct collect_context {
    entry* entries;
    int count;
};

bool collect_entry(const entry& e, const char*, void* context) {
    collect_context* c = static_cast<collect_context*>(context);
    c->entries[c->count++] = e;
    return true;
}

// Reads the whole file plus a terminator into a new block. 0 read, -1 cannot be opened,
// 1 unreadable or too large (logged).
int read_text(const char* name, char** text) {
    if (v3_get_file_type(name) == V3_FILE_SPECIAL) {  // a FIFO with no writer would never end
        tarvik_log("profile_load(): %s is not a regular file\n", name);
        return 1;
    }
    int h = v3_open(name, "rb");
    if (!h) return -1;
    int64_t size = v3_seek(h, 0, V3_SEEK_END) == 0 ? v3_tell(h) : -1;
    v3_rewind(h);
    if (size < 0 || size > kMaxFileSize) {
        v3_close(h);
        tarvik_log("profile_load(): %s cannot be measured or is larger than %d bytes\n", name,
                   static_cast<int>(kMaxFileSize));
        return 1;
    }
    char* buffer = static_cast<char*>(mem_new(MEM_DYNAMIC, static_cast<size_t>(size) + 1, "profile_load"));
    size_t got = buffer ? v3_read(buffer, 1, static_cast<size_t>(size), h) : 0;
    v3_close(h);
    if (!buffer || got != static_cast<size_t>(size)) {
        mem_free(buffer);
        tarvik_log("profile_load(): %s could not be read\n", name);
        return 1;
    }
    buffer[size] = 0;
    *text = buffer;
    return 0;
}

int find_key(const char* key, int deleted, const profile_data* p) {
    if (!key) return -1;
    for (int i = 0; i < p->num; i++) {
        if (p->keys[i].deleted == deleted && std::strcmp(p->keys[i].key, key) == 0) return i;
    }
    return -1;
}

// ---------------------------------------------------------------------------------------
// Save.
// ---------------------------------------------------------------------------------------

struct writer {
    int h;
    int failed;
    char last;  // last byte written, 0 before the first
};

void put(writer* w, const char* s, size_t length) {
    if (w->failed || length == 0) return;
    if (v3_write(s, 1, length, w->h) != length) w->failed = 1;
    w->last = s[length - 1];
}

void put_str(writer* w, const char* s) { put(w, s, std::strlen(s)); }

// Quoted when it holds "/" (it would read back as a comment), a blank or a control
// character, or nothing at all (a bare empty value would read back as no value).
bool needs_quotes(const char* value) {
    if (!value[0]) return true;
    for (const char* c = value; *c; c++) {
        if (*c == '/' || static_cast<unsigned char>(*c) <= ' ') return true;
    }
    return false;
}

void put_key(writer* w, const profile_key& k) {
    put_str(w, k.key);
    if (!k.value) return;
    put(w, " ", 1);
    bool quoted = needs_quotes(k.value);
    if (quoted) put(w, "\"", 1);
    put_str(w, k.value);
    if (quoted) put(w, "\"", 1);
}

// The entry as loaded still holds this key's key and value.
bool unchanged(const entry& e, const char* s, const profile_key& k) {
    size_t key_length = cut(e.key_length);
    if (std::strlen(k.key) != key_length || std::memcmp(k.key, s + e.key_start, key_length) != 0) return false;
    if (!e.has_value || !k.value) return !e.has_value && !k.value;
    size_t value_length = cut(e.value_length);
    return std::strlen(k.value) == value_length && std::memcmp(k.value, s + e.value_start, value_length) == 0;
}

// The text's own line ending, for the keys appended at the end.
const char* line_ending_of(const char* s, size_t n) {
    for (size_t i = 0; i < n; i++) {
        if (s[i] == '\n') return "\n";
        if (s[i] == '\r') return i + 1 < n && s[i + 1] == '\n' ? "\r\n" : "\r";
    }
    return "\n";
}

// Writes the whole profile to w. Lines of the loaded text are copied as they are unless a key
// entry names them: then a deleted key's line is dropped, a changed key's "key value" is
// rewritten between the line's indentation and whatever followed the value, and a key given
// a line without an entry replaces that line. Entries not placed so are appended.
void write_profile(profile_data* p, writer* w) {
    const char* s = p->source;
    size_t n = source_length(p);
    int entries_count = 0;
    walk_entries(s, n, count_entry, &entries_count);

    entry* entries = static_cast<entry*>(mem_new(MEM_DYNAMIC, sizeof(entry) * static_cast<size_t>(entries_count), "profile_save"));
    int* order = static_cast<int*>(mem_new(MEM_DYNAMIC, sizeof(int) * static_cast<size_t>(p->num), "profile_save"));
    char* written = static_cast<char*>(mem_new(MEM_DYNAMIC, static_cast<size_t>(p->num), "profile_save"));
    if (!entries || !order || !written) {
        w->failed = 1;
    } else {
        collect_context collected = {entries, 0};
        walk_entries(s, n, collect_entry, &collected);
        std::memset(written, 0, static_cast<size_t>(p->num));
        // Keys that name a line, by line and then by position: the first of a line takes it.
        int ordered = 0;
        for (int k = 0; k < p->num; k++) {
            if (p->keys[k].line >= 0) order[ordered++] = k;
        }
        const profile_key* keys = p->keys;
        std::sort(order, order + ordered, [keys](int a, int b) {
            return keys[a].line != keys[b].line ? keys[a].line < keys[b].line : a < b;
        });

        size_t i = 0;
        int line = 0, next_entry = 0, next_key = 0;
        while (i < n && !w->failed) {
            const entry* e = next_entry < entries_count && entries[next_entry].line == line ? &entries[next_entry] : nullptr;
            if (e) next_entry++;
            size_t content_end = e ? e->rest_end : line_end(s, n, i);
            int last_line = e ? e->last_line : line;
            size_t stop = content_end < n ? content_end + 1 : n;  // with the terminator

            while (next_key < ordered && keys[order[next_key]].line < line) next_key++;
            int k = next_key < ordered && keys[order[next_key]].line == line ? order[next_key] : -1;
            if (k < 0) {
                put(w, s + i, stop - i);
            } else {
                written[k] = 1;
                next_key++;
                const profile_key& key = keys[k];
                if (key.deleted) {
                    if (stop < n && s[stop - 1] == '\r' && s[stop] == '\n') {  // "\r\n" leaves as one
                        stop++;
                        last_line++;
                    }
                } else if (e && unchanged(*e, s, key)) {
                    put(w, s + i, stop - i);
                } else if (e) {
                    put(w, s + i, e->key_start - i);
                    put_key(w, key);
                    put(w, s + e->value_end, stop - e->value_end);
                } else {
                    put_key(w, key);
                    put(w, s + content_end, stop - content_end);
                }
            }
            i = stop;
            line = last_line + 1;
        }

        const char* eol = line_ending_of(s, n);
        for (int k = 0; k < p->num && !w->failed; k++) {
            if (written[k] || keys[k].deleted) continue;
            if (w->last && !is_eol(w->last)) put_str(w, eol);
            put_key(w, keys[k]);
            put_str(w, eol);
        }
    }
    mem_free(entries);
    mem_free(order);
    mem_free(written);
}

// 0 saved; 1 the file cannot be begun (try another name); 2 failed after that (logged).
int save_to(profile_data* p, const char* name) {
    v3_save save;
    int h = v3_save_begin(name, &save);
    if (!h) {
        v3_save_end(&save, 0);
        return 1;
    }
    writer w = {h, 0, 0};
    write_profile(p, &w);
    if (v3_save_end(&save, !w.failed) != 0) {
        tarvik_log("profile_save(): writing %s failed; the file is left as it was\n", name);
        return 2;
    }
    return 0;
}

}  // namespace

void profile_new(profile_data* p) {
    p = resolve(p);
    *p = profile_data{-1, nullptr, nullptr, nullptr, 0, 0};
}

void profile_close(profile_data* p) {
    p = resolve(p);
    for (int i = 0; i < p->num; i++) {
        mem_free(p->keys[i].key);
        mem_free(p->keys[i].value);
    }
    mem_free(p->keys);
    mem_free(p->file_name);
    mem_free(p->source);
    profile_new(p);
}

int profile_load(const char* file_name, profile_data* p) {
    p = resolve(p);
    char* name = file_name ? mem_strdup(file_name) : nullptr;  // it may be the profile's own name
    if (file_name && !name) return 1;
    profile_close(p);
    char* text = nullptr;
    int result = -1;
    if (name) {
        p->file_name = name;
        result = read_text(name, &text);
    } else {
        for (int i = 0; i < PROFILE_DEFAULT_FILES_COUNT && result == -1; i++) {
            result = read_text(PROFILE_DEFAULT_FILES[i], &text);
            if (result != -1) {
                p->file_num = i;
                p->file_name = mem_strdup(PROFILE_DEFAULT_FILES[i]);
            }
        }
    }
    if (result == 1) p->load_failed = 1;
    if (result != 0) return result;

    p->source = text;
    load_context context = {p, p->file_name ? p->file_name : ""};
    if (!walk_entries(text, source_length(p), load_entry, &context)) {
        // Out of memory: no keys at all rather than some, and no save over the file.
        for (int i = 0; i < p->num; i++) {
            mem_free(p->keys[i].key);
            mem_free(p->keys[i].value);
        }
        p->num = 0;
        p->load_failed = 1;
        return 1;
    }
    return 0;
}

const char* profile_get_str_value(const char* key, const char* default_value, profile_data* p) {
    p = resolve(p);
    int k = find_key(key, 0, p);
    return k >= 0 && p->keys[k].value ? p->keys[k].value : default_value;
}

int profile_get_int_value(const char* key, int default_value, profile_data* p) {
    const char* v = profile_get_str_value(key, nullptr, p);
    if (!v) return default_value;
    while (*v && is_blank(*v)) v++;  // the terminator counts as a blank while walking the file
    bool negative = *v == '-';
    if (*v == '-' || *v == '+') v++;
    if (*v < '0' || *v > '9') return default_value;
    int64_t value = 0;
    for (; *v >= '0' && *v <= '9'; v++) {
        if (value <= static_cast<int64_t>(INT_MAX) + 1) value = value * 10 + (*v - '0');
    }
    if (negative) value = -value;
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

int profile_add_key(const char* key, const char* value, int line, profile_data* p) {
    p = resolve(p);
    if (!key) return 1;
    size_t capacity = mem_get_size(p->keys) / sizeof(profile_key);
    if (static_cast<size_t>(p->num) >= capacity) {
        if (p->num >= INT_MAX / 2) return 1;
        size_t grown = capacity ? capacity * 2 : kFirstKeysCapacity;
        profile_key* keys = static_cast<profile_key*>(p->keys ? mem_resize(p->keys, grown * sizeof(profile_key))
                                                               : mem_new(MEM_DYNAMIC, grown * sizeof(profile_key), "profile_add_key"));
        if (!keys) return 1;
        p->keys = keys;
    }
    char* key_copy = mem_strdup(key);
    char* value_copy = value ? mem_strdup(value) : nullptr;
    if (!key_copy || (value && !value_copy)) {
        mem_free(key_copy);
        mem_free(value_copy);
        return 1;
    }
    p->keys[p->num++] = profile_key{key_copy, value_copy, line, 0};
    return 0;
}

int profile_set_str_value(const char* key, const char* value, profile_data* p) {
    p = resolve(p);
    if (!key) return 1;
    int k = find_key(key, 0, p);
    if (k < 0) k = find_key(key, 1, p);
    if (k < 0) return profile_add_key(key, value, -1, p);
    char* copy = value ? mem_strdup(value) : nullptr;
    if (value && !copy) return 1;
    mem_free(p->keys[k].value);
    p->keys[k].value = copy;
    p->keys[k].deleted = 0;
    return 0;
}

int profile_remove_key(const char* key, profile_data* p) {
    p = resolve(p);
    int k = find_key(key, 0, p);
    if (k < 0) return -1;
    p->keys[k].deleted = 1;
    return 0;
}

int profile_save(profile_data* p) {
    p = resolve(p);
    if (p->load_failed) {
        tarvik_log("profile_save(): %s was not read whole and is not overwritten\n", p->file_name ? p->file_name : "");
        return 1;
    }
    // The loaded name first, then the default files before it, towards the first.
    const char* names[PROFILE_DEFAULT_FILES_COUNT + 1];
    int nums[PROFILE_DEFAULT_FILES_COUNT + 1];
    int count = 0;
    int below = p->file_num;
    if (p->file_name) {
        names[count] = p->file_name;
        nums[count++] = p->file_num;
    } else {
        below = PROFILE_DEFAULT_FILES_COUNT;
    }
    if (p->file_num >= 0 || !p->file_name) {
        for (int i = below - 1; i >= 0; i--) {
            names[count] = PROFILE_DEFAULT_FILES[i];
            nums[count++] = i;
        }
    }
    for (int i = 0; i < count; i++) {
        int result = save_to(p, names[i]);
        if (result == 2) return 1;
        if (result == 1) continue;
        if (names[i] != p->file_name) {
            mem_free(p->file_name);
            p->file_name = mem_strdup(names[i]);
            p->file_num = nums[i];
        }
        return 0;
    }
    tarvik_log("profile_save(): no configuration file could be created (first tried: %s)\n", count ? names[0] : "");
    return 1;
}

// JPEG decoding through libjpeg-turbo. The library reports fatal errors by calling
// error_exit, which must not return: ours jumps back to the adapter's setjmp point, so
// every library error becomes a return value. Only plain data lives between the two.
#include "image/jpeg.h"

#include <csetjmp>
#include <cstdio>
#include <cstring>

#include <jpeglib.h>

#include "engine/file.h"
#include "engine/memory.h"

namespace {

// Largest pixel buffer we accept, 85 million RGB pixels: a JPEG header may claim 65500 ×
// 65500. The library's own buffers (a progressive file's coefficients) get the same bound.
constexpr size_t kMaxPixelBytes = (size_t)1 << 28;
// The pixel buffer starts at this size and doubles as rows arrive, so that a small file
// claiming a huge image costs only the rows it holds before its data runs out.
constexpr size_t kFirstPixelBytes = (size_t)1 << 20;

struct error_trap {
    jpeg_error_mgr mgr;  // first, so the library's pointer is also ours
    jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
};

void on_error_exit(j_common_ptr cinfo) {
    error_trap* trap = (error_trap*)cinfo->err;
    (*cinfo->err->format_message)(cinfo, trap->message);
    longjmp(trap->jump, 1);
}

// Warnings (corrupt or cut-short data) are counted and kept instead of printed.
void on_message(j_common_ptr cinfo, int level) {
    error_trap* trap = (error_trap*)cinfo->err;
    if (level >= 0) return;  // trace messages
    if (cinfo->err->num_warnings++ == 0) (*cinfo->err->format_message)(cinfo, trap->message);
}

void set_error(char* error, size_t error_size, const char* text) {
    if (error && error_size) snprintf(error, error_size, "%s", text);
}

// The decoding proper. Locals that change after setjmp and are read after the jump are
// kept in `out` (memory, not registers), so the jump leaves them well defined.
int decode(const uint8_t* data, unsigned long size, int want, image_jpeg* out, error_trap* trap) {
    jpeg_decompress_struct cinfo;
    cinfo.err = jpeg_std_error(&trap->mgr);
    trap->mgr.error_exit = on_error_exit;
    trap->mgr.emit_message = on_message;
    trap->message[0] = 0;
    if (setjmp(trap->jump)) {
        jpeg_destroy_decompress(&cinfo);
        image_jpeg_free(out);
        return 1;
    }
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, data, size);
    jpeg_read_header(&cinfo, TRUE);
    bool gray = want == IMAGE_JPEG_GRAY || (want == IMAGE_JPEG_AS_STORED && cinfo.jpeg_color_space == JCS_GRAYSCALE);
    cinfo.out_color_space = gray ? JCS_GRAYSCALE : JCS_RGB;
    cinfo.mem->max_memory_to_use = (long)kMaxPixelBytes;
    jpeg_calc_output_dimensions(&cinfo);
    const size_t row_bytes = (size_t)cinfo.output_width * cinfo.output_components;
    const unsigned height = cinfo.output_height;
    if (row_bytes == 0 || height == 0 || row_bytes > kMaxPixelBytes / height) {
        snprintf(trap->message, sizeof(trap->message), "image too large (%u x %u)", cinfo.output_width, height);
        jpeg_destroy_decompress(&cinfo);
        return 1;
    }
    jpeg_start_decompress(&cinfo);
    out->width = (int)cinfo.output_width;
    out->height = (int)height;
    out->components = cinfo.output_components;
    size_t capacity_rows = 0;
    // A warning means corrupt or cut-short data: the rest would be made-up pixels.
    while (cinfo.output_scanline < height && trap->mgr.num_warnings == 0) {
        if (cinfo.output_scanline == capacity_rows) {
            capacity_rows = capacity_rows ? 2 * capacity_rows : (kFirstPixelBytes + row_bytes - 1) / row_bytes;
            if (capacity_rows > height) capacity_rows = height;
            void* grown = out->pixels ? mem_resize(out->pixels, row_bytes * capacity_rows)
                                      : mem_new(MEM_STORAGE, row_bytes * capacity_rows, "image_jpeg");
            if (!grown) {
                snprintf(trap->message, sizeof(trap->message), "no memory for the pixels");
                jpeg_destroy_decompress(&cinfo);
                image_jpeg_free(out);
                return 1;
            }
            out->pixels = (uint8_t*)grown;
        }
        JSAMPROW row = out->pixels + row_bytes * cinfo.output_scanline;
        jpeg_read_scanlines(&cinfo, &row, 1);
    }
    if (trap->mgr.num_warnings == 0) jpeg_finish_decompress(&cinfo);
    bool warned = trap->mgr.num_warnings > 0;
    jpeg_destroy_decompress(&cinfo);
    if (warned) {
        image_jpeg_free(out);
        return 1;
    }
    return 0;
}

}  // namespace

bool image_jpeg_signature(const uint8_t* head, size_t size) {
    return size >= 3 && head[0] == 0xFF && head[1] == 0xD8 && head[2] == 0xFF;
}

int image_jpeg_decode(const void* data, size_t size, int want, image_jpeg* out, char* error, size_t error_size) {
    *out = image_jpeg{};
    if (!data || size == 0 || size > (unsigned long)-1) {
        set_error(error, error_size, "no data");
        return 1;
    }
    if (want != IMAGE_JPEG_AS_STORED && want != IMAGE_JPEG_GRAY && want != IMAGE_JPEG_RGB) {
        set_error(error, error_size, "unknown pixel layout");
        return 1;
    }
    error_trap trap;
    int result = decode((const uint8_t*)data, (unsigned long)size, want, out, &trap);
    if (result) set_error(error, error_size, trap.message[0] ? trap.message : "cannot decode");
    return result;
}

int image_jpeg_load(const char* path, int want, image_jpeg* out, char* error, size_t error_size) {
    *out = image_jpeg{};
    int h = v3_open(path, "rb");
    if (!h) {
        set_error(error, error_size, "cannot open the file");
        return 1;
    }
    v3_seek(h, 0, V3_SEEK_END);
    int64_t size = v3_tell(h);
    v3_rewind(h);
    uint8_t* data = size > 0 && (uint64_t)size <= kMaxPixelBytes ? (uint8_t*)mem_new(MEM_DYNAMIC, (size_t)size, "image_jpeg_load") : nullptr;
    bool read = data && v3_read(data, 1, (size_t)size, h) == (size_t)size;
    v3_close(h);
    int result = 1;
    if (read) result = image_jpeg_decode(data, (size_t)size, want, out, error, error_size);
    else set_error(error, error_size, size <= 0 ? "empty file" : "cannot read the file");
    mem_free(data);
    return result;
}

void image_jpeg_free(image_jpeg* image) {
    mem_free(image->pixels);
    *image = image_jpeg{};
}

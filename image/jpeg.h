// JPEG decoding: turns a JPEG held in memory or in a file into 8-bit RGB or grayscale
// pixels, through libjpeg-turbo. Used for images and by the Sampler's sample loader.
//
// Error convention: functions return 0 on success and 1 on failure (bad or truncated
// data, an unsupported colour space, no memory, a file that cannot be read); a failure
// leaves the image record empty and, when an error buffer is given, a one-line reason in it.
// The library's own fatal errors come back as return values: they never end the process.
#pragma once

#include <cstddef>
#include <cstdint>

// Pixel layouts a caller may ask for.
enum : int {
    IMAGE_JPEG_AS_STORED = 0,  // grayscale for a grayscale file, RGB for everything else
    IMAGE_JPEG_GRAY = 1,
    IMAGE_JPEG_RGB = 3,
};

// Decoded pixels: rows top to bottom, `components` bytes a pixel (1 gray, 3 R G B).
struct image_jpeg {
    uint8_t* pixels;  // a memory-manager block tagged "image_jpeg", null when empty
    int width;
    int height;
    int components;
};

// True when the first bytes look like a JPEG stream (FF D8 FF). Any thread.
bool image_jpeg_signature(const uint8_t* head, size_t size);
// Decodes `size` bytes at `data` into *out in the layout `want` (IMAGE_JPEG_*).
// Returns 0 or 1; `error` (optional, `error_size` bytes) receives the reason. Any thread.
int image_jpeg_decode(const void* data, size_t size, int want, image_jpeg* out, char* error, size_t error_size);
// Reads the whole file at virtual path `path` and decodes it as image_jpeg_decode does.
// Any thread.
int image_jpeg_load(const char* path, int want, image_jpeg* out, char* error, size_t error_size);
// Frees the pixels and empties the record; an empty record is left as it is.
void image_jpeg_free(image_jpeg* image);

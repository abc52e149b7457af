// The JPEG decoder on files made at test time by cjpeg from PPM and PGM images written
// here: sizes, layouts and pixel values, and bad, cut-short and missing files coming
// back as errors (never ending the process) without leaking memory or taking the memory
// of what they claim.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "engine/engine_test_env.h"
#include "engine/memory.h"
#include "image/jpeg.h"

namespace {

class ImageJpegTest : public EngineDirFixture {
protected:
    // 16 × 8 pixels, left half `a`, right half `b` (RGB, or gray from the first byte),
    // at the highest quality without chroma subsampling, so flat areas decode within ±2.
    std::string make_jpeg(const char* name, bool gray, const std::string& a, const std::string& b) {
        std::string pnm = gray ? "P5\n16 8\n255\n" : "P6\n16 8\n255\n";
        for (int p = 0; p < 128; p++) pnm += (p % 16 < 8 ? a : b).substr(0, gray ? 1 : 3);
        write_bytes(dir_ / "in.pnm", pnm);
        std::string out = (dir_ / name).string();
        std::string cmd = "cjpeg -quality 100 -sample 1x1 -outfile '" + out + "' '" + (dir_ / "in.pnm").string() + "'";
        EXPECT_EQ(std::system(cmd.c_str()), 0);
        return out;
    }
};

TEST_F(ImageJpegTest, DecodesColourAndGrayscaleFilesIntoTheAskedLayout) {
    std::string colour = make_jpeg("colour.jpg", false, "\xc8\x28\x0a", "\x0a\x5a\xfa");  // (200, 40, 10), (10, 90, 250)
    image_jpeg img;
    char why[200] = "";
    ASSERT_EQ(image_jpeg_load(colour.c_str(), IMAGE_JPEG_AS_STORED, &img, why, sizeof(why)), 0) << why;
    ASSERT_EQ(img.width * 1000 + img.height * 10 + img.components, 16083);
    const int want[2][3] = {{200, 40, 10}, {10, 90, 250}};
    for (int p = 0; p < 128; p++) {
        for (int c = 0; c < 3; c++) ASSERT_NEAR(img.pixels[p * 3 + c], want[p % 16 >= 8][c], 2) << p << " " << c;
    }
    image_jpeg_free(&img);
    EXPECT_EQ(img.pixels, nullptr);
    ASSERT_EQ(image_jpeg_load(colour.c_str(), IMAGE_JPEG_GRAY, &img, why, sizeof(why)), 0);
    EXPECT_EQ(img.components, 1);
    EXPECT_NEAR(img.pixels[0], (299 * 200 + 587 * 40 + 114 * 10) / 1000, 2);  // the left half's luma
    image_jpeg_free(&img);

    std::string gray = make_jpeg("gray.jpg", true, "\x1e", "\xdc");  // 30, 220
    ASSERT_EQ(image_jpeg_load(gray.c_str(), IMAGE_JPEG_AS_STORED, &img, why, sizeof(why)), 0);
    EXPECT_EQ(img.components, 1);
    EXPECT_NEAR(img.pixels[0], 30, 2);
    image_jpeg_free(&img);
    ASSERT_EQ(image_jpeg_load(gray.c_str(), IMAGE_JPEG_RGB, &img, why, sizeof(why)), 0);
    EXPECT_EQ(img.components, 3);
    EXPECT_NEAR(img.pixels[15 * 3 + 1], 220, 2);
    image_jpeg_free(&img);
}

TEST_F(ImageJpegTest, BadInputComesBackAsAnError) {
    std::string good = read_bytes(make_jpeg("good.jpg", false, "\xff\x01\x01", "\x01\x01\xff"));
    image_jpeg img;
    char why[200] = "";
    EXPECT_TRUE(image_jpeg_signature((const uint8_t*)good.data(), good.size()));
    EXPECT_FALSE(image_jpeg_signature((const uint8_t*)"\xFF\xD8", 2));
    std::string garbage = "\xFF\xD8\xFF" + std::string(200, '\x55');
    EXPECT_EQ(image_jpeg_decode(garbage.data(), garbage.size(), IMAGE_JPEG_RGB, &img, why, sizeof(why)), 1);
    EXPECT_STRNE(why, "");
    EXPECT_EQ(image_jpeg_decode("not a jpeg", 10, IMAGE_JPEG_RGB, &img, why, sizeof(why)), 1);
    EXPECT_EQ(image_jpeg_decode(good.data(), good.size(), 2, &img, why, sizeof(why)), 1);  // no such layout
    // Cut at every length: always an error, never a crash; the whole file decodes.
    for (size_t n = 0; n < good.size(); n++) {
        ASSERT_EQ(image_jpeg_decode(good.data(), n, IMAGE_JPEG_RGB, &img, nullptr, 0), 1) << n;
        ASSERT_EQ(img.pixels, nullptr);
    }
    ASSERT_EQ(image_jpeg_decode(good.data(), good.size(), IMAGE_JPEG_RGB, &img, nullptr, 0), 0);
    image_jpeg_free(&img);
    EXPECT_EQ(image_jpeg_load((dir_ / "missing.jpg").c_str(), IMAGE_JPEG_RGB, &img, why, sizeof(why)), 1);
    write_bytes(dir_ / "empty.jpg", "");
    EXPECT_EQ(image_jpeg_load((dir_ / "empty.jpg").c_str(), IMAGE_JPEG_RGB, &img, why, sizeof(why)), 1);
}

// 700 × 600 pixels (1.2 MB of RGB, more than the first pixel buffer): the top half one
// colour, the bottom half another. Then the same file claiming 20000 × 16000 pixels (960 MB)
// fails as cut short, having taken only the memory of the rows it holds.
TEST_F(ImageJpegTest, PixelsGrowWithTheRowsSoAHugeClaimCostsOnlyWhatTheFileHolds) {
    const int width = 700, height = 600;
    std::string ppm = "P6\n700 600\n255\n";
    for (int y = 0; y < height; y++) {
        for (int x = 0; x < width; x++) ppm += y < height / 2 ? "\xc8\x28\x0a" : "\x0a\x5a\xfa";
    }
    write_bytes(dir_ / "big.ppm", ppm);
    std::string path = (dir_ / "big.jpg").string();
    ASSERT_EQ(std::system(("cjpeg -quality 100 -sample 1x1 -outfile '" + path + "' '" + (dir_ / "big.ppm").string() + "'").c_str()), 0);
    image_jpeg img;
    char why[200] = "";
    ASSERT_EQ(image_jpeg_load(path.c_str(), IMAGE_JPEG_RGB, &img, why, sizeof(why)), 0) << why;
    ASSERT_EQ(img.width * 10000 + img.height, width * 10000 + height);
    EXPECT_NEAR(img.pixels[0], 200, 2);
    EXPECT_NEAR(img.pixels[((size_t)(height - 1) * width + width - 1) * 3 + 2], 250, 2);
    image_jpeg_free(&img);

    std::string huge = read_bytes(path);
    size_t sof = huge.find("\xff\xc0");
    ASSERT_NE(sof, std::string::npos);
    const unsigned char dims[4] = {0x3e, 0x80, 0x4e, 0x20};  // height 16000, width 20000
    huge.replace(sof + 5, 4, (const char*)dims, 4);
    const int64_t peak_before = mem_get_stats().max_storage_used;
    EXPECT_EQ(image_jpeg_decode(huge.data(), huge.size(), IMAGE_JPEG_RGB, &img, why, sizeof(why)), 1);
    EXPECT_STRNE(why, "");
    EXPECT_EQ(img.pixels, nullptr);
    EXPECT_LT(mem_get_stats().max_storage_used - peak_before, 8 << 20);
}

}  // namespace

// Ogg Vorbis files made at test time: a sine tone written here as a 16-bit WAV file and
// encoded by Debian's oggenc (vorbis-tools), plus a period measure for the decoded sound.
// Shared by the psynth, song and app tests and the benchmarks.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <numbers>
#include <string>
#include <vector>

// True when oggenc can be run.
inline bool ogg_tone_encoder_found() { return std::system("oggenc --version > /dev/null 2>&1") == 0; }

// Writes `seconds` of a sine at `hz` (left) and `right_hz` (right, stereo only; 0 = silence)
// with peak `amplitude` of full scale. True when written.
inline bool ogg_tone_write_wav(const std::string& path, double hz, double seconds, int rate, int channels,
                               double right_hz = 0, double amplitude = 0.5) {
    const uint32_t frames = (uint32_t)std::lround(seconds * rate);
    const uint32_t data_bytes = frames * (uint32_t)channels * 2;
    std::vector<uint8_t> out;
    auto u32 = [&](uint32_t v) { for (int i = 0; i < 4; i++) out.push_back((uint8_t)(v >> (8 * i))); };
    auto u16 = [&](uint32_t v) { for (int i = 0; i < 2; i++) out.push_back((uint8_t)(v >> (8 * i))); };
    auto text = [&](const char* s) { out.insert(out.end(), s, s + 4); };
    text("RIFF"); u32(36 + data_bytes); text("WAVE");
    text("fmt "); u32(16); u16(1); u16((uint32_t)channels); u32((uint32_t)rate);
    u32((uint32_t)rate * (uint32_t)channels * 2); u16((uint32_t)channels * 2); u16(16);
    text("data"); u32(data_bytes);
    for (uint32_t i = 0; i < frames; i++) {
        for (int c = 0; c < channels; c++) {
            double f = c == 0 ? hz : right_hz;
            double v = f > 0 ? amplitude * std::sin(2 * std::numbers::pi * f * i / rate) : 0.0;
            u16((uint32_t)(uint16_t)(int16_t)std::lround(v * 32767));
        }
    }
    FILE* f = fopen(path.c_str(), "wb");
    if (!f) return false;
    bool ok = fwrite(out.data(), 1, out.size(), f) == out.size();
    return fclose(f) == 0 && ok;
}

// Encodes the tone into `dir`/`name`.ogg; returns its path, "" on failure.
inline std::string ogg_tone_make(const std::string& dir, const std::string& name, double hz, double seconds,
                                 int rate = 44100, int channels = 1, double right_hz = 0) {
    std::string wav = dir + "/" + name + ".wav";
    std::string ogg = dir + "/" + name + ".ogg";
    if (!ogg_tone_write_wav(wav, hz, seconds, rate, channels, right_hz)) return "";
    std::string command = "oggenc -Q -q 6 -o '" + ogg + "' '" + wav + "'";
    if (std::system(command.c_str()) != 0) return "";
    std::remove(wav.c_str());
    return ogg;
}

// The mean period in frames of values[from, to) from its upward zero crossings; 0 when fewer
// than two crossings.
template <class T>
double ogg_tone_period(const T& values, size_t from, size_t to, size_t stride = 1) {
    double first = -1, last = -1;
    int crossings = 0;
    for (size_t i = from + stride; i < to; i += stride) {
        if (values[i - stride] < 0 && values[i] >= 0) {
            // where the line between the two values meets zero
            double at = (double)(i - stride) / stride + (double)-values[i - stride] / (values[i] - values[i - stride]);
            if (first < 0) first = at;
            last = at;
            crossings++;
        }
    }
    return crossings < 2 ? 0.0 : (last - first) / (crossings - 1);
}

// Sample files built byte by byte (sample_writers.h).
#include "sample_writers.h"

std::string sw_le(uint32_t v, int n) {
    std::string s;
    for (int i = 0; i < n; i++) s += (char)(v >> (8 * i));
    return s;
}

std::string sw_aifc(const char* compression, int bits, const std::string& values) {
    std::string rate80 = std::string("\x40\x0d\xac\x44", 4) + std::string(6, 0);  // 22050, big-endian
    std::string comm = sw_le(1, 2) + sw_le(0, 4) + sw_le(bits, 2) + std::string(rate80.rbegin(), rate80.rend()) +
                       compression + "\x01x";
    std::string body = "AIFCCOMM" + sw_le((uint32_t)comm.size(), 4) + comm + "SSND" +
                       sw_le((uint32_t)values.size() + 8, 4) + std::string(8, 0) + values;
    return "FORM" + sw_le((uint32_t)body.size(), 4) + body;
}

std::string sw_xi(bool pp, const std::vector<sw_xi_sample>& samples) {
    std::string s = "Extended Instrument: Test instrument XI" + std::string(4, 0) + "\x1a" + "FastTracker v2.00   " +
                    (pp ? "PP" : std::string("\x02\x01"));
    std::string ins(208, 0);
    for (int n = 0; n < 96; n++) ins[n] = (char)(n % 2);
    const int vol[6] = {0, 64, 10, 32, 20, 0};  // (x, y) points
    for (int i = 0; i < 6; i++) ins.replace(96 + 2 * i, 2, sw_le(vol[i], 2));
    ins[192] = 3;  // volume points
    ins[194] = 1;  // volume sustain
    ins[200] = 3;  // volume envelope on, sustain
    ins[205] = 4;  // vibrato rate
    ins.replace(206, 2, sw_le(0x1234, 2));
    s += ins + (pp ? std::string("\x32\xec\x3c\xfd\x00", 5) + std::string(17, 0) : std::string(22, 0));
    s += sw_le((uint32_t)samples.size(), 2);
    std::string data;
    for (const sw_xi_sample& x : samples) {
        int width = (x.type & 0x10) ? 2 : 1;
        s += sw_le((uint32_t)(x.values.size() * width), 4) + sw_le(x.loop_start_bytes, 4) + sw_le(x.loop_length_bytes, 4);
        s += std::string{40, -16, (char)x.type, (char)200, 12, 0} + "sample" + std::string(16, 0);
        for (size_t i = 0; i < x.values.size(); i++) {
            data += sw_le((uint32_t)(x.values[i] - (i ? x.values[i - 1] : 0)), width);
        }
    }
    return s + data;
}

const std::vector<sw_xi_sample> kSwXiSamples = {
    {0x01, 2, 6, {0, 5, -3, 100, -128, 127, -1, 64, -64, 1}},
    {0x10 | 0x40 | 0x02, 8, 16, {0, -32768, 32767, 1, -2, 300, -300, 1000, -1000, 5, 6, 7, 20000, -20000, 0, -1}}};

// The CPU's instruction sets, asked once while the program starts, before any render.
#include "psynth/psynth_cpu.h"

namespace {

const bool kHasAvx2 = (__builtin_cpu_init(), __builtin_cpu_supports("avx2") != 0);
bool g_use_avx2 = kHasAvx2;

}  // namespace

bool psynth_cpu_has_avx2() { return g_use_avx2; }

void psynth_cpu_baseline_only(bool on) { g_use_avx2 = kHasAvx2 && !on; }

// Speed of the synthesis stages per granule and channel (18 slots x 32 subbands) on random data:
// the polyphase synthesis (matrixing + windowing + PCM), its two halves alone, and the hybrid
// filter bank for long and short blocks. Prints nanoseconds per granule-channel, best of several
// runs, and what that leaves per second of 44.1 kHz stereo.

#include "player/mp3/decoder/HybridFilter.h"
#include "player/mp3/decoder/SynthTables.h"
#include "player/mp3/decoder/Synthesis.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

namespace {

volatile uint32_t g_sink;

template <typename F>
double BestNsPerCall(int calls, F&& body) {
    double best = 1e30;
    for (int run = 0; run < 300; ++run) {
        const auto t0 = std::chrono::steady_clock::now();
        for (int i = 0; i < calls; ++i) body(i);
        const auto t1 = std::chrono::steady_clock::now();
        best = std::min(best, std::chrono::duration<double, std::nano>(t1 - t0).count() / calls);
    }
    return best;
}

void Report(const char* what, double ns) {
    // 44.1 kHz stereo MPEG-1: 44100 / 576 granules per second, two channels each.
    const double perSecond = 44100.0 / 576.0 * 2.0;
    std::printf("%-44s %9.1f ns/granule-channel  %6.3f ms per second of 44.1 kHz stereo\n", what,
                ns, ns * perSecond * 1e-6);
}

}  // namespace

int main() {
    InitDctCoefficients();
    InitImdctTables();
    InitBlockWindows();

    std::mt19937 rng(1);
    std::uniform_real_distribution<float> uni(-1.0f, 1.0f);

    // A few dozen granules of subband samples at a level that keeps the PCM mostly unclipped.
    const int kGranules = 32;
    std::vector<float> slotData(kGranules * 18 * 32);
    for (float& v : slotData) v = 800.0f * uni(rng);
    auto slotsOf = [&](int i) {
        return reinterpret_cast<const float(*)[32]>(&slotData[(i % kGranules) * 18 * 32]);
    };

    float rings[2][512] = {};
    uint32_t offsets[2] = {0, 0};
    std::vector<uint8_t> pcm(4608);

    const int kCalls = 200;
    // The synthesis with the windowing of this build (QUORBEL_SYNTH: auto, sse2 or scalar); a
    // build per choice compares them.
    Report("SynthesizeSlots, single layout", BestNsPerCall(kCalls, [&](int i) {
               SynthesizeSlots(slotsOf(i), rings[0], &offsets[0], pcm.data(), 1);
           }));
    Report("SynthesizeSlots, interleaved (per channel)", BestNsPerCall(kCalls, [&](int i) {
               const int ch = i & 1;
               SynthesizeSlots(slotsOf(i), rings[ch], &offsets[ch], pcm.data() + 2 * ch, 2);
           }));
    Report("  SynthMatrix x 18", BestNsPerCall(kCalls, [&](int i) {
               const float(*slots)[32] = slotsOf(i);
               for (int s = 0; s < 18; ++s) SynthMatrix(slots[s], rings[0], (s * 32) & 511);
           }));
    Report("  SynthWindowToPcm x 18", BestNsPerCall(kCalls, [&](int i) {
               for (int s = 0; s < 18; ++s)
                   SynthWindowToPcm(rings[0], ((i + s) * 32) & 511, pcm.data() + 64 * s, 1);
           }));

    // Hybrid: fresh spectra each granule (the transform works in place), the two granule
    // buffers taking turns as in the decoder. The copy is timed alone and taken off.
    std::vector<float> spectra(kGranules * 576);
    for (int g = 0; g < kGranules; ++g) {
        for (int i = 0; i < 558; ++i) spectra[g * 576 + i] = 3000.0f * uni(rng);
    }
    float buffers[2][576] = {};
    float out[18][32] = {};
    const double copyNs = BestNsPerCall(kCalls, [&](int i) {
        std::memcpy(buffers[i & 1], &spectra[(i % kGranules) * 576], sizeof buffers[0]);
        g_sink = g_sink + static_cast<uint32_t>(buffers[i & 1][i % 576]);
    });
    struct Case {
        const char* name;
        int32_t type;
        int32_t longLines;
    };
    const Case cases[] = {{"HybridTransform + inversion, long (558)", 0, 558},
                          {"HybridTransform + inversion, short (558)", 2, 0},
                          {"HybridTransform + inversion, mixed (558)", 2, 36}};
    for (const Case& c : cases) {
        const double ns = BestNsPerCall(kCalls, [&](int i) {
            float* x = buffers[i & 1];
            std::memcpy(x, &spectra[(i % kGranules) * 576], sizeof buffers[0]);
            const int32_t n =
                HybridTransform(x, buffers[(i & 1) ^ 1], out, c.type, c.longLines, 558, 558, 558);
            InvertOddSubbands(out, n);
            g_sink = g_sink + static_cast<uint32_t>(out[i % 18][i % 31]);
        });
        Report(c.name, ns - copyNs);
    }

    uint32_t check = 0;
    for (uint8_t b : pcm) check = check * 31 + b;
    std::printf("(checksum %08x)\n", check ^ g_sink);
    return 0;
}

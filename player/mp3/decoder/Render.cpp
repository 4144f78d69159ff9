// Granule renderers: the hybrid filter bank and the polyphase synthesis for the channels a
// stream produces, one channel into a single PCM layout or two interleaved.

#include <cstring>

#include "player/mp3/decoder/HybridFilter.h"
#include "player/mp3/decoder/MP3Decoder.h"
#include "player/mp3/decoder/Synthesis.h"

namespace {

// Hybrid transform of one channel of granule gr into HybridOut, then the line-count update and
// the frequency inversion. The other granule slot holds the previous granule's overlap.
void TransformChannel(CMP3Decoder& d, uint32_t gr, int32_t ch) {
    const GranuleSideInfo& g = d.GranuleInfo[gr][ch];
    int32_t total = d.LineCount[gr][ch];
    int32_t longLines = total;
    if (g.block_type == 2) longLines = g.mixed_block_flag ? d.BandEnd[0][d.MixedLongBands - 1] : 0;
    if (total > d.LineLimit) total = d.LineLimit;
    if (longLines > d.LineLimit) longLines = d.LineLimit;
    const uint32_t other = gr ^ 1;
    const int32_t count = HybridTransform(d.Spectrum[ch][gr], d.Spectrum[ch][other], d.HybridOut,
                                          static_cast<int32_t>(g.block_type), longLines, total,
                                          d.LineCount[other][ch], d.LineLimit);
    d.LineCount[gr][ch] = count;
    InvertOddSubbands(d.HybridOut, count);
}

}  // namespace

void CMP3Decoder::RenderGranuleMono(uint8_t* pcm, uint32_t gr) {
    TransformChannel(*this, gr, 0);
    SynthesizeGranule(HybridOut, pcm, 0);
}

void CMP3Decoder::RenderGranuleStereo(uint8_t* pcm, uint32_t gr) {
    for (int32_t ch = 0; ch < 2; ++ch) {
        TransformChannel(*this, gr, ch);
        SynthesizeGranule(HybridOut, pcm, ch);
    }
}

void CMP3Decoder::SynthesizeGranule(const float slots[18][32], uint8_t* pcm, int32_t channel) {
    if (ChannelCount == 1) {
        SynthesizeSlots(slots, SynthRing[0], &SynthOffset[0], pcm, 1);
        return;
    }
    // Interleaved: channel 1's samples sit one 16-bit sample after channel 0's.
    const int32_t ch = channel & 1;
    SynthesizeSlots(slots, SynthRing[ch], &SynthOffset[ch], pcm + 2 * ch, 2);
}

void CMP3Decoder::ResetSynthesis() {
    std::memset(SynthRing, 0, sizeof SynthRing);
    SynthOffset[0] = 0;
    SynthOffset[1] = 0;
}

// Side information readers, MPEG-1 (both granules) and MPEG-2/2.5 (one granule). Nothing is
// range-checked here; the later stages cope with whatever values stand in the stream.

#include "player/mp3/decoder/BitReader.h"

namespace {

// One granule of one channel. Region counts that are not coded place region 1 at line 36 for
// short blocks and make region 2 empty for every window-switching granule.
void ReadGranule(CMP3Decoder& d, GranuleSideInfo& g, bool mpeg1) {
    g.part2_3_length = d.GetBits(12);
    g.big_values = d.GetBits(9);
    // Mid/side frames take 2 off the gain: 2^(-1/2), the mid/side normalisation.
    g.global_gain = static_cast<int32_t>(d.GetBits(8)) - (d.MsStereo ? 2 : 0);
    g.scalefac_compress = d.GetBits(mpeg1 ? 4 : 9);
    g.window_switching_flag = d.GetBits(1);
    if (g.window_switching_flag) {
        g.block_type = d.GetBits(2);
        g.mixed_block_flag = d.GetBits(1);
        g.table_select[0] = d.GetBits(5);
        g.table_select[1] = d.GetBits(5);
        for (int w = 0; w < 3; ++w) g.subblock_gain[w] = d.GetBits(3);
        if (!mpeg1 && g.block_type == 2) {
            g.region0_count = 5;
            g.region1_count = 15;
        } else {
            g.region0_count = 7;
            g.region1_count = 13;
        }
    } else {
        g.block_type = 0;
        g.mixed_block_flag = 0;
        for (int r = 0; r < 3; ++r) g.table_select[r] = d.GetBits(5);
        g.region0_count = d.GetBits(4);
        g.region1_count = d.GetBits(3);
    }
    g.preflag = mpeg1 ? d.GetBits(1) : 0;
    g.scalefac_scale = d.GetBits(1);
    g.count1table_select = d.GetBits(1);
}

}  // namespace

int32_t CMP3Decoder::ReadSideInfoMpeg1() {
    const bool mono = ChannelCount == 1;
    MainDataBegin = GetBits(9);
    PrivateBits = GetBits(mono ? 5 : 3);
    for (int ch = 0; ch < ChannelCount; ++ch) Scfsi[ch] = GetBits(4);
    for (int gr = 0; gr < 2; ++gr)
        for (int ch = 0; ch < ChannelCount; ++ch) ReadGranule(*this, GranuleInfo[gr][ch], true);
    return mono ? 17 : 32;
}

int32_t CMP3Decoder::ReadSideInfoMpeg2(uint32_t gr) {
    const bool mono = ChannelCount == 1;
    MainDataBegin = GetBits(8);
    PrivateBits = GetBits(mono ? 1 : 2);
    Scfsi[0] = 0;
    Scfsi[1] = 0;
    for (int ch = 0; ch < ChannelCount; ++ch) ReadGranule(*this, GranuleInfo[gr & 1][ch], false);
    return mono ? 9 : 17;
}

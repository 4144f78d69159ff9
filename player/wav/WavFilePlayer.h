#pragma once
// The player of RIFF/WAVE PCM files: the data chunks go from the mapped file to the output
// unchanged.

#include "player/pub/SoundFilePlayer.h"

class CWavFilePlayer : public CSoundFilePlayer {
public:
    int PlayFile(PlayRequest* pRequest) override;
};

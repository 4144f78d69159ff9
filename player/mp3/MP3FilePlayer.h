#pragma once
// The player of MPEG audio Layer III files: each play decodes its file ten frames at a time and
// queues the PCM on a wave output in the stream's own format.

#include "player/pub/SoundFilePlayer.h"

class CMP3FilePlayer : public CSoundFilePlayer {
public:
    // Builds the decoder's tables, once per process, before the first play can read them.
    CMP3FilePlayer();

    int PlayFile(PlayRequest* pRequest) override;
};

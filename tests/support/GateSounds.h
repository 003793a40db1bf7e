#pragma once

#include <QtGlobal>

#include <vector>

// Sounds a held dictation key records besides speech, made at 16 kHz mono: the room, steady noise
// from the mains and a fan, and the short sounds of a desk. Each comes from a fixed seed, so the
// gate's labelled table is the same on every run.
namespace GateSounds {

using Samples = std::vector<double>; // full scale is ±1

Samples silence(double seconds); // a quiet room through a microphone: dither at -90 dBFS
Samples hum(double seconds); // mains hum, 50 Hz and its harmonics
Samples buzz(double seconds); // a transformer's 100 Hz buzz: as periodic as a vowel, but steady
Samples fan(double seconds); // broadband rush with a blade tone that wavers slowly
Samples cough(); // one cough in a quiet room
Samples door(); // a latch and a door shutting
Samples typing(double seconds); // keystrokes at a typist's pace
Samples keyClick(); // the dictation key going down and, a moment later, up

// `samples` made `decibels` louder (negative: quieter).
Samples louder(Samples samples, double decibels);
// `noise`, repeated or cut to the speech's length, mixed under `speech` `snr` decibels below the
// speech's active level (the mean power of its frames within 25 dB of its loudest).
Samples withNoise(const Samples& speech, const Samples& noise, double snr);

Samples fromPcm(const std::vector<qint16>& pcm);
std::vector<qint16> toPcm(const Samples& samples);

}

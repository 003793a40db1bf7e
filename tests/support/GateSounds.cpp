#include "GateSounds.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>
#include <random>

namespace GateSounds {

namespace {

constexpr double kRate = 16000;
constexpr double kTwoPi = 2 * std::numbers::pi;

size_t length(double seconds)
{
    return size_t(seconds * kRate);
}

double fromDb(double decibels)
{
    return std::pow(10.0, decibels / 20);
}

// A two-pole resonator: white noise through it is a band of noise around `frequency`.
class Resonator {
public:
    Resonator(double frequency, double bandwidth)
        : m_r(std::exp(-std::numbers::pi * bandwidth / kRate))
        , m_c(2 * m_r * std::cos(kTwoPi * frequency / kRate))
    {
    }
    double operator()(double input)
    {
        const double output = (1 - m_r) * input + m_c * m_y1 - m_r * m_r * m_y2;
        m_y2 = m_y1;
        m_y1 = output;
        return output;
    }

private:
    double m_r, m_c, m_y1 = 0, m_y2 = 0;
};

Samples room(double seconds, unsigned seed)
{
    std::mt19937 random(seed);
    std::normal_distribution<double> white(0, fromDb(-72));
    Samples samples(length(seconds));
    for (double& sample : samples)
        sample = white(random);
    return samples;
}

// Adds a burst of noise coloured by `bands`, rising over `attack` seconds and dying away with time
// constant `decay`, at `at` seconds and `peak` dBFS.
void addBurst(Samples& samples, double at, double peak, double attack, double decay, std::vector<Resonator> bands, unsigned seed)
{
    std::mt19937 random(seed);
    std::normal_distribution<double> white(0, 1);
    const size_t start = length(at), end = std::min(samples.size(), start + length(attack + 6 * decay));
    for (size_t i = start; i < end; ++i) {
        const double t = double(i - start) / kRate;
        const double envelope = t < attack ? t / attack : std::exp(-(t - attack) / decay);
        const double excitation = white(random);
        double coloured = 0;
        for (Resonator& band : bands)
            coloured += band(excitation);
        samples[i] += fromDb(peak) * 4 * envelope * coloured;
    }
}

// `samples` with a steady tone of `fundamental` Hz, its harmonic h at amplitudes[h - 1].
Samples withHarmonics(Samples samples, double fundamental, const std::vector<double>& amplitudes)
{
    for (size_t i = 0; i < samples.size(); ++i) {
        for (size_t h = 0; h < amplitudes.size(); ++h)
            samples[i] += amplitudes[h] * std::sin(kTwoPi * fundamental * double(h + 1) * double(i) / kRate);
    }
    return samples;
}

void addClick(Samples& samples, double at, double peak, unsigned seed)
{
    addBurst(samples, at, peak, 0.0005, 0.004, {Resonator(2500, 800), Resonator(5000, 1500)}, seed);
}

}

Samples silence(double seconds)
{
    std::mt19937 random(1);
    std::uniform_real_distribution<double> dither(-fromDb(-90), fromDb(-90));
    Samples samples(length(seconds));
    for (double& sample : samples)
        sample = dither(random);
    return samples;
}

Samples hum(double seconds)
{
    return withHarmonics(room(seconds, 2), 50, {fromDb(-30), 0.5 * fromDb(-30), 0.3 * fromDb(-30)});
}

Samples buzz(double seconds)
{
    std::vector<double> amplitudes;
    for (int harmonic = 1; harmonic <= 12; ++harmonic)
        amplitudes.push_back(fromDb(-36) / harmonic);
    return withHarmonics(room(seconds, 15), 100, amplitudes);
}

Samples fan(double seconds)
{
    std::mt19937 random(3);
    std::normal_distribution<double> white(0, 1);
    Samples samples(length(seconds));
    // Paul Kellet's pink-noise filter, then a blade tone at 120 Hz whose loudness wavers by ±1 dB.
    double b0 = 0, b1 = 0, b2 = 0;
    for (size_t i = 0; i < samples.size(); ++i) {
        const double w = white(random), t = double(i) / kRate;
        b0 = 0.99765 * b0 + w * 0.0990460;
        b1 = 0.96300 * b1 + w * 0.2965164;
        b2 = 0.57000 * b2 + w * 1.0526913;
        const double blade = std::sin(kTwoPi * 120 * t) + 0.4 * std::sin(kTwoPi * 240 * t);
        samples[i] = fromDb(-40) * (b0 + b1 + b2 + w * 0.1848) + fromDb(-38) * fromDb(std::sin(kTwoPi * 0.7 * t)) * blade;
    }
    return samples;
}

Samples cough()
{
    Samples samples = room(2, 4);
    // A burst of breath through the throat's resonances, then a weaker second one.
    addBurst(samples, 0.6, -14, 0.02, 0.07, {Resonator(600, 300), Resonator(1700, 500), Resonator(2800, 700)}, 5);
    addBurst(samples, 0.82, -22, 0.01, 0.05, {Resonator(700, 300), Resonator(1900, 500)}, 6);
    return samples;
}

Samples door()
{
    Samples samples = room(2, 7);
    addClick(samples, 0.5, -20, 8);
    // The thud: the panel's low ring, short, under a broadband bang.
    const size_t thud = length(0.7);
    for (size_t i = thud; i < std::min(samples.size(), thud + length(0.4)); ++i) {
        const double t = double(i - thud) / kRate;
        samples[i] += fromDb(-10) * std::exp(-t / 0.03) * std::sin(kTwoPi * 75 * t);
    }
    addBurst(samples, 0.7, -12, 0.002, 0.04, {Resonator(300, 400), Resonator(1200, 900)}, 9);
    return samples;
}

Samples typing(double seconds)
{
    Samples samples = room(seconds, 10);
    std::mt19937 random(11);
    std::uniform_real_distribution<double> gap(0.08, 0.3), loudness(-24, -12);
    for (double at = 0.2; at < seconds - 0.1; at += gap(random))
        addClick(samples, at, loudness(random), unsigned(at * 1000));
    return samples;
}

Samples keyClick()
{
    Samples samples = room(1.5, 12);
    addClick(samples, 0.05, -14, 13);
    addClick(samples, 1.35, -18, 14);
    return samples;
}

Samples louder(Samples samples, double decibels)
{
    for (double& sample : samples)
        sample *= fromDb(decibels);
    return samples;
}

Samples withNoise(const Samples& speech, const Samples& noise, double snr)
{
    const auto power = [](auto begin, auto end) { return std::inner_product(begin, end, begin, 0.0) / double(end - begin); };
    std::vector<double> frames; // of 20 ms
    for (auto at = speech.begin(); speech.end() - at >= 320; at += 320)
        frames.push_back(power(at, at + 320));
    const double loudest = *std::max_element(frames.begin(), frames.end());
    std::erase_if(frames, [&](double frame) { return frame < loudest * std::pow(10.0, -25.0 / 10); });
    const double active = std::accumulate(frames.begin(), frames.end(), 0.0) / double(frames.size());
    const double gain = std::sqrt(active / power(noise.begin(), noise.end())) * fromDb(-snr);
    Samples mixed = speech;
    for (size_t i = 0; i < mixed.size(); ++i)
        mixed[i] += gain * noise[i % noise.size()];
    return mixed;
}

Samples fromPcm(const std::vector<qint16>& pcm)
{
    Samples samples(pcm.size());
    std::transform(pcm.begin(), pcm.end(), samples.begin(), [](qint16 sample) { return sample / 32768.0; });
    return samples;
}

std::vector<qint16> toPcm(const Samples& samples)
{
    std::vector<qint16> pcm(samples.size());
    std::transform(samples.begin(), samples.end(), pcm.begin(),
        [](double sample) { return qint16(std::lround(std::clamp(sample * 32768.0, -32768.0, 32767.0))); });
    return pcm;
}

}

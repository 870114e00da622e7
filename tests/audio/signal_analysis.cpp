#include "signal_analysis.h"

#include <cmath>

namespace audiotest {

namespace {
const double kPi = 3.14159265358979323846;
}

std::vector<double> Channel(const std::vector<int16_t>& interleaved, int channels, int channel) {
    std::vector<double> x;
    x.reserve(interleaved.size() / static_cast<size_t>(channels));
    for (size_t i = static_cast<size_t>(channel); i < interleaved.size(); i += static_cast<size_t>(channels)) {
        x.push_back(interleaved[i]);
    }
    return x;
}

double Rms(const std::vector<double>& x, size_t begin, size_t end) {
    double sum = 0;
    for (size_t i = begin; i < end; ++i) sum += x[i] * x[i];
    return end > begin ? std::sqrt(sum / static_cast<double>(end - begin)) : 0.0;
}

double PowerAt(const std::vector<double>& x, size_t begin, size_t end, double frequency, double rate) {
    const double coeff = 2.0 * std::cos(2.0 * kPi * frequency / rate);
    double s1 = 0, s2 = 0;
    for (size_t i = begin; i < end; ++i) {
        const double s0 = x[i] + coeff * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    return s1 * s1 + s2 * s2 - coeff * s1 * s2;
}

double DominantFrequency(const std::vector<double>& x, size_t begin, size_t end, double rate, double from, double to,
                         double step) {
    double best = from, bestPower = -1;
    for (double f = from; f <= to; f += step) {
        const double p = PowerAt(x, begin, end, f, rate);
        if (p > bestPower) {
            bestPower = p;
            best = f;
        }
    }
    return best;
}

size_t SineBreaks(const std::vector<double>& x, size_t begin, size_t end, double frequency, double rate,
                  double amplitude, double tolerance) {
    const double c = 2.0 * std::cos(2.0 * kPi * frequency / rate);
    size_t breaks = 0;
    bool inBreak = false;
    for (size_t n = begin + 1; n + 1 < end; ++n) {
        const bool off = std::fabs(x[n + 1] - c * x[n] + x[n - 1]) > tolerance * amplitude;
        if (off && !inBreak) ++breaks;
        inBreak = off;
    }
    return breaks;
}

}  // namespace audiotest

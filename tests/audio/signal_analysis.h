// Measurements of a captured test tone: level, the strongest frequency and
// breaks in a sine's continuity.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

namespace audiotest {

// One channel of interleaved 16-bit samples.
std::vector<double> Channel(const std::vector<int16_t>& interleaved, int channels, int channel);

double Rms(const std::vector<double>& x, size_t begin, size_t end);

// Power of x[begin, end) at `frequency` (Goertzel).
double PowerAt(const std::vector<double>& x, size_t begin, size_t end, double frequency, double rate);

// The frequency among `from`, `from + step`, ... up to `to` with the most power.
double DominantFrequency(const std::vector<double>& x, size_t begin, size_t end, double rate, double from, double to,
                         double step);

// Places in [begin, end) where a steady sine of `frequency` breaks: the
// three-term recurrence x[n+1] - 2cos(w)x[n] + x[n-1] = 0 misses by more than
// `tolerance` x amplitude. Lost or repeated samples show up here.
size_t SineBreaks(const std::vector<double>& x, size_t begin, size_t end, double frequency, double rate,
                  double amplitude, double tolerance);

}  // namespace audiotest

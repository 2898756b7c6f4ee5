#include "AudioFraming.h"

#include <QtEndian>

#include <algorithm>
#include <cmath>

namespace AudioFraming {

qint16 toPcm16(float sample)
{
    const float scaled = sample * 32767.0f;
    if (std::isnan(scaled))
        return 0;
    return static_cast<qint16>(std::clamp(scaled, -32768.0f, 32767.0f));
}

QByteArray pcm16(const std::vector<float>& samples)
{
    QByteArray bytes(qsizetype(samples.size() * 2), Qt::Uninitialized);
    auto* out = reinterpret_cast<uchar*>(bytes.data());
    for (const float sample : samples) {
        qToLittleEndian(toPcm16(sample), out);
        out += 2;
    }
    return bytes;
}

QByteArray pcm16At24k(const std::vector<float>& samples)
{
    const auto n = samples.size();
    const auto m = static_cast<std::size_t>(double(n) * 1.5);
    QByteArray bytes(qsizetype(m * 2), Qt::Uninitialized);
    auto* out = reinterpret_cast<uchar*>(bytes.data());
    for (std::size_t i = 0; i < m; ++i) {
        const double position = double(i) / 1.5;
        const auto j = static_cast<std::size_t>(position);
        const auto fraction = float(position - double(j));
        const float a = samples[std::min(j, n - 1)];
        const float b = samples[std::min(j + 1, n - 1)];
        qToLittleEndian(toPcm16(a + (b - a) * fraction), out);
        out += 2;
    }
    return bytes;
}

} // namespace AudioFraming

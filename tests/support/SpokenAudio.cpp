#include "SpokenAudio.h"

#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <cmath>
#include <random>

using namespace Qt::StringLiterals;

QString SpokenAudio::missingTool()
{
    for (const auto& tool : {u"espeak-ng"_s, u"sox"_s})
        if (QStandardPaths::findExecutable(tool).isEmpty())
            return tool;
    return {};
}

namespace {
bool run(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    return process.waitForFinished(30'000) && process.exitStatus() == QProcess::NormalExit
           && process.exitCode() == 0;
}
} // namespace

std::optional<QByteArray> SpokenAudio::speak(const QString& text, const Voice& voice,
                                             double trailingSilence)
{
    QTemporaryDir folder;
    if (!folder.isValid() || !missingTool().isEmpty())
        return std::nullopt;
    const auto wav = folder.filePath(u"speech.wav"_s);
    const auto raw = folder.filePath(u"speech.raw"_s);
    // No dither (-D): the recogniser hears dither as faint noise.
    if (!run(u"espeak-ng"_s, {u"-v"_s, voice.name, u"-s"_s, QString::number(voice.wordsPerMinute),
                              u"-w"_s, wav, text})
        || !run(u"sox"_s, {wav, u"-D"_s, u"-r"_s, u"16000"_s, u"-c"_s, u"1"_s, u"-b"_s, u"16"_s,
                           u"-e"_s, u"signed-integer"_s, u"-t"_s, u"raw"_s, raw, u"pad"_s, u"0.5"_s,
                           QString::number(trailingSilence)}))
        return std::nullopt;
    QFile file(raw);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    return file.readAll();
}

QByteArray SpokenAudio::withNoise(const QByteArray& pcm, double snrDb, unsigned seed)
{
    const auto count = pcm.size() / 2;
    const auto* samples = reinterpret_cast<const qint16*>(pcm.constData());
    // Signal power over the samples that carry speech, so that the leading and trailing
    // silence does not lower the ratio.
    double power = 0;
    qsizetype voiced = 0;
    for (qsizetype i = 0; i < count; ++i) {
        if (std::abs(samples[i]) > 300) {
            power += double(samples[i]) * samples[i];
            ++voiced;
        }
    }
    const double noiseRms =
        voiced ? std::sqrt(power / double(voiced) / std::pow(10.0, snrDb / 10.0)) : 0;
    std::mt19937 random(seed);
    std::normal_distribution<double> noise(0, noiseRms);
    QByteArray out(pcm.size() & ~qsizetype(1), Qt::Uninitialized);
    auto* noisy = reinterpret_cast<qint16*>(out.data());
    for (qsizetype i = 0; i < count; ++i)
        noisy[i] = qint16(std::clamp(std::lround(samples[i] + noise(random)), -32768L, 32767L));
    return out;
}

int SpokenAudio::wordsHeard(const QString& expected, const QString& heard)
{
    auto remaining = heard.toLower().split(u' ', Qt::SkipEmptyParts);
    int count = 0;
    for (const auto& word : expected.toLower().split(u' ', Qt::SkipEmptyParts))
        count += remaining.removeOne(word) ? 1 : 0;
    return count;
}

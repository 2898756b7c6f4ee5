#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// Speech made at test time by espeak-ng and resampled by sox, as 16 kHz 16-bit mono PCM with
// half a second of silence before and `trailingSilence` seconds after.
namespace SpokenAudio {

// Empty when a tool is missing; tests skip then.
QString missingTool();

struct Voice {
    QString name = QStringLiteral("en");
    int wordsPerMinute = 150;
};
std::optional<QByteArray> speak(const QString& text, const Voice& voice = {},
                                double trailingSilence = 1.0);

// How many of the expected words were heard, in any order, each counted once; case is ignored.
int wordsHeard(const QString& expected, const QString& heard);

// The same speech with white noise added at the given signal-to-noise ratio, in decibels.
QByteArray withNoise(const QByteArray& pcm, double snrDb, unsigned seed = 7);

} // namespace SpokenAudio

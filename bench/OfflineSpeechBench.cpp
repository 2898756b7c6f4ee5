// Word error rate of the built-in recogniser on interview questions spoken by espeak-ng, clean
// and at 10 dB signal-to-noise, with and without the interview language model; and the CPU
// share of one recogniser fed in real time. Prints its figures; it asserts nothing.
#include "OfflineRecognizer.h"
#include "SpokenAudio.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QThread>

#include <cstdio>
#include <ctime>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

// Not in the interview model's own sentences, so the model has to generalise.
const QStringList questions{
    u"Tell me about the hardest bug you have fixed"_s,
    u"What did you enjoy most in your last role"_s,
    u"How do you handle feedback from your manager"_s,
    u"Describe a time you worked with a difficult colleague"_s,
    u"Why are you looking for a new position"_s,
    u"What is your biggest strength as an engineer"_s,
    u"How would you explain your project to a customer"_s,
    u"Tell me about a decision you made without enough information"_s,
    u"What would you do in your first month here"_s,
    u"How do you keep your skills up to date"_s,
    u"Give me an example of a goal you did not reach"_s,
    u"What kind of team do you like to work in"_s,
    u"How do you decide what to work on first"_s,
    u"Tell me about a time you had to learn something quickly"_s,
    u"What are you looking for in this company"_s,
    u"How do you make sure your work is tested"_s,
    u"Describe a project that did not go as planned"_s,
    u"What questions do you have about the role"_s,
    u"How would your last team describe you"_s,
    u"Where do you want to be in three years"_s,
};

QStringList words(const QString& text)
{
    static const QRegularExpression nonWord(u"[^a-z' ]"_s);
    return text.toLower().replace(nonWord, u" "_s).split(u' ', Qt::SkipEmptyParts);
}

int editDistance(const QStringList& reference, const QStringList& hypothesis)
{
    std::vector<int> row(std::size_t(hypothesis.size() + 1));
    for (std::size_t j = 0; j < row.size(); ++j)
        row[j] = int(j);
    for (qsizetype i = 1; i <= reference.size(); ++i) {
        int diagonal = row[0];
        row[0] = int(i);
        for (qsizetype j = 1; j <= hypothesis.size(); ++j) {
            const int above = row[std::size_t(j)];
            row[std::size_t(j)] = std::min({above + 1, row[std::size_t(j - 1)] + 1,
                                            diagonal + (reference[i - 1] == hypothesis[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row.back();
}

QString recognise(OfflineRecognizer& recognizer, const QByteArray& pcm)
{
    QStringList heard;
    auto events = recognizer.feed(pcm);
    const auto rest = recognizer.finish();
    events.insert(events.end(), rest.begin(), rest.end());
    for (const auto& event : events) {
        if (event.kind == RecognitionEvent::Kind::final)
            heard << event.text;
    }
    return heard.join(u' ');
}

double threadCpuSeconds()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return double(time.tv_sec) + double(time.tv_nsec) / 1e9;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (const auto tool = SpokenAudio::missingTool(); !tool.isEmpty() || !OfflineRecognizer::isModelInstalled()) {
        std::printf("skipped: %s\n", tool.isEmpty() ? "no PocketSphinx English model" : qPrintable(tool + u" is missing"_s));
        return 0;
    }
    struct Condition {
        QString voice;
        int speed;
    };
    const std::vector<Condition> conditions{{u"en-us"_s, 150}, {u"en-us"_s, 190}, {u"en"_s, 150}, {u"en"_s, 190}};
    std::vector<std::pair<QString, QByteArray>> clean;
    for (const auto& condition : conditions) {
        for (const auto& question : questions) {
            if (const auto pcm = SpokenAudio::speak(question, {condition.voice, condition.speed}))
                clean.emplace_back(question, *pcm);
        }
    }
    std::printf("%zu utterances: 20 questions x voices en-us, en x %d and %d words a minute\n", clean.size(),
                conditions[0].speed, conditions[1].speed);

    for (const float weight : {0.0f, 0.3f}) {
        OfflineRecognizer::Options options;
        options.interviewWeight = weight;
        for (const double snr : {1000.0, 10.0}) {
            OfflineRecognizer recognizer(options);
            int errors = 0;
            int total = 0;
            std::vector<int> errorsBySpeed(2, 0), totalBySpeed(2, 0);
            for (std::size_t i = 0; i < clean.size(); ++i) {
                const auto& [question, pcm] = clean[i];
                const auto input = snr < 100 ? SpokenAudio::withNoise(pcm, snr, unsigned(i)) : pcm;
                const auto reference = words(question);
                const int e = editDistance(reference, words(recognise(recognizer, input)));
                errors += e;
                total += int(reference.size());
                const auto speed = (i / std::size_t(questions.size())) % 2;
                errorsBySpeed[speed] += e;
                totalBySpeed[speed] += int(reference.size());
            }
            std::printf("interview model %.1f, %s: WER %.1f %% (%d/%d words; %.1f %% at %d wpm, %.1f %% at %d wpm)\n",
                        double(weight), snr < 100 ? "10 dB SNR" : "clean    ", 100.0 * errors / total, errors, total,
                        100.0 * errorsBySpeed[0] / totalBySpeed[0], conditions[0].speed,
                        100.0 * errorsBySpeed[1] / totalBySpeed[1], conditions[1].speed);
            std::fflush(stdout);
        }
    }

    // Real time: 100 ms of audio every 100 ms, as a client's capture sends it.
    QByteArray stream;
    for (std::size_t i = 0; i < 8; ++i)
        stream += clean[i].second;
    OfflineRecognizer recognizer;
    const double cpuBefore = threadCpuSeconds();
    QElapsedTimer wall;
    wall.start();
    constexpr qsizetype chunk = 3200;
    for (qsizetype offset = 0; offset < stream.size(); offset += chunk) {
        recognizer.feed(QByteArrayView(stream).sliced(offset, std::min(chunk, stream.size() - offset)));
        const qint64 due = (offset + chunk) * 1000 / 32000;
        if (const auto wait = due - wall.elapsed(); wait > 0)
            QThread::msleep(quint64(wait));
    }
    const double cpu = threadCpuSeconds() - cpuBefore;
    const double seconds = double(wall.elapsed()) / 1000.0;
    std::printf("real-time feed: %.1f s of audio, %.2f s of CPU: %.1f %% of one core (goal under 50 %%)\n", seconds,
                cpu, 100.0 * cpu / seconds);
    return 0;
}

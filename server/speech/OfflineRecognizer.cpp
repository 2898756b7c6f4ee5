#include "OfflineRecognizer.h"

#include "InterviewLanguageModel.h"

#include <QFile>
#include <QTemporaryFile>

#include <err.h>
#include <pocketsphinx.h>

#include <algorithm>
#include <mutex>

using namespace Qt::StringLiterals;

namespace {

constexpr int sampleRate = 16000;
// Decoding in small steps lets a pause inside one large chunk still end its phrase.
constexpr qsizetype stepSamples = 1600;
// How often a phrase under way is asked for its current guess.
constexpr qint64 partialEverySamples = sampleRate * 3 / 10;
// A phrase that never pauses is cut here, so that a final result still comes in bounded time.
constexpr qint64 longestPhraseSamples = sampleRate * 15;
// Speech detection starts a phrase this long before it decides that speech has begun.
constexpr double preSpeechSeconds = 0.2;

// PocketSphinx logs to standard error by default, process-wide; the server has its own log.
void silenceLibraryLog()
{
    static std::once_flag once;
    std::call_once(once, [] { err_set_logfp(nullptr); });
}

QString cleanHypothesis(const char* hypothesis)
{
    if (!hypothesis)
        return {};
    // Alternative pronunciations appear as "word(2)" only in segments; fillers never reach the
    // hypothesis, but a stray one must not reach a transcript either.
    auto words = QString::fromUtf8(hypothesis).split(u' ', Qt::SkipEmptyParts);
    words.removeIf([](const QString& word) { return word.startsWith(u'[') || word.startsWith(u'<'); });
    return words.join(u' ');
}

} // namespace

struct OfflineRecognizer::Decoder {
    cmd_ln_t* config = nullptr;
    ps_decoder_t* decoder = nullptr;
    // Our references to the mixed models; the mix takes references of its own.
    std::vector<ngram_model_t*> models;
    QString error;
    QByteArray carry;          // an odd byte waiting for its partner
    qint64 samples = 0;        // audio decoded so far
    qint64 phraseStart = -1;   // sample at which speech was detected, or -1 outside a phrase
    qint64 lastPartialAt = 0;
    QString lastPartial;
    int pauseFrames = 0;

    ~Decoder()
    {
        if (decoder)
            ps_free(decoder);
        for (auto* model : models)
            ngram_model_free(model);
        if (config)
            cmd_ln_free_r(config);
    }

    void load(const Options& options);
    void decode(const int16* data, qsizetype count, std::vector<RecognitionEvent>& events);
    void endPhrase(bool atPause, std::vector<RecognitionEvent>& events);
};

void OfflineRecognizer::Decoder::load(const Options& options)
{
    silenceLibraryLog();
    const auto hmm = (options.modelDirectory + u"/en-us"_s).toUtf8();
    const auto dict = (options.modelDirectory + u"/cmudict-en-us.dict"_s).toUtf8();
    const auto generalLm = (options.modelDirectory + u"/en-us.lm.bin"_s).toUtf8();
    if (!isModelInstalled(options.modelDirectory)) {
        error = u"No English speech model in "_s + options.modelDirectory;
        return;
    }
    pauseFrames = std::max(10, options.pauseFrames);
    const auto pause = QByteArray::number(pauseFrames);
    const bool mixed = options.interviewWeight > 0;
    // Without the mix the general model is the decoder's own; with it, the mix is set below.
    config = mixed ? cmd_ln_init(nullptr, ps_args(), TRUE, "-hmm", hmm.constData(), "-dict", dict.constData(),
                                 "-vad_postspeech", pause.constData(), nullptr)
                   : cmd_ln_init(nullptr, ps_args(), TRUE, "-hmm", hmm.constData(), "-dict", dict.constData(),
                                 "-lm", generalLm.constData(), "-vad_postspeech", pause.constData(), nullptr);
    decoder = config ? ps_init(config) : nullptr;
    if (!decoder) {
        error = u"The speech decoder could not start"_s;
        return;
    }
    if (mixed) {
        QTemporaryFile arpaFile;
        const auto arpa = InterviewLanguageModel::arpa(InterviewLanguageModel::builtInSentences());
        if (arpa.isEmpty() || !arpaFile.open() || arpaFile.write(arpa) != arpa.size() || !arpaFile.flush()) {
            error = u"The interview language model could not be written"_s;
            return;
        }
        logmath_t* logmath = ps_get_logmath(decoder);
        for (const auto& path : {generalLm, arpaFile.fileName().toUtf8()}) {
            if (auto* model = ngram_model_read(config, path.constData(), NGRAM_AUTO, logmath))
                models.push_back(model);
        }
        if (models.size() != 2) {
            error = u"The language models could not be read"_s;
            return;
        }
        char general[] = "general";
        char interview[] = "interview";
        char* names[2] = {general, interview};
        const float32 weights[2] = {1.0f - options.interviewWeight, options.interviewWeight};
        ngram_model_t* mix = ngram_model_set_init(config, models.data(), names, weights, 2);
        // The search keeps its own reference to the mix.
        const bool set = mix && ps_set_lm(decoder, "mix", mix) == 0 && ps_set_search(decoder, "mix") == 0;
        if (mix)
            ngram_model_free(mix);
        if (!set) {
            error = u"The language models could not be combined"_s;
            return;
        }
    }
    if (ps_start_utt(decoder) < 0)
        error = u"The speech decoder could not start"_s;
}

void OfflineRecognizer::Decoder::decode(const int16* data, qsizetype count,
                                        std::vector<RecognitionEvent>& events)
{
    for (qsizetype offset = 0; offset < count; offset += stepSamples) {
        const auto step = std::min(stepSamples, count - offset);
        ps_process_raw(decoder, data + offset, size_t(step), FALSE, FALSE);
        samples += step;
        const bool inSpeech = ps_get_in_speech(decoder) != 0;
        if (inSpeech && phraseStart < 0) {
            phraseStart = std::max<qint64>(0, samples - step - qint64(preSpeechSeconds * sampleRate));
            lastPartialAt = samples;
            lastPartial.clear();
        } else if (!inSpeech && phraseStart >= 0) {
            endPhrase(true, events);
        } else if (inSpeech && samples - phraseStart >= longestPhraseSamples) {
            endPhrase(false, events);
        } else if (inSpeech && samples - lastPartialAt >= partialEverySamples) {
            lastPartialAt = samples;
            const auto text = cleanHypothesis(ps_get_hyp(decoder, nullptr));
            if (!text.isEmpty() && text != lastPartial) {
                lastPartial = text;
                events.push_back({RecognitionEvent::Kind::partial, text, double(phraseStart) / sampleRate,
                                  double(samples - phraseStart) / sampleRate, 0, true});
            }
        }
    }
}

void OfflineRecognizer::Decoder::endPhrase(bool atPause, std::vector<RecognitionEvent>& events)
{
    ps_end_utt(decoder);
    const auto text = cleanHypothesis(ps_get_hyp(decoder, nullptr));
    if (!text.isEmpty()) {
        // The pause that ended the phrase is not part of it.
        const auto end = atPause ? samples - qint64(pauseFrames) * sampleRate / 100 : samples;
        const auto confidence = std::clamp(logmath_exp(ps_get_logmath(decoder), ps_get_prob(decoder)), 0.0, 1.0);
        events.push_back({RecognitionEvent::Kind::final, text, double(phraseStart) / sampleRate,
                          double(std::max(end - phraseStart, qint64(0))) / sampleRate, confidence, atPause});
    }
    phraseStart = -1;
    lastPartial.clear();
    ps_start_utt(decoder);
}

bool OfflineRecognizer::isModelInstalled(const QString& modelDirectory)
{
    return QFile::exists(modelDirectory + u"/en-us/mdef"_s) && QFile::exists(modelDirectory + u"/cmudict-en-us.dict"_s)
           && QFile::exists(modelDirectory + u"/en-us.lm.bin"_s);
}

OfflineRecognizer::OfflineRecognizer() : OfflineRecognizer(Options()) {}

OfflineRecognizer::OfflineRecognizer(const Options& options) : d(std::make_unique<Decoder>())
{
    d->load(options);
}

OfflineRecognizer::~OfflineRecognizer() = default;

bool OfflineRecognizer::isValid() const
{
    return d->error.isEmpty();
}

QString OfflineRecognizer::errorString() const
{
    return d->error;
}

std::vector<RecognitionEvent> OfflineRecognizer::feed(QByteArrayView pcm)
{
    std::vector<RecognitionEvent> events;
    if (!isValid() || pcm.isEmpty())
        return events;
    QByteArray bytes = d->carry + pcm.toByteArray();
    d->carry.clear();
    if (bytes.size() % 2)
        d->carry = bytes.right(1);
    const auto count = bytes.size() / 2;
    // Little-endian on the wire; copied so that the samples are aligned whatever the input.
    std::vector<int16> samples(std::size_t(count), 0);
    for (qsizetype i = 0; i < count; ++i)
        samples[std::size_t(i)] = int16(quint8(bytes[2 * i]) | (quint16(quint8(bytes[2 * i + 1])) << 8));
    d->decode(samples.data(), count, events);
    return events;
}

std::vector<RecognitionEvent> OfflineRecognizer::finish()
{
    std::vector<RecognitionEvent> events;
    if (isValid() && d->phraseStart >= 0)
        d->endPhrase(false, events);
    return events;
}

double OfflineRecognizer::processedSeconds() const
{
    return double(d->samples) / sampleRate;
}

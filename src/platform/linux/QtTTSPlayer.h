#pragma once

#include "CancellationToken.h"
#include "Helpers.h"
#include "TTSPlayer.h"

#include <QAudioFormat>
#include <QByteArray>

#include <memory>

class QAudioDecoder;
class QAudioSink;
class QBuffer;

// Speech through Qt Multimedia: the whole clip is decoded first (WAV, MP3, whatever the
// installed decoders read), then played to the default output. The level follows the samples
// being handed to the sound server.
class QtTTSPlayer final : public TTSPlayer {
    Q_OBJECT

public:
    // A clip that takes longer than this to decode is given up.
    static constexpr std::chrono::milliseconds decodeTimeout{10'000};

    explicit QtTTSPlayer(Clock& clock, QObject* parent = nullptr);
    ~QtTTSPlayer() override;

protected:
    QCoro::Task<bool> prepare(QByteArray bytes) override;
    void startOutput() override;
    void haltOutput() override;
    std::optional<double> currentPower() override;

private:
    void appendDecoded();
    void releaseDecoder();

    Clock& m_clock;
    std::unique_ptr<QAudioDecoder, DeleteLater> m_decoder;
    std::unique_ptr<QBuffer, DeleteLater> m_encoded;
    std::unique_ptr<QAudioSink, DeleteLater> m_sink;
    std::unique_ptr<QBuffer, DeleteLater> m_output;
    std::optional<CancellationToken> m_decodeAbort;
    Clock::TimerId m_decodeTimer = 0;
    QAudioFormat m_format; // 16-bit, the source's rate and channels
    QByteArray m_pcm;
    bool m_decodeFailed = false;
};
